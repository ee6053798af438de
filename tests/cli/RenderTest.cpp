// Whole renders through the executable and, for cancellation, in process.
#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "CliTestUtil.h"
#include "Host/Cli/Cancellation.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/MediaSink.h"
#include "util/TempDir.h"

using namespace CliTest;
using QMedia::readImage;

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

TEST(CliRender, ThreadsGiveTheSameFrames) {
    TempDir dir;
    QMedia::writeImage(dir / "ramp.png", greyFrame(48, 32, -1.0f));
    for (const char* run : {"a.%d.exr -f 0-3 -j 1", "b.%d.exr -f 0-3 -j 3"}) {
        const auto r = runQuillon("render -t depth -i " + quote(dir / "ramp.png") + " -o " + quote(dir.path()) + "/" + run);
        ASSERT_EQ(r.exitCode, 0) << r.output;
    }
    for (int f = 0; f < 4; ++f) {
        const auto n = std::to_string(f);
        EXPECT_EQ(readImage(dir / ("a." + n + ".exr")), readImage(dir / ("b." + n + ".exr"))) << f;
    }
}

TEST(CliCommands, ListHelpDemoAndBench) {
    TempDir dir;
    const struct {
        std::string arguments;
        std::vector<const char*> fragments;
    } cases[] = {
        {"list", {"ort_cpu (default)", "depth (9)", "depth_standin", "256x256"}},
        {"--help", {"Exit codes", "ID[.INDEX][:TYPE]=VALUE"}},
        {"demo --out " + quote(dir / "demo"), {"depth.exr"}},
        {"bench --frames 1 --size 64x48", {"Through the plug-in:", "Network alone (ORT):", "Plug-in overhead:"}},
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

TEST(CliCancel, InterruptCancelsThroughTheHost) {
    std::ostringstream log;
    QCli::Session session({std::filesystem::path(QUILLON_BIN_DIR) / "Quillon.so", QUILLON_TEST_PACKAGE_DIR, 0,
                           64u << 20},
                          log);
    QCli::CancelWatch watch;
    QCli::RenderRequest request;
    QCli::FrameRenderer renderer(session, watch, request);
    const QMedia::Frame input = greyFrame(16, 16, 0.5f);
    EXPECT_EQ(renderer.render(0, input).output.channels(), 1);

    QCli::raiseInterrupt();
    try {
        renderer.render(1, input);
        ADD_FAILURE() << "render went on after the interrupt";
    } catch (const QCli::CliError& e) {
        EXPECT_EQ(e.exitCode(), QCli::EXIT_CANCELLED);
    }
    QCli::clearInterrupt();
    EXPECT_EQ(renderer.render(2, input).output.width(), 16);
}
