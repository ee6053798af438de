// Bad input: one clear error line, the documented exit code, and no output file.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "CliTestUtil.h"
#include "Host/Cli/ExitCodes.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/MediaSink.h"
#include "util/TempDir.h"

using namespace CliTest;

namespace {

int errorLines(const std::string& output) {
    std::istringstream in(output);
    int count = 0;
    for (std::string line; std::getline(in, line);)
        if (line.rfind("quillon: error: ", 0) == 0) ++count;
    return count;
}

class CliErrorPath : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(dir / "out");
        QMedia::writeImage(dir / "in.png", solidFrame(16, 16, 0.5f));
    }
    // Runs and checks the exit code, the single error line and that out/ stayed empty.
    RunResult expectFailure(const std::string& arguments, int code, const std::string& fragment) {
        RunResult r = runQuillon(arguments);
        EXPECT_EQ(r.exitCode, code) << r.output;
        EXPECT_EQ(errorLines(r.output), 1) << r.output;
        EXPECT_NE(r.output.find(fragment), std::string::npos) << r.output;
        EXPECT_TRUE(filesIn(dir / "out").empty()) << r.output;
        return r;
    }
    std::string in() const { return quote(dir / "in.png"); }
    std::string out(const std::string& name) const { return quote(dir / "out" / name); }

    TempDir dir;
};

}  // namespace

TEST_F(CliErrorPath, MissingInput) {
    expectFailure("render -t depth -i " + quote(dir / "nope.png") + " -o " + out("d.exr"), QCli::EXIT_HOST,
                  "input not found");
}

TEST_F(CliErrorPath, UnreadableInput) {
    std::ofstream(dir / "junk.png") << "not a picture";
    expectFailure("render -t depth -i " + quote(dir / "junk.png") + " -o " + out("d.exr"), QCli::EXIT_HOST,
                  "cannot read input");
}

TEST_F(CliErrorPath, UnknownTarget) {
    expectFailure("render -t nothing -i " + in() + " -o " + out("d.exr"), QCli::EXIT_USAGE, "unknown target");
}

TEST_F(CliErrorPath, BadParamSyntax) {
    expectFailure("render -t depth -i " + in() + " -o " + out("d.exr") + " --param 4:int=x", QCli::EXIT_USAGE,
                  "bad parameter");
}

TEST_F(CliErrorPath, FrameRangeOutsideInput) {
    for (int f = 0; f < 3; ++f) QMedia::writeImage(dir / ("s." + std::to_string(f) + ".png"), solidFrame(8, 8, 0.5f));
    expectFailure("render -t depth -i " + quote(dir / "s.%d.png") + " -o " + out("d.%d.exr") + " -f 1-5",
                  QCli::EXIT_USAGE, "outside the input");
}

TEST_F(CliErrorPath, MissingOutputFolder) {
    expectFailure("render -t depth -i " + in() + " -o " + quote(dir / "nowhere" / "d.exr"), QCli::EXIT_HOST,
                  "does not exist");
    EXPECT_FALSE(std::filesystem::exists(dir / "nowhere"));
}

TEST_F(CliErrorPath, ManyFramesIntoOneImage) {
    expectFailure("render -t depth -i " + in() + " -o " + out("d.exr") + " -f 0-2", QCli::EXIT_USAGE, "one image");
}

TEST_F(CliErrorPath, RegionOutsideInput) {
    expectFailure("render -t depth -i " + in() + " -o " + out("d.exr") + " --roi 0,0,17,16", QCli::EXIT_USAGE,
                  "outside the input");
}

TEST_F(CliErrorPath, EffectFailureLeavesNoOutput) {
    // Targets other than depth are not in this build: the plug-in fails with result 4.
    const auto r = expectFailure("render -t denoise -i " + in() + " -o " + out("d.exr"), QCli::EXIT_FAILURE_OTHER,
                                 "not available in this build");
    EXPECT_NE(r.output.find("[Quillon] [E]"), std::string::npos) << r.output;  // the plug-in's own line
}

TEST_F(CliErrorPath, BadModelIndex) {
    expectFailure("render -t depth -m 7 -i " + in() + " -o " + out("d.mkv"), QCli::EXIT_FAILURE_OTHER,
                  "Model idx out of range!");
}

TEST_F(CliErrorPath, MissingPackage) {
    const std::string command = quote(std::filesystem::path(QUILLON_BIN_DIR) / "quillon") + " --package " +
                                quote(dir / "nopackage") + " list 2>&1";
    EXPECT_EQ(WEXITSTATUS(std::system(command.c_str())), QCli::EXIT_HOST);
}

// What a user reads is one plain line: no result codes, no "PLUGIN/INTERNAL", no source
// locations. Those come with -v, on a line of their own.
TEST_F(CliErrorPath, ErrorsArePlainAndDetailsComeWithVerbose) {
    std::ofstream(dir / "junk.png") << "not a picture";
    const std::string command = "render -t depth -i " + quote(dir / "junk.png") + " -o " + out("d.exr");
    RunResult plain = expectFailure(command, QCli::EXIT_HOST, "cannot read input " + (dir / "junk.png").string() + ": ");
    for (const char* internal : {"PLUGIN/", "INTERNAL", "Host/Media/", "quillon: detail: "})
        EXPECT_EQ(plain.output.find(internal), std::string::npos) << internal << " in " << plain.output;
    expectFailure(command + " -v", QCli::EXIT_HOST, "quillon: detail: PLUGIN/INTERNAL: Host/Media/");
}

// A damaged video: FFmpeg's own decoder complaints stay off the terminal unless -vv asks for them.
TEST_F(CliErrorPath, DecoderWarningsOnlyWithDoubleVerbose) {
    {
        QMedia::MediaSinkOptions options;
        auto sink = QMedia::MediaSink::create(dir / "clip.avi", options);
        for (int f = 0; f < 12; ++f) {
            QMedia::Frame noise(64, 48, 3, ML::U8);
            for (size_t i = 0; i < noise.byteSize(); ++i) noise.data()[i] = static_cast<std::uint8_t>(i * 2654435761u >> (f % 7 + 8));
            sink->write(f, noise);
        }
        sink->finish();
    }
    std::string bytes;
    {
        std::ifstream file(dir / "clip.avi", std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
    }
    for (size_t i = bytes.size() / 3; i < bytes.size() * 2 / 3; i += 5) bytes[i] = static_cast<char>(bytes[i] * 7 + 3);
    std::ofstream(dir / "clip.avi", std::ios::binary) << bytes;

    const std::string command = "render -t depth -i " + quote(dir / "clip.avi") + " -o " + quote(dir / "d.%04d.exr");
    const std::string decoderLine = " @ 0x";  // "[codec @ 0x...] complaint"
    EXPECT_EQ(runQuillon(command).output.find(decoderLine), std::string::npos);
    EXPECT_NE(runQuillon(command + " -vv").output.find(decoderLine), std::string::npos);
}
