// The command line of quillon-pkg: help, errors and exit statuses, files written.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

std::string quoted(const fs::path& p) { return "\"" + p.string() + "\""; }

size_t lineCount(const std::string& s) { return static_cast<size_t>(std::count(s.begin(), s.end(), '\n')); }

// A failed run: the given status, one error line, nothing on stdout.
void expectError(const CliResult& r, int code, const std::string& mention) {
    EXPECT_EQ(r.code, code);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(lineCount(r.err), 1u) << r.err;
    EXPECT_EQ(r.err.rfind("quillon-pkg: error: ", 0), 0u) << r.err;
    EXPECT_NE(r.err.find(mention), std::string::npos) << r.err;
}

}  // namespace

// Help goes to stdout with status 0, from any command; it names the commands and the adapters.
TEST(Cli, HelpListsTheCommands) {
    const CliResult r = runPkg("--help");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(runPkg("sampler --help").out, r.out);
    for (const char* text : {"  default <dir>", "  import <model.json>", "esrgan-medium-enhance"})
        EXPECT_NE(r.out.find(text), std::string::npos) << text;
}

TEST(Cli, BadArgumentsAreUsageErrors) {
    TempDir dir;
    const std::string d = quoted(dir.path());
    expectError(runPkg(""), 2, "no command");
    expectError(runPkg("package " + d), 2, "unknown command 'package'");
    expectError(runPkg("config"), 2, "needs a folder");
    expectError(runPkg("config " + d + " --encrpyt"), 2, "--encrpyt");
    expectError(runPkg("config " + d + " extra"), 2, "extra");
    expectError(runPkg("imgcvt " + d + " --pair HWC-U9-RGB_TO_CHW-F16-RGB"), 2, "HWC-U9-RGB");
    expectError(runPkg("imgcvt " + d + " --pair HWC-U8-RGB_CHW-F16-RGB"), 2, "_TO_");
    expectError(runPkg("imgcvt " + d + " --pair HWC-U8-RGB_TO_HWC-U8-RGB"), 2, "itself");
    expectError(runPkg("normalizer " + d + " --type F64 --size 1x8x8"), 2, "F64");
    expectError(runPkg("normalizer " + d + " --type U8 --size 1x8x8"), 2, "U8");
    expectError(runPkg("normalizer " + d + " --size 1x8x8"), 2, "--type");
    expectError(runPkg("normalizer " + d + " --type F16"), 2, "--size");
    expectError(runPkg("normalizer " + d + " --type F16 --size"), 2, "needs a value");
    expectError(runPkg("sampler " + d + " --type F16 --dynamic --size 1x8x8"), 2, "--dynamic");
    expectError(runPkg("sampler " + d + " --type F16 --dynamic --split"), 2, "--dynamic");
    for (const char* size : {"0x8x8", "1x-8x8", "1x8", "1x8x8x8", "axbxc", "1x8x", "99999999999x1x1", "1x65537x8"})
        expectError(runPkg(std::string("sampler ") + d + " --type F32 --size " + size), 2, size);
    // Nothing was written by any of these.
    EXPECT_TRUE(listFiles(dir.path()).empty());
}

TEST(Cli, UnwritableFolderFailsCleanly) {
    TempDir dir;
    const fs::path blocker = dir.path() / "file";
    std::ofstream(blocker) << "not a folder";
    expectError(runPkg("config " + quoted(blocker / "sub")), 1, "cannot create folder");
    expectError(runPkg("default " + quoted(blocker)), 1, blocker.string());
    EXPECT_EQ(listFiles(dir.path()), std::vector<std::string>{"file"});
}

TEST(Cli, WritesOnlyWhatWasAskedAndNoTemporaries) {
    TempDir dir;
    CliResult r = runPkg("imgcvt " + quoted(dir.path()) + " --pair HWC-U8-RGBA_TO_CHW-F16-RGB --pair CHW-F32-R_TO_HWC-U8-BGR");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(listFiles(dir.path()),
              (std::vector<std::string>{"imgcvt/CHW-F32-R_TO_HWC-U8-BGR.onnx", "imgcvt/HWC-U8-RGBA_TO_CHW-F16-RGB.onnx"}));

    // Each asked type and size, and nothing half written: only finished networks.
    TempDir other;
    for (const auto& [command, options] : {std::pair{"normalizer", " --type F16 --type F32 --size 1x64x32 --size 2x8x8"},
                                            {"standins", ""}, {"sampler", " --type F32 --dynamic"}}) {
        r = runPkg(std::string(command) + " " + quoted(other.path()) + options);
        EXPECT_EQ(r.code, 0) << command << r.err;
    }
    const std::vector<std::string> files = listFiles(other.path());
    for (const std::string& f : files) EXPECT_EQ(fs::path(f).extension(), ".onnx") << f;
    std::vector<std::string> asked{"upres_sampler_dynamic_F32.onnx", "optical_flow_standin.onnx"};
    for (const char* name : {"normalize-input", "denormalize-output"})
        for (const char* type : {"F16", "F32"})
            for (const char* size : {"1x64x32", "2x8x8"}) asked.push_back(std::string(name) + "_" + type + "_" + size + ".onnx");
    for (const std::string& f : asked) EXPECT_NE(std::find(files.begin(), files.end(), f), files.end()) << f;
    EXPECT_EQ(std::count_if(files.begin(), files.end(), [](const std::string& f) { return f.find("sampler") != std::string::npos; }), 1);
}

// --portable on default: no helper network of the package uses the fused operators' domain,
// which the default package's conversions and resizes do.
TEST(Cli, PortablePackageUsesStandardOperatorsOnly) {
    auto usesFused = [](const fs::path& file) {
        std::ifstream in(file, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        return bytes.find("ai.quillon") != std::string::npos;
    };
    TempDir dir, none;
    const CliResult r = runPkg("default " + quoted(dir.path()) + " --portable --networks " + quoted(none.path()));
    ASSERT_EQ(r.code, 0) << r.err;
    int networks = 0;
    for (const std::string& f : listFiles(dir.path() / "models")) {
        if (f.size() < 5 || f.substr(f.size() - 5) != ".onnx") continue;
        ++networks;
        EXPECT_FALSE(usesFused(dir.path() / "models" / f)) << f;
    }
    EXPECT_GT(networks, 1260);
    for (const char* f : {"imgcvt/HWC-U8-RGBA_TO_CHW-F16-RGB.onnx", "imgcvt/resize_F16_CHW.onnx"})
        EXPECT_TRUE(usesFused(packageModelFolder() / f)) << f;
}
