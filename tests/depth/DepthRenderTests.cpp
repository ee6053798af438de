// Depth renders through mlMain that succeed: values, formats, regions, modes and threads.
#include <thread>

#include "depth/DepthTestEnv.h"

using namespace depthtest;

namespace {

// Every format and region writes 1 - luma inside the region and nothing outside it. Outside the
// region the input is white, so a render that read beyond the region would pull the depth
// towards 0 near its edges.
TEST(DepthRender, WritesDepthOfTheRegionOnly) {
    const struct {
        ML::u32 inputFormat, inputLayout, inputType, depthType, depthLayout;
        Rect imageRect, roi;
        std::array<float, 3> colour;
    } cases[] = {
        {Image::RGBA, Image::HWC, ML::U8, ML::F16, Image::HWC, {0, 0, 320, 240}, {0, 0, 320, 240}, {0.2f, 0.5f, 0.8f}},
        {Image::RGB, Image::HWC, ML::F32, ML::F32, Image::HWC, {0, 0, 300, 200}, {0, 0, 300, 200}, {0.9f, 0.1f, 0.3f}},
        {Image::RGBA, Image::HWC, ML::U8, ML::F32, Image::HWC, {0, 0, 64, 48}, {0, 0, 64, 48}, {0.0f, 0.0f, 0.0f}},
        {Image::RGBA, Image::HWC, ML::U8, ML::F32, Image::HWC, {10, 20, 330, 260}, {50, 60, 250, 200}, {0.6f, 0.6f, 0.1f}},
        {Image::RGB, Image::HWC, ML::F32, ML::F16, Image::HWC, {-40, -30, 500, 400}, {17, 5, 433, 391}, {0.05f, 0.3f, 0.95f}},
        // Views of planar images are not supported, so planar images are only used whole.
        {Image::RGB, Image::CHW, ML::F32, ML::F32, Image::CHW, {5, 6, 200, 120}, {5, 6, 200, 120}, {0.4f, 0.7f, 0.2f}},
        {Image::RGBA, Image::HWC, ML::U8, ML::F16, Image::HWC, {0, 0, 900, 500}, {100, 50, 800, 450}, {0.3f, 0.3f, 0.3f}},
    };
    for (const auto& p : cases) {
        SCOPED_TRACE(p.roi.toString());
        const ML::u32 frame = 11;
        ImagePtr input = filledImage(p.imageRect, p.inputFormat, p.inputLayout, p.inputType, 1.0f);
        paint(*input, p.roi, p.colour[0], p.colour[1], p.colour[2]);
        ImagePtr depth = filledImage(p.imageRect, Image::R, p.depthLayout, p.depthType, kSentinel);
        auto settings = depthSettings(frame);
        settings->setRoi(frame, p.roi);
        settings->setInputImage(frame, input, {0, -1});
        settings->setOutputImage(frame, depth, {0, -1});
        ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
        expectWrittenOnlyInRoi(*depth, p.roi, {expectedDepth(p.colour[0], p.colour[1], p.colour[2])}, "depth");
        const auto requests = settings->inputImageRequests();
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].key, QHost::ResourceKey(frame, 0, -1));
        EXPECT_EQ(requests[0].wanted, p.roi);
    }
}

// Prepare (mode 3) asks for the images but writes nothing; the same settings then render the
// depth and, into a second output, its colour ramp, both in the region only. Later renders load
// nothing.
TEST(DepthRenderModes, PrepareThenRenderWithColorizedOutput) {
    const ML::u32 frame = 4;
    const Rect rect{0, 0, 300, 220}, roi{40, 30, 260, 190};
    const std::array<float, 3> colour{0.3f, 0.45f, 0.6f};  // depth about 0.57: every ramp channel between 0 and 1
    ImagePtr input = filledImage(rect, Image::RGB, Image::HWC, ML::F32, 0.0f);
    paint(*input, roi, colour[0], colour[1], colour[2]);
    ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F16, kSentinel);
    ImagePtr colorized = filledImage(rect, Image::RGB, Image::HWC, ML::F32, kSentinel);
    auto settings = depthSettings(frame, 3);
    settings->setRoi(frame, roi);
    settings->setInputImage(frame, input);
    settings->setOutputImage(frame, depth, {0, -1});
    settings->setOutputImage(frame, colorized, {1, -1});
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);

    const auto outputs = settings->outputImageRequests();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0].key, QHost::ResourceKey(frame, 0, -1));
    EXPECT_EQ(outputs[1].key, QHost::ResourceKey(frame, 1, -1));
    const auto inputs = settings->inputImageRequests();
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(inputs[0].wanted, roi);
    EXPECT_TRUE(settings->busyLoading().empty());
    expectWrittenOnlyInRoi(*depth, Rect{}, {}, "depth after prepare");
    expectWrittenOnlyInRoi(*colorized, Rect{}, {}, "colorized after prepare");

    for (int render = 0; render < 2; ++render) {
        settings->setMode(4);
        ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
        const float d = expectedDepth(colour[0], colour[1], colour[2]);
        expectWrittenOnlyInRoi(*depth, roi, {d}, "depth");
        const auto ramp = expectedRamp(d);
        expectWrittenOnlyInRoi(*colorized, roi, {ramp[0], ramp[1], ramp[2]}, "colorized");
        // The first render of the process loads (true, then false); whichever it was, the
        // networks are loaded after it.
        const std::vector<bool> busy = settings->busyLoading();
        if (render == 1 || !busy.empty()) {
            EXPECT_EQ(busy, (render == 1 ? std::vector<bool>{} : std::vector<bool>{true, false}));
        }
        settings->clearRecords();
    }
}

TEST(DepthRenderConcurrent, TwoThreadsRenderDifferentImages) {
    struct Job {
        std::array<float, 3> colour;
        Rect rect, roi;
        ML::u32 depthType;
        ImagePtr depth = nullptr;
        std::shared_ptr<QHost::CallSettings> settings = nullptr;
        ML::i32 result = -1;
    };
    std::vector<Job> jobs = {{{0.1f, 0.2f, 0.3f}, {0, 0, 300, 200}, {20, 10, 280, 190}, ML::F16},
                             {{0.9f, 0.8f, 0.2f}, {-50, 0, 250, 260}, {-50, 0, 250, 260}, ML::F32}};
    for (size_t i = 0; i < jobs.size(); ++i) {
        Job& job = jobs[i];
        const ML::u32 frame = 30 + static_cast<ML::u32>(i);
        ImagePtr input = filledImage(job.rect, Image::RGBA, Image::HWC, ML::U8, 0.0f);
        paint(*input, job.roi, job.colour[0], job.colour[1], job.colour[2]);
        job.depth = filledImage(job.rect, Image::R, Image::HWC, job.depthType, kSentinel);
        job.settings = depthSettings(frame);
        job.settings->setRoi(frame, job.roi);
        job.settings->setInputImage(frame, input);
        job.settings->setOutputImage(frame, job.depth);
    }
    for (int round = 0; round < 3; ++round) {
        std::vector<std::thread> threads;
        for (Job& job : jobs) threads.emplace_back([&job] { job.result = host().run(&mlMain, job.settings); });
        for (std::thread& t : threads) t.join();
        for (const Job& job : jobs) {
            ASSERT_EQ(job.result, ML::STATUS_OK);
            expectWrittenOnlyInRoi(*job.depth, job.roi, {expectedDepth(job.colour[0], job.colour[1], job.colour[2])},
                                   "round " + std::to_string(round));
        }
    }
}

}  // namespace
