// The command-line host in process: parsing, parameters, exit codes, the bridge between frames
// and host images, and cancellation through the host.
#include <gtest/gtest.h>

#include <optional>
#include <sstream>

#include "Host/CallSettings.h"
#include "Host/Cli/Cancellation.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Cli/ImageBridge.h"
#include "Host/Cli/Options.h"
#include "Host/Cli/ParamSetting.h"
#include "Host/Cli/Targets.h"
#include "Host/Cli/Timing.h"
#include "Host/Host.h"

using namespace QCli;

TEST(CliTargets, ByNameAndNumber) {
    for (const auto& [text, number] : {std::pair{"depth", 9}, {"9", 9}, {"Optical_Flow", 3},
                                       {"interactive-segmentation", 7}, {"plate-detection", 8}, {"16", 16}})
        EXPECT_EQ(parseTarget(text), number) << text;
    for (const char* bad : {"0", "17", "deep", ""}) EXPECT_THROW(parseTarget(bad), UsageError) << bad;
}

TEST(CliParams, ParsedAndPassedThroughTheHost) {
    // text: id, index, sets int, float, string; int and float values
    const std::pair<const char*, std::tuple<int, int, bool, bool, bool, int, float>> cases[] = {
        {"4=2", {4, 0, true, true, false, 2, 2.0f}},  // a whole number serves either reading
        {"5=2.2f", {5, 0, false, true, false, 0, 2.2f}},     {"6=a cat", {6, 0, false, false, true, 0, 0.0f}},
        {"6=", {6, 0, false, false, true, 0, 0.0f}},         {"7.2:float=1", {7, 2, false, true, false, 0, 1.0f}},
        {"8:str=12", {8, 0, false, false, true, 0, 0.0f}},   {"3:int=-1", {3, 0, true, false, false, -1, 0.0f}},
    };
    for (const auto& [text, expected] : cases) {
        const ParamSetting p = parseParam(text);
        EXPECT_EQ(std::tuple(p.id, p.index, p.setsInt, p.setsFloat, p.setsString, p.intValue, p.floatValue), expected)
            << text;
    }
    for (const char* bad : {"4", "x=1", "=1", "4:int=1.5", "4:float=abc", "4:bool=1", "4.x=1", "-2=1", "4:int="})
        EXPECT_THROW(parseParam(bad), UsageError) << bad;
    auto settings = std::make_shared<QHost::CallSettings>();
    for (const char* text : {"4=3", "5.1=0.25", "6:str=hello"}) applyParam(*settings, parseParam(text));
    QHost::Host host;
    const ML::u64 call = host.beginCall(settings);
    EXPECT_EQ(host.getIntParam(call, 4, 0), 3);
    EXPECT_FLOAT_EQ(host.getFloatParam(call, 4, 0), 3.0f);
    EXPECT_FLOAT_EQ(host.getFloatParam(call, 5, 1), 0.25f);
    EXPECT_EQ(host.getIntParam(call, 5, 1), 0);
    EXPECT_EQ(ML::toStd(host.getStringParam(call, 6, 0)), "hello");
    host.endCall(call);
}

TEST(CliOptions, RenderAndBenchCommandLines) {
    const Options o = parseArguments({"render", "--target", "depth", "--model", "0", "-i", "in.png", "-o",
                                      "out.%04d.exr", "--output1", "c.%04d.png", "--param", "4=2", "-p", "5:float=1",
                                      "--frames", "3-7", "--backend", "ort_cpu", "--device", "0", "--roi",
                                      "1,2,30,40", "--threads", "3", "--cache-mb", "64", "-vv", "--buffer",
                                      "0=objects.%04d.json"});
    EXPECT_EQ(std::tuple(o.command, o.target, o.input, o.output, o.output1, o.backend),
              std::tuple(Command::Render, 9, "in.png", "out.%04d.exr", "c.%04d.png", "ort_cpu"));
    EXPECT_EQ(std::tuple(o.device, o.roi, o.threads, o.cacheMb, o.verbosity),
              std::tuple(std::optional<std::uint32_t>(0), std::optional<ML::Rect>({1, 2, 30, 40}), 3, 64u, 2));
    ASSERT_EQ(o.params.size(), 2u);
    EXPECT_EQ(o.params[1].id, 5);
    ASSERT_TRUE(o.frames);
    EXPECT_TRUE(*o.frames == (QMedia::FrameRange{3, 7}));
    ASSERT_EQ(o.buffers.size(), 1u);
    EXPECT_EQ(std::tuple(o.buffers[0].id, o.buffers[0].index), std::tuple(0, -1));

    // For bench, --frames is a count.
    const Options bench = parseArguments({"bench", "--frames", "5", "--size", "320x200"});
    EXPECT_EQ(std::tuple(bench.command, bench.target, bench.benchFrames, bench.benchWidth, bench.benchHeight),
              std::tuple(Command::Bench, 9, 5, 320, 200));
    EXPECT_FALSE(bench.frames);
    EXPECT_EQ(parseArguments({"--help"}).command, Command::Help);
}

TEST(CliOptions, PiecesAndUsageErrors) {
    EXPECT_TRUE(parseFrameRange("5") == (QMedia::FrameRange{5, 5}));
    EXPECT_TRUE(parseFrameRange("-3-2") == (QMedia::FrameRange{-3, 2}));
    EXPECT_EQ(parseBufferOutput("2.1=x.bin").index, 1);
    for (const char* bad : {"7-3", "a-b", ""}) EXPECT_THROW(parseFrameRange(bad), UsageError) << bad;
    EXPECT_THROW(parseRoi("1,2,3"), UsageError);
    EXPECT_THROW(parseRoi("5,5,5,9"), UsageError);
    EXPECT_THROW(parseBufferOutput("0"), UsageError);
    EXPECT_EQ(parseKeyframe("40=m.png").frame, 40);
    EXPECT_EQ(parseKeyframe("40=m.png").path, "m.png");
    for (const char* k : {"40", "=m.png", "40=", "x=m.png", "-1=m.png"}) EXPECT_THROW(parseKeyframe(k), UsageError) << k;
    const std::vector<std::vector<std::string>> bad = {
        {}, {"paint"}, {"list", "--bogus"}, {"list", "extra"},
        {"render", "-i", "a.png", "-o", "b.exr"},  // no target
        {"render", "-t", "depth", "-o", "b.exr"},  // no input
        {"render", "-t", "depth", "-i", "a.png"},  // no output
        {"render", "-t", "depth", "-i", "a.png", "-o"},
        {"render", "-t", "depth", "-i", "a", "-o", "b", "--threads", "0"},
        {"render", "-t", "mask-propagation", "-i", "a", "-o", "b", "--keyframe", "3=m.png", "--keyframe", "3=n.png"},
    };
    for (const auto& args : bad) {
        try {
            parseArguments(args);
            ADD_FAILURE() << "accepted: " << ::testing::PrintToString(args);
        } catch (const CliError& e) {
            EXPECT_EQ(e.exitCode(), EXIT_USAGE) << ::testing::PrintToString(args);
        }
    }
    for (const auto& [result, code] : {std::pair{0, EXIT_OK}, {1, EXIT_CANCELLED}, {2, EXIT_HOST}, {3, EXIT_BACKEND},
                                       {4, EXIT_FAILURE_OTHER}})
        EXPECT_EQ(exitCodeForResult(result), code) << result;
}

// Source positions of output frames: one per source frame, or stepping by the speed, or by the
// source rate over the output's.
TEST(CliTiming, OutputFramesAndTheirSourcePositions) {
    const QMedia::FrameRate rate25{25, 1}, none{0, 1};
    const struct {
        std::optional<double> speed, fps;
        QMedia::FrameRate source;
        std::vector<double> positions;
        std::optional<QMedia::FrameRate> rate;
    } cases[] = {
        {std::nullopt, std::nullopt, rate25, {2, 3, 4, 5}, std::nullopt},
        {0.5, std::nullopt, none, {2, 2.5, 3, 3.5, 4, 4.5, 5}, std::nullopt},
        {1.5, std::nullopt, none, {2, 3.5, 5}, std::nullopt},
        {std::nullopt, 50.0, rate25, {2, 2.5, 3, 3.5, 4, 4.5, 5}, QMedia::FrameRate{50, 1}},
        {std::nullopt, 10.0, rate25, {2, 4.5}, QMedia::FrameRate{10, 1}},
    };
    for (const auto& c : cases) {
        const Timing t = timingFor({2, 5}, c.speed, c.fps, c.source);
        EXPECT_EQ(t.positions, c.positions);
        EXPECT_EQ(t.outputs.first, 2);
        EXPECT_EQ(t.outputs.count(), static_cast<int>(c.positions.size()));
        EXPECT_EQ(t.rate.has_value(), c.rate.has_value());
        if (t.rate && c.rate) {
            EXPECT_TRUE(*t.rate == *c.rate);
        }
    }
    EXPECT_THROW(timingFor({0, 5}, std::nullopt, 30.0, none), UsageError);  // no source rate
    EXPECT_THROW(timingFor({0, 5}, 0.0, std::nullopt, rate25), UsageError);
    EXPECT_THROW(timingFor({0, 5}, 1.0, 30.0, rate25), UsageError);
}

TEST(CliImageBridge, FramesToHostImages) {
    QMedia::Frame gray(3, 2, 1, ML::F32);
    gray.setSample(2, 1, 0, 0.75f);
    const auto rgb = toHostImage(gray);  // gray becomes RGB and keeps its type
    EXPECT_EQ(std::tuple(rgb->getChannelFormat(), rgb->getDataType(), rgb->getMemoryLayout(), rgb->getRect()),
              std::tuple(ML::ImageImp::RGB, ML::F32, ML::ImageImp::HWC, ML::Rect{0, 0, 3, 2}));
    for (ML::u32 c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(rgb->at<float>(2, 1, c), 0.75f);
    EXPECT_FLOAT_EQ(rgb->at<float>(0, 0, 0), 0.0f);
    QMedia::Frame rgbaFrame(2, 2, 4, ML::U8);
    rgbaFrame.setSample(1, 0, 3, 1.0f);
    const auto rgba = toHostImage(rgbaFrame);
    EXPECT_EQ(rgba->getChannelFormat(), ML::ImageImp::RGBA);
    EXPECT_EQ(rgba->at<std::uint8_t>(1, 0, 3), 255);
}

TEST(CliImageBridge, OutputsToFramesInterleavedPlacedByRegionAndCropped) {
    auto image = makeOutputImage(ML::Rect{1, 2, 3, 4}, ML::ImageImp::RGB, ML::F32, ML::ImageImp::CHW);
    for (ML::u32 c = 0; c < 3; ++c) image->at<float>(2, 3, c) = 0.1f * float(c + 1);
    const QMedia::Frame frame = toFrame(*image, 5, 6);
    EXPECT_EQ(std::tuple(frame.width(), frame.height(), frame.channels()), std::tuple(5, 6, 3));
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(frame.sample(2, 3, c), 0.1f * float(c + 1));
    EXPECT_FLOAT_EQ(frame.sample(1, 2, 0), 0.0f);
    EXPECT_FLOAT_EQ(frame.sample(3, 3, 0), 0.0f);
    // Pixels past the frame are left out.
    const QMedia::Frame cropped = toFrame(*image, 3, 3);
    EXPECT_EQ(std::tuple(cropped.width(), cropped.height()), std::tuple(3, 3));
    EXPECT_FLOAT_EQ(cropped.sample(2, 2, 0), 0.0f);
    EXPECT_EQ(toFrame(*image, 1, 1).sample(0, 0, 0), 0.0f);
}

TEST(CliCancel, InterruptCancelsThroughTheHost) {
    std::ostringstream log;
    Session session({std::filesystem::path(QUILLON_BIN_DIR) / "Quillon.so", QUILLON_TEST_PACKAGE_DIR, 0, 64u << 20}, log);
    CancelWatch watch;
    RenderRequest request;
    FrameRenderer renderer(session, watch, request);
    const QMedia::Frame input(16, 16, 3, ML::U8);
    EXPECT_EQ(renderer.render(0, input).output.channels(), 1);
    raiseInterrupt();
    try {
        renderer.render(1, input);
        ADD_FAILURE() << "render went on after the interrupt";
    } catch (const CliError& e) {
        EXPECT_EQ(e.exitCode(), EXIT_CANCELLED);
    }
    clearInterrupt();
    EXPECT_EQ(renderer.render(2, input).output.width(), 16);
}
