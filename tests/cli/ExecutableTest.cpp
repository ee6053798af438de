// Whole runs of the quillon executable: renders of images, sequences and videos, the other
// commands, and bad input (one plain error line, the documented exit code, no output file).
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "Host/Cli/ExitCodes.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/MediaSink.h"
#include "util/TempDir.h"

using QMedia::readImage;

namespace {

struct RunResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

std::string quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

// Runs bin/quillon with the package given (the test package by default) and the arguments (a
// shell command line fragment).
RunResult runQuillon(const std::string& arguments, const std::filesystem::path& package = QUILLON_TEST_PACKAGE_DIR) {
    const std::string command = quote(std::filesystem::path(QUILLON_BIN_DIR) / "quillon") + " --package " +
                                quote(package) + " " + arguments + " 2>&1";
    RunResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> chunk{};
    while (std::fgets(chunk.data(), static_cast<int>(chunk.size()), pipe)) result.output += chunk.data();
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// An RGB U8 frame: one grey level, or (level < 0) a horizontal ramp from 0 on the left to 1 on
// the right.
QMedia::Frame greyFrame(int width, int height, float level) {
    QMedia::Frame frame(width, height, 3, ML::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, level >= 0 ? level : float(x) / float(width - 1));
    return frame;
}

// Files in a folder, sorted by name.
std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

// Depth is 1 - luma in the region of interest and 0 outside it; the colour view is written too.
TEST(CliRender, DepthFollowsLumaInTheRegionAndColourViewIsWritten) {
    TempDir dir;
    QMedia::writeImage(dir / "ramp.png", greyFrame(96, 40, -1.0f));
    const auto r = runQuillon("render -t 9 -m 0 -i " + quote(dir / "ramp.png") + " -o " + quote(dir / "d.exr") +
                              " --output1 " + quote(dir / "c.png") + " --roi 0,5,96,35");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame depth = readImage(dir / "d.exr");
    EXPECT_EQ(std::tuple(depth.width(), depth.height(), depth.channels(), depth.type()), std::tuple(96, 40, 1, ML::F32));
    // Dark left is far (near 1), bright right is near (near 0).
    EXPECT_GT(depth.sample(1, 20, 0), 0.85f);
    EXPECT_LT(depth.sample(94, 20, 0), 0.15f);
    EXPECT_GT(depth.sample(30, 5, 0), depth.sample(60, 34, 0));
    for (int x : {1, 50, 94}) EXPECT_EQ(std::pair(depth.sample(x, 4, 0), depth.sample(x, 35, 0)), std::pair(0.0f, 0.0f));
    const QMedia::Frame colour = readImage(dir / "c.png");
    EXPECT_EQ(std::tuple(colour.width(), colour.channels()), std::tuple(96, 3));
    float spread = 0;  // the colour ramp is not flat
    for (int c = 0; c < 3; ++c) spread += std::fabs(colour.sample(1, 20, c) - colour.sample(94, 20, c));
    EXPECT_GT(spread, 0.3f);
}

// A red square moving right over grey, drawn on keyframes 0 and 6 of a sequence: the mask of
// every frame covers the square and leaves the rest; the preview tints the square.
TEST(CliRender, MaskPropagationFromKeyframeFiles) {
    TempDir dir;
    const auto square = [](int f, int x, int y) { return x >= 10 + 4 * f && x < 34 + 4 * f && y >= 12 && y < 36; };
    for (int f = 0; f < 8; ++f) {
        QMedia::Frame frame = greyFrame(96, 48, 0.45f), mask = greyFrame(96, 48, 0.0f);
        for (int y = 0; y < 48; ++y)
            for (int x = 0; x < 96; ++x)
                if (square(f, x, y))
                    for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, c == 0 ? 0.9f : 0.1f), mask.setSample(x, y, c, 1.0f);
        QMedia::writeImage(dir / ("in." + std::to_string(f) + ".png"), frame);
        if (f == 0 || f == 6) QMedia::writeImage(dir / ("key" + std::to_string(f) + ".png"), mask);
    }
    const auto r = runQuillon("render -t mask-propagation -i " + quote(dir / "in.%d.png") + " --keyframe 0=" +
                              quote(dir / "key0.png") + " --keyframe 6=" + quote(dir / "key6.png") + " -o " +
                              quote(dir / "m.%d.exr") + " --output1 " + quote(dir / "p.%d.png"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    for (int f = 0; f < 8; ++f) {
        const QMedia::Frame mask = readImage(dir / ("m." + std::to_string(f) + ".exr"));
        int wrong = 0;
        for (int y = 0; y < 48; ++y)
            for (int x = 0; x < 96; ++x) wrong += (mask.sample(x, y, 0) > 0.5f) != square(f, x, y);
        EXPECT_LT(wrong, 24 * 24 / 10) << "frame " << f;
    }
    const QMedia::Frame preview = readImage(dir / "p.3.png");
    EXPECT_NEAR(preview.sample(90, 40, 1), 0.45f, 0.02f);
    const auto noKeyframe = runQuillon("render -t mask-propagation -i " + quote(dir / "in.%d.png") + " -o " +
                                       quote(dir / "n.%d.exr"));
    EXPECT_NE(noKeyframe.exitCode, 0);
    EXPECT_NE(noKeyframe.output.find("--keyframe"), std::string::npos) << noKeyframe.output;
}

TEST(CliRender, VideoToSequenceAndSequenceToVideo) {
    TempDir dir;
    {
        QMedia::MediaSinkOptions options;
        options.video.codec = QMedia::VideoCodec::FFV1;
        auto video = QMedia::MediaSink::create(dir / "in.mkv", options);
        for (int f = 0; f < 4; ++f) video->write(f, greyFrame(32, 24, f / 3.0f));
        video->finish();
    }
    std::filesystem::create_directories(dir / "out");
    auto r = runQuillon("render -t depth -i " + quote(dir / "in.mkv") + " -o " + quote(dir / "out" / "depth.####.exr") +
                        " --frames 1-3");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(filesIn(dir / "out"), (std::vector<std::string>{"depth.0001.exr", "depth.0002.exr", "depth.0003.exr"}));
    // Brighter frames are nearer.
    EXPECT_NEAR(readImage(dir / "out" / "depth.0001.exr").sample(16, 12, 0), 2.0f / 3.0f, 0.05f);
    EXPECT_NEAR(readImage(dir / "out" / "depth.0003.exr").sample(16, 12, 0), 0.0f, 0.05f);
    for (int f = 5; f <= 7; ++f) QMedia::writeImage(dir / ("in.00" + std::to_string(f) + ".png"), greyFrame(32, 24, 0.5f));
    r = runQuillon("render -t depth -i " + quote(dir / "in.%03d.png") + " -o " + quote(dir / "d.mkv") + " --output1 " +
                   quote(dir / "c.%d.png"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    for (const char* name : {"d.mkv", "c.5.png", "c.7.png"}) EXPECT_TRUE(std::filesystem::exists(dir / name)) << name;
}

// Upscaling sizes the output by the factor, about the origin, and output column X shows the
// input at (X + 0.5 - origin) / factor + origin - 0.5: on a ramp, that position's level.
TEST(CliRender, UpresOutputIsTheFactorsSizeAboutTheOrigin) {
    TempDir dir;
    const int W = 300, H = 24;  // wider than a tile, so that origins off the scale's grid are met
    QMedia::writeImage(dir / "ramp.png", greyFrame(W, H, -1.0f));
    const struct {
        float factor;
        int originX;
    } cases[] = {{2.0f, 0}, {2.5f, 0}, {2.0f, 37}, {3.0f, 37}, {2.5f, 151}};
    for (const auto& c : cases) {
        std::ostringstream options;
        options << "--scale " << c.factor << " --origin " << c.originX << ",0";
        SCOPED_TRACE(options.str());
        const auto r = runQuillon("render -t upres -m 3 " + options.str() + " -i " + quote(dir / "ramp.png") + " -o " +
                                  quote(dir / "up.exr"));
        ASSERT_EQ(r.exitCode, 0) << r.output;
        const QMedia::Frame up = readImage(dir / "up.exr");
        const int width = int(W * c.factor), height = int(H * c.factor);
        ASSERT_EQ(std::tuple(up.width(), up.height()), std::tuple(width, height));
        for (int x = 0; x < width; x += 7) {
            // Output pixel centres map back about the origin; the ramp is linear inside the input.
            const float source = (x + 0.5f - c.originX) / c.factor + c.originX - 0.5f;
            if (source < 1.0f || source > W - 2.0f) continue;
            EXPECT_NEAR(up.sample(x, height / 2, 1), source / (W - 1.0f), 0.02f) << x;
        }
        // Past the input's image the frame stays empty.
        if ((W - c.originX) * c.factor + c.originX < width) {
            EXPECT_EQ(up.sample(width - 1, height / 2, 1), 0.0f);
        }
    }
}

// A textured frame moved right by dx pixels.
QMedia::Frame texturedFrame(int width, int height, float dx) {
    QMedia::Frame frame(width, height, 3, ML::F32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c)
                frame.setSample(x, y, c, 0.5f + 0.3f * std::sin(0.2f * (x - dx) + c) * std::cos(0.15f * y));
    return frame;
}

// Flow between neighbouring frames of a sequence that moves 2 pixels a frame, with its coloured
// view; and the same sequence slowed down by half, whose whole positions are the source frames.
TEST(CliRender, OpticalFlowAndRetimingOfASequence) {
    TempDir dir;
    for (int f = 0; f < 3; ++f) QMedia::writeImage(dir / ("in." + std::to_string(f) + ".exr"), texturedFrame(160, 96, 2.0f * f));
    const std::string in = quote(dir / "in.%d.exr");
    auto r = runQuillon("render -t optical-flow --offset 1 -i " + in + " -o " + quote(dir / "flow.%d.exr") +
                        " --output1 " + quote(dir / "colour.%d.png"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame flow = readImage(dir / "flow.0.exr");
    ASSERT_EQ(flow.channels(), 2);
    EXPECT_NEAR(flow.sample(80, 48, 0), 2.0f, 0.3f);
    EXPECT_NEAR(flow.sample(80, 48, 1), 0.0f, 0.3f);
    EXPECT_NEAR(readImage(dir / "flow.2.exr").sample(80, 48, 0), 0.0f, 0.3f);  // the last frame repeats
    EXPECT_TRUE(std::filesystem::exists(dir / "colour.1.png"));

    r = runQuillon("render -t retiming --speed 0.5 -i " + in + " -o " + quote(dir / "slow.%d.exr"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("Rendered 5 frames"), std::string::npos) << r.output;
    EXPECT_EQ(readImage(dir / "slow.0.exr"), readImage(dir / "in.0.exr"));
    EXPECT_EQ(readImage(dir / "slow.2.exr"), readImage(dir / "in.1.exr"));
    EXPECT_NEAR(readImage(dir / "slow.1.exr").sample(80, 48, 1), texturedFrame(160, 96, 1.0f).sample(80, 48, 1), 0.05f);
}

TEST(CliRender, ThreadsGiveTheSameFrames) {
    TempDir dir;
    QMedia::writeImage(dir / "ramp.png", greyFrame(48, 32, -1.0f));
    // Depth keeps nothing between frames; the denoiser reads two frames on each side and shares
    // its first stage's results between frames through the host's cache.
    for (const std::string target : {"depth", "denoise"}) {
        SCOPED_TRACE(target);
        for (const char* run : {"a.%d.exr -f 0-3 -j 1", "b.%d.exr -f 0-3 -j 3"}) {
            const auto r = runQuillon("render -t " + target + " -i " + quote(dir / "ramp.png") + " -o " +
                                      quote(dir.path()) + "/" + target + run);
            ASSERT_EQ(r.exitCode, 0) << r.output;
            EXPECT_EQ(r.output.find("--threads ignored"), std::string::npos) << r.output;
        }
        for (int f = 0; f < 4; ++f) {
            const auto n = std::to_string(f);
            EXPECT_EQ(readImage(dir / (target + "a." + n + ".exr")), readImage(dir / (target + "b." + n + ".exr"))) << f;
        }
    }
}

TEST(CliCommands, ListHelpDemoAndBench) {
    TempDir dir;
    const struct {
        std::string arguments;
        std::vector<const char*> fragments;
    } cases[] = {
        {"list", {"ort_cpu (default)", "depth (9)", "id depth_standin  tile 256x256  stand-in"}},
        {"--help", {"Exit codes", "ID[.INDEX][:TYPE]=VALUE"}},
        {"demo --out " + quote(dir / "demo"), {"depth.exr"}},
        {"bench --frames 1 --size 64x48", {"Through the plug-in:", "Network alone (ORT):", "Plug-in overhead:"}},
        // 600x200 out of tiles of 256 that overlap by 32: three tiles, each one run.
        {"bench -t upres -m 3 --frames 1 --size 300x100", {"scaled by 2,", "(3 runs of upres_standin_2x.onnx on 1x3x128x128"}},
        {"bench -t optical-flow --frames 1 --size 64x48", {"(1 run of optical_flow_standin.onnx on 1x3x288x512"}},
        {"bench -t retiming --frames 1 --size 500x100", {"(2 runs of retiming_standin.onnx on 1x3x384x384"}},
        // Two frames of 300x100 in two tiles: four stage-1 results made, two taken from the cache.
        {"bench -t denoise --frames 2 --size 300x100",
         {"Host threads:", "(8 runs of denoiser_standin_stage1.onnx", "(4 runs of denoiser_standin_stage2.onnx",
          "stage-1 results from the cache: 33% of 6"}},
    };
    for (const auto& c : cases) {
        const auto r = runQuillon(c.arguments);
        EXPECT_EQ(r.exitCode, 0) << r.output;
        for (const char* fragment : c.fragments) EXPECT_NE(r.output.find(fragment), std::string::npos) << r.output;
    }
    const QMedia::Frame sample = readImage(dir / "demo" / "sample.png");
    EXPECT_EQ(std::tuple(sample.width(), sample.height()), std::tuple(640, 360));
    EXPECT_EQ(readImage(dir / "demo" / "depth.exr").channels(), 1);
    EXPECT_TRUE(std::filesystem::exists(dir / "demo" / "depth_colour.png"));
}

// A model whose networks networks.json records as imported (its id, or its id and a scale) shows
// their source; others are stand-ins.
TEST(CliCommands, ListShowsRealNetworksFromTheIndex) {
    TempDir dir;
    std::filesystem::copy(std::filesystem::path(QUILLON_TEST_PACKAGE_DIR) / "config", dir / "config");
    std::filesystem::create_directories(dir / "models");
    std::ofstream(dir / "models" / "networks.json")
        << R"({"models": {"depth_standin": {"kind": "imported", "source": "depth@2.0.0", "licence": "MIT"},
                         "esrgan_thick_4x": {"kind": "imported", "source": "thick@1.0.0", "licence": "MIT"},
                         "esrgan_medium_enhance": {"kind": "stand-in", "source": "quillon-pkg"}}})";
    const RunResult r = runQuillon("list", dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("id depth_standin  tile 256x256  network depth@2.0.0, MIT\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("id esrgan_thick  tile 128x128  network thick@1.0.0, MIT\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("id esrgan_medium  tile 128x128  stand-in\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("id esrgan_medium_enhance  tile 256x256  stand-in\n"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("id denoiser_standin  tile 256x256  stand-in\n"), std::string::npos) << r.output;
}

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
        {render + " --origin 3", QCli::EXIT_USAGE, "bad origin"},
        {render + " --speed 0.5", QCli::EXIT_USAGE, "for retiming only"},
        {"render -t retiming --fps 30 -i " + quote(dir / "s.%d.png") + " -o " + quote(dir / "out" / "r.%d.png"),
         QCli::EXIT_USAGE, "use --speed"},
        {"render -t upres --scale 1 -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "u.png"),
         QCli::EXIT_FAILURE_OTHER, "upres factor must be > 1"},
        // Families not in this build: the plug-in fails with result 4 and logs its own line.
        {"render -t matting -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr"),
         QCli::EXIT_FAILURE_OTHER, "not available in this build"},
        {"render -t matting -i " + quote(dir / "in.png") + " -o " + quote(dir / "out" / "d.exr"),
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
