// Bad input: one plain error line, the documented exit code, and no output file.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "CliTestUtil.h"
#include "Host/Cli/ExitCodes.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/MediaSink.h"
#include "util/TempDir.h"

using namespace CliTest;

TEST(CliErrorPath, OnePlainLineTheExitCodeAndNoOutput) {
    TempDir dir;
    std::filesystem::create_directories(dir / "out");
    QMedia::writeImage(dir / "in.png", greyFrame(16, 16, 0.5f));
    for (int f = 0; f < 3; ++f) QMedia::writeImage(dir / ("s." + std::to_string(f) + ".png"), greyFrame(8, 8, 0.5f));
    std::ofstream(dir / "junk.png") << "not a picture";
    const std::string render = "render -t depth -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr");
    const std::string junk = "render -t depth -i " + quote(dir / "junk.png") + " -o " + quote(dir / "out" / "d.exr");
    const struct {
        std::string arguments;
        int code;
        std::string fragment;
    } cases[] = {
        {"render -t depth -i " + quote(dir / "nope.png") + " -o " + quote(dir / "out" / "d.exr"), QCli::EXIT_HOST,
         "input not found"},
        {junk, QCli::EXIT_HOST, "quillon: error: cannot read input " + (dir / "junk.png").string() + ": "},
        // The internal text behind the plain line comes with -v, on a line of its own.
        {junk + " -v", QCli::EXIT_HOST, "quillon: detail: PLUGIN/INTERNAL: Host/Media/"},
        {"render -t nothing -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr"), QCli::EXIT_USAGE,
         "unknown target"},
        {render + " --param 4:int=x", QCli::EXIT_USAGE, "bad parameter"},
        {"render -t depth -i " + quote(dir / "s.%d.png") + " -o " + quote(dir / "out" / "d.%d.exr") + " -f 1-5",
         QCli::EXIT_USAGE, "outside the input"},
        {"render -t depth -i " + quote(dir / "in.png") + " -o " + quote(dir / "nowhere" / "d.exr"), QCli::EXIT_HOST,
         "does not exist"},
        {render + " -f 0-2", QCli::EXIT_USAGE, "one image"},
        {render + " --roi 0,0,17,16", QCli::EXIT_USAGE, "outside the input"},
        // Targets other than depth are not in this build: the plug-in fails with result 4 and
        // logs its own line.
        {"render -t denoise -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr"),
         QCli::EXIT_FAILURE_OTHER, "not available in this build"},
        {"render -t denoise -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr"),
         QCli::EXIT_FAILURE_OTHER, "[Quillon] [E]"},
        {"render -t depth -m 7 -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.mkv"),
         QCli::EXIT_FAILURE_OTHER, "Model idx out of range!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const RunResult r = runQuillon(c.arguments);
        EXPECT_EQ(r.exitCode, c.code) << r.output;
        EXPECT_NE(r.output.find(c.fragment), std::string::npos) << r.output;
        std::istringstream lines(r.output);
        int errorLines = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.rfind("quillon: error: ", 0) != 0) continue;
            ++errorLines;
            for (const char* internal : {"PLUGIN/", "BACKEND/", "INTERNAL", "Host/", "Plugin/", "(result"})
                EXPECT_EQ(line.find(internal), std::string::npos) << internal << " in " << line;
        }
        EXPECT_EQ(errorLines, 1) << r.output;
        EXPECT_TRUE(filesIn(dir / "out").empty()) << r.output;
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "nowhere"));

    const RunResult noPackage = runQuillon("list", dir / "nopackage");
    EXPECT_EQ(noPackage.exitCode, QCli::EXIT_HOST);
    EXPECT_NE(noPackage.output.find("model package not found"), std::string::npos) << noPackage.output;
}

// A damaged video: FFmpeg's own decoder complaints stay off the terminal unless -vv asks for them.
TEST(CliErrorPath, DecoderWarningsOnlyWithDoubleVerbose) {
    TempDir dir;
    {
        auto sink = QMedia::MediaSink::create(dir / "clip.avi", QMedia::MediaSinkOptions{});
        for (int f = 0; f < 12; ++f) {
            QMedia::Frame noise(64, 48, 3, ML::U8);
            for (size_t i = 0; i < noise.byteSize(); ++i) noise.data()[i] = static_cast<std::uint8_t>(i * 2654435761u >> (f % 7 + 8));
            sink->write(f, noise);
        }
        sink->finish();
    }
    std::ifstream file(dir / "clip.avi", std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    for (size_t i = bytes.size() / 3; i < bytes.size() * 2 / 3; i += 5) bytes[i] = static_cast<char>(bytes[i] * 7 + 3);
    std::ofstream(dir / "clip.avi", std::ios::binary) << bytes;

    const std::string command = "render -t depth -i " + quote(dir / "clip.avi") + " -o " + quote(dir / "d.%04d.exr");
    const std::string decoderLine = " @ 0x";  // "[codec @ 0x...] complaint"
    EXPECT_EQ(runQuillon(command).output.find(decoderLine), std::string::npos);
    EXPECT_NE(runQuillon(command + " -vv").output.find(decoderLine), std::string::npos);
}
