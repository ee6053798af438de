// Whole renders through the executable and, for cancellation, in process.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

namespace {

float minOf(const QMedia::Frame& f) {
    float m = 1e9f;
    for (int y = 0; y < f.height(); ++y)
        for (int x = 0; x < f.width(); ++x) m = std::min(m, f.sample(x, y, 0));
    return m;
}

float maxOf(const QMedia::Frame& f) {
    float m = -1e9f;
    for (int y = 0; y < f.height(); ++y)
        for (int x = 0; x < f.width(); ++x) m = std::max(m, f.sample(x, y, 0));
    return m;
}

}  // namespace

TEST(CliRender, DepthOfWhiteIsNearZero) {
    TempDir dir;
    QMedia::writeImage(dir / "white.png", solidFrame(64, 48, 1.0f));
    const auto r = runQuillon("render -t depth -i " + quote(dir / "white.png") + " -o " + quote(dir / "depth.exr"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame depth = QMedia::readImage(dir / "depth.exr");
    EXPECT_EQ(depth.width(), 64);
    EXPECT_EQ(depth.height(), 48);
    EXPECT_EQ(depth.channels(), 1);
    EXPECT_EQ(depth.type(), ML::F32);
    EXPECT_LT(maxOf(depth), 0.05f);
    EXPECT_GT(minOf(depth), -0.05f);
}

TEST(CliRender, DepthFollowsLumaAndColourViewIsWritten) {
    TempDir dir;
    QMedia::writeImage(dir / "ramp.png", rampFrame(96, 40));
    const auto r = runQuillon("render -t 9 -m 0 -i " + quote(dir / "ramp.png") + " -o " + quote(dir / "d.exr") +
                              " --output1 " + quote(dir / "c.png"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame depth = QMedia::readImage(dir / "d.exr");
    // 1 - luma: dark left is far (near 1), bright right is near (near 0).
    EXPECT_GT(depth.sample(1, 20, 0), 0.85f);
    EXPECT_LT(depth.sample(94, 20, 0), 0.15f);
    EXPECT_GT(depth.sample(30, 20, 0), depth.sample(60, 20, 0));
    const QMedia::Frame colour = QMedia::readImage(dir / "c.png");
    EXPECT_EQ(colour.width(), 96);
    EXPECT_EQ(colour.channels(), 3);
    // The colour ramp is not flat.
    float spread = 0;
    for (int c = 0; c < 3; ++c) spread += std::fabs(colour.sample(1, 20, c) - colour.sample(94, 20, c));
    EXPECT_GT(spread, 0.3f);
}

TEST(CliRender, RegionOfInterestOnlyIsWritten) {
    TempDir dir;
    QMedia::writeImage(dir / "black.png", solidFrame(40, 30, 0.0f));
    const auto r = runQuillon("render -t depth -i " + quote(dir / "black.png") + " -o " + quote(dir / "d.exr") +
                              " --roi 10,5,30,20");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame depth = QMedia::readImage(dir / "d.exr");
    EXPECT_GT(depth.sample(10, 5, 0), 0.9f);
    EXPECT_GT(depth.sample(29, 19, 0), 0.9f);
    EXPECT_FLOAT_EQ(depth.sample(9, 5, 0), 0.0f);
    EXPECT_FLOAT_EQ(depth.sample(30, 19, 0), 0.0f);
    EXPECT_FLOAT_EQ(depth.sample(15, 20, 0), 0.0f);
}

TEST(CliRender, VideoToNumberedSequence) {
    TempDir dir;
    {
        QMedia::MediaSinkOptions options;
        options.video.codec = QMedia::VideoCodec::FFV1;
        auto video = QMedia::MediaSink::create(dir / "in.mkv", options);
        for (int f = 0; f < 4; ++f) video->write(f, solidFrame(32, 24, f / 3.0f));
        video->finish();
    }
    std::filesystem::create_directories(dir / "out");
    const auto r = runQuillon("render -t depth -i " + quote(dir / "in.mkv") + " -o " +
                              quote(dir / "out" / "depth.####.exr") + " --frames 1-3");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_EQ(filesIn(dir / "out"), (std::vector<std::string>{"depth.0001.exr", "depth.0002.exr", "depth.0003.exr"}));
    // Brighter frames are nearer.
    const float d1 = QMedia::readImage(dir / "out" / "depth.0001.exr").sample(16, 12, 0);
    const float d3 = QMedia::readImage(dir / "out" / "depth.0003.exr").sample(16, 12, 0);
    EXPECT_NEAR(d1, 2.0f / 3.0f, 0.05f);
    EXPECT_NEAR(d3, 0.0f, 0.05f);
}

TEST(CliRender, SequenceInToVideoOut) {
    TempDir dir;
    for (int f = 5; f <= 7; ++f) {
        char name[32];
        std::snprintf(name, sizeof name, "in.%03d.png", f);
        QMedia::writeImage(dir / name, solidFrame(32, 24, 0.5f));
    }
    const auto r = runQuillon("render -t depth -i " + quote(dir / "in.%03d.png") + " -o " + quote(dir / "d.mkv") +
                              " --output1 " + quote(dir / "c.%d.png"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_TRUE(std::filesystem::exists(dir / "d.mkv"));
    EXPECT_TRUE(std::filesystem::exists(dir / "c.5.png"));
    EXPECT_TRUE(std::filesystem::exists(dir / "c.7.png"));
}

TEST(CliRender, ThreadsGiveTheSameFrames) {
    TempDir dir;
    QMedia::writeImage(dir / "ramp.png", rampFrame(48, 32));
    const auto one = runQuillon("render -t depth -i " + quote(dir / "ramp.png") + " -o " + quote(dir / "a.%d.exr") +
                                " -f 0-3 -j 1");
    const auto three = runQuillon("render -t depth -i " + quote(dir / "ramp.png") + " -o " +
                                  quote(dir / "b.%d.exr") + " -f 0-3 -j 3");
    ASSERT_EQ(one.exitCode, 0) << one.output;
    ASSERT_EQ(three.exitCode, 0) << three.output;
    for (int f = 0; f < 4; ++f) {
        const auto n = std::to_string(f);
        EXPECT_EQ(QMedia::readImage(dir / ("a." + n + ".exr")), QMedia::readImage(dir / ("b." + n + ".exr"))) << f;
    }
}

TEST(CliCommands, ListShowsBackendAndModels) {
    const auto r = runQuillon("list");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("ort_cpu (default)"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("depth (9)"), std::string::npos);
    EXPECT_NE(r.output.find("depth_standin"), std::string::npos);
    EXPECT_NE(r.output.find("256x256"), std::string::npos);
}

TEST(CliCommands, HelpDocumentsExitCodesAndParams) {
    const auto r = runQuillon("--help");
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_NE(r.output.find("Exit codes"), std::string::npos);
    EXPECT_NE(r.output.find("ID[.INDEX][:TYPE]=VALUE"), std::string::npos);
}

TEST(CliCommands, DemoWritesSampleAndDepth) {
    TempDir dir;
    const auto r = runQuillon("demo --out " + quote(dir / "demo"));
    ASSERT_EQ(r.exitCode, 0) << r.output;
    const QMedia::Frame sample = QMedia::readImage(dir / "demo" / "sample.png");
    EXPECT_EQ(sample.width(), 640);
    EXPECT_EQ(sample.height(), 360);
    EXPECT_EQ(QMedia::readImage(dir / "demo" / "depth.exr").channels(), 1);
    EXPECT_TRUE(std::filesystem::exists(dir / "demo" / "depth_colour.png"));
    EXPECT_NE(r.output.find("depth.exr"), std::string::npos);
}

TEST(CliCommands, BenchPrintsBothTimesAndTheRatio) {
    const auto r = runQuillon("bench --frames 1 --size 64x48");
    ASSERT_EQ(r.exitCode, 0) << r.output;
    EXPECT_NE(r.output.find("Through the plug-in:"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("Network alone (ORT):"), std::string::npos);
    EXPECT_NE(r.output.find("Plug-in overhead:"), std::string::npos);
}

TEST(CliCancel, InterruptCancelsThroughTheHost) {
    std::ostringstream log;
    QCli::Session session({std::filesystem::path(QUILLON_BIN_DIR) / "Quillon.so", QUILLON_TEST_PACKAGE_DIR, 0,
                           64u << 20},
                          log);
    QCli::CancelWatch watch;
    QCli::RenderRequest request;
    QCli::FrameRenderer renderer(session, watch, request);
    const QMedia::Frame input = solidFrame(16, 16, 0.5f);
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
