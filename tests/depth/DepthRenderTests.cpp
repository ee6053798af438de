// Depth renders through mlMain that succeed: values, formats, regions, modes and threads.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "Plugin/PluginMain.h"
#include "depth/DepthTestEnv.h"

using namespace depthtest;
using ML::Image;
using ML::Rect;

namespace {

struct Colour {
    float r, g, b;
};

// Every pixel of an output inside roi holds want (within tolerance); every pixel outside it
// still holds the sentinel.
void expectWrittenOnlyInRoi(const QHost::OwnedImage& image, const Rect& roi, const std::vector<float>& want,
                            const std::string& what) {
    const Rect r = image.getRect();
    int wrongInside = 0, touchedOutside = 0;
    for (ML::i32 y = r.y0; y < r.y1; ++y) {
        for (ML::i32 x = r.x0; x < r.x1; ++x) {
            const bool inside = x >= roi.x0 && x < roi.x1 && y >= roi.y0 && y < roi.y1;
            for (ML::u32 c = 0; c < want.size(); ++c) {
                const float v = valueAt(image, x, y, c);
                if (inside && std::abs(v - want[c]) > kTolerance) {
                    if (wrongInside++ == 0)
                        ADD_FAILURE() << what << " at " << x << "," << y << " channel " << c << ": " << v
                                      << " instead of " << want[c];
                } else if (!inside && v != kSentinel) {
                    if (touchedOutside++ == 0)
                        ADD_FAILURE() << what << " written outside the region at " << x << "," << y << ": " << v;
                }
            }
        }
    }
    EXPECT_EQ(wrongInside, 0) << what;
    EXPECT_EQ(touchedOutside, 0) << what;
}

struct RenderCase {
    const char* name;
    ML::u32 inputFormat;
    ML::u32 inputLayout;
    ML::u32 inputType;
    ML::u32 depthType;
    ML::u32 depthLayout;
    Rect imageRect;
    Rect roi;
    Colour colour;
};

void PrintTo(const RenderCase& c, std::ostream* os) { *os << c.name; }

class DepthRender : public ::testing::TestWithParam<RenderCase> {};

TEST_P(DepthRender, WritesDepthOfTheRegionOnly) {
    const RenderCase& p = GetParam();
    const ML::u32 frame = 11;
    // Outside the region the input is white, so a render that read beyond the region would
    // pull the depth towards 0 near its edges.
    ImagePtr input = filledImage(p.imageRect, p.inputFormat, p.inputLayout, p.inputType, 1.0f);
    paint(*input, p.roi, p.colour.r, p.colour.g, p.colour.b);
    ImagePtr depth = filledImage(p.imageRect, Image::R, p.depthLayout, p.depthType, kSentinel);

    auto settings = depthSettings(frame);
    settings->setRoi(frame, p.roi);
    settings->setInputImage(frame, input, {0, -1});
    settings->setOutputImage(frame, depth, {0, -1});
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());

    const float want = expectedDepth(p.colour.r, p.colour.g, p.colour.b);
    expectWrittenOnlyInRoi(*depth, p.roi, {want}, "depth");

    const auto requests = settings->inputImageRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].key, QHost::ResourceKey(frame, 0, -1));
    ASSERT_TRUE(requests[0].wanted.has_value());
    EXPECT_EQ(*requests[0].wanted, p.roi);
}

INSTANTIATE_TEST_SUITE_P(
    Formats, DepthRender,
    ::testing::Values(
        RenderCase{"U8RgbaToF16", Image::RGBA, Image::HWC, ML::U8, ML::F16, Image::HWC, {0, 0, 320, 240},
                   {0, 0, 320, 240}, {0.2f, 0.5f, 0.8f}},
        RenderCase{"F32RgbToF32", Image::RGB, Image::HWC, ML::F32, ML::F32, Image::HWC, {0, 0, 300, 200},
                   {0, 0, 300, 200}, {0.9f, 0.1f, 0.3f}},
        RenderCase{"U8RgbaToF32OffsetRoi", Image::RGBA, Image::HWC, ML::U8, ML::F32, Image::HWC, {10, 20, 330, 260},
                   {50, 60, 250, 200}, {0.6f, 0.6f, 0.1f}},
        RenderCase{"F32RgbToF16OffsetRoi", Image::RGB, Image::HWC, ML::F32, ML::F16, Image::HWC, {-40, -30, 500, 400},
                   {17, 5, 433, 391}, {0.05f, 0.3f, 0.95f}},
        // Views of planar images are not supported, so planar images are only used whole.
        RenderCase{"F32RgbPlanarToF32Planar", Image::RGB, Image::CHW, ML::F32, ML::F32, Image::CHW, {5, 6, 200, 120},
                   {5, 6, 200, 120}, {0.4f, 0.7f, 0.2f}},
        RenderCase{"LargerThanExecSize", Image::RGBA, Image::HWC, ML::U8, ML::F16, Image::HWC, {0, 0, 900, 500},
                   {100, 50, 800, 450}, {0.3f, 0.3f, 0.3f}}),
    [](const ::testing::TestParamInfo<RenderCase>& info) { return std::string(info.param.name); });

TEST(DepthRenderValues, WhiteGivesNearZeroAndBlackNearOne) {
    const Rect rect{0, 0, 64, 48};
    for (const float level : {1.0f, 0.0f}) {
        const ML::u32 frame = level > 0.5f ? 1 : 2;
        auto settings = depthSettings(frame);
        settings->setDefaultRoi(rect);
        settings->setInputImage(frame, filledImage(rect, Image::RGBA, Image::HWC, ML::U8, level));
        ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel);
        settings->setOutputImage(frame, depth);
        ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
        expectWrittenOnlyInRoi(*depth, rect, {1.0f - level}, level > 0.5f ? "white" : "black");
    }
}

TEST(DepthRenderValues, ColorizedOutputGetsTheRampInTheRegionOnly) {
    const ML::u32 frame = 3;
    const Rect imageRect{0, 0, 300, 220};
    const Rect roi{40, 30, 260, 190};
    const Colour colour{0.3f, 0.45f, 0.6f};  // depth about 0.57: every ramp channel between 0 and 1
    ImagePtr input = filledImage(imageRect, Image::RGB, Image::HWC, ML::F32, 0.0f);
    paint(*input, roi, colour.r, colour.g, colour.b);
    ImagePtr depth = filledImage(imageRect, Image::R, Image::HWC, ML::F16, kSentinel);
    ImagePtr colorized = filledImage(imageRect, Image::RGB, Image::HWC, ML::F32, kSentinel);

    auto settings = depthSettings(frame);
    settings->setRoi(frame, roi);
    settings->setInputImage(frame, input);
    settings->setOutputImage(frame, depth, {0, -1});
    settings->setOutputImage(frame, colorized, {1, -1});
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());

    const float d = expectedDepth(colour.r, colour.g, colour.b);
    expectWrittenOnlyInRoi(*depth, roi, {d}, "depth");
    const auto ramp = expectedRamp(d);
    expectWrittenOnlyInRoi(*colorized, roi, {ramp[0], ramp[1], ramp[2]}, "colorized");
}

TEST(DepthRenderModes, PrepareRequestsImagesButWritesNothing) {
    const ML::u32 frame = 4;
    const Rect rect{0, 0, 128, 96};
    const Rect roi{8, 8, 100, 80};
    auto settings = depthSettings(frame, 3);
    settings->setRoi(frame, roi);
    settings->setInputImage(frame, filledImage(rect, Image::RGBA, Image::HWC, ML::U8, 0.5f));
    ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel);
    ImagePtr colorized = filledImage(rect, Image::RGB, Image::HWC, ML::F32, kSentinel);
    settings->setOutputImage(frame, depth, {0, -1});
    settings->setOutputImage(frame, colorized, {1, -1});

    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);

    const auto outputs = settings->outputImageRequests();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_EQ(outputs[0].key, QHost::ResourceKey(frame, 0, -1));
    EXPECT_EQ(outputs[1].key, QHost::ResourceKey(frame, 1, -1));
    const auto inputs = settings->inputImageRequests();
    ASSERT_EQ(inputs.size(), 1u);
    EXPECT_EQ(inputs[0].key, QHost::ResourceKey(frame, 0, -1));
    EXPECT_EQ(*inputs[0].wanted, roi);
    EXPECT_TRUE(settings->busyLoading().empty());
    expectWrittenOnlyInRoi(*depth, Rect{0, 0, 0, 0}, {0.0f}, "depth after prepare");
    expectWrittenOnlyInRoi(*colorized, Rect{0, 0, 0, 0}, {0.0f, 0.0f, 0.0f}, "colorized after prepare");

    // The same settings then render: now the outputs are written.
    settings->setMode(4);
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
    expectWrittenOnlyInRoi(*depth, roi, {expectedDepth(0.5f, 0.5f, 0.5f)}, "depth after render");
}

TEST(DepthRenderModes, SecondRenderLoadsNothing) {
    const Rect rect{0, 0, 64, 64};
    std::vector<std::vector<bool>> busy;
    for (ML::u32 frame = 20; frame < 22; ++frame) {
        auto settings = depthSettings(frame);
        settings->setInputImage(frame, filledImage(rect, Image::RGBA, Image::HWC, ML::U8, 0.25f));
        settings->setOutputImage(frame, filledImage(rect, Image::R, Image::HWC, ML::F16, kSentinel));
        ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
        busy.push_back(settings->busyLoading());
    }
    // The first render of the process loads (true, then false); whichever it was, the networks
    // are loaded after it.
    if (!busy[0].empty()) EXPECT_EQ(busy[0], (std::vector<bool>{true, false}));
    EXPECT_TRUE(busy[1].empty());
}

TEST(DepthRenderConcurrent, TwoThreadsRenderDifferentImages) {
    struct Job {
        Colour colour;
        Rect rect;
        Rect roi;
        ImagePtr depth;
        std::shared_ptr<QHost::CallSettings> settings;
        ML::i32 result = -1;
    };
    std::vector<Job> jobs(2);
    jobs[0] = Job{{0.1f, 0.2f, 0.3f}, {0, 0, 300, 200}, {20, 10, 280, 190}, nullptr, nullptr};
    jobs[1] = Job{{0.9f, 0.8f, 0.2f}, {-50, 0, 250, 260}, {-50, 0, 250, 260}, nullptr, nullptr};
    for (size_t i = 0; i < jobs.size(); ++i) {
        Job& job = jobs[i];
        const ML::u32 frame = 30 + static_cast<ML::u32>(i);
        ImagePtr input = filledImage(job.rect, Image::RGBA, Image::HWC, ML::U8, 0.0f);
        paint(*input, job.roi, job.colour.r, job.colour.g, job.colour.b);
        job.depth = filledImage(job.rect, Image::R, Image::HWC, i == 0 ? ML::F16 : ML::F32, kSentinel);
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
            expectWrittenOnlyInRoi(*job.depth, job.roi, {expectedDepth(job.colour.r, job.colour.g, job.colour.b)},
                                   "round " + std::to_string(round));
        }
    }
}

}  // namespace
