// The depth effect end to end through mlMain (values, formats, regions, modes, threads, and the
// renders that must fail), and the tiled network runner, against the default package and the
// ONNX Runtime CPU backend. One host serves the whole program: the plug-in keeps the first logger
// and folders it sees for the life of the process.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/PluginMain.h"
#include "Plugin/TiledExecution.h"
#include "Plugin/TiledNetworkRunner.h"

#include "util/InProcessPlugin.h"
#include "util/PackageContext.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;

using namespace inprocess;

// fp16 tensors plus U8 input quantisation.
constexpr float kTolerance = 4e-3f;

std::shared_ptr<QHost::CallSettings> depthSettings(ML::u32 frame, int mode = 4) { return packageSettings(mode, 9, frame); }

// 1 - Rec. 709 luminance of an RGB colour in 0..1.
float expectedDepth(float r, float g, float b) { return 1.0f - (0.2126f * r + 0.7152f * g + 0.0722f * b); }

// The colour ramp of the colorize network for depth d.
std::array<float, 3> expectedRamp(float d) {
    d = std::clamp(d, 0.0f, 1.0f);
    std::array<float, 3> rgb{};
    for (int k = 0; k < 3; ++k) rgb[k] = std::clamp(1.5f - std::fabs(4.0f * d - static_cast<float>(3 - k)), 0.0f, 1.0f);
    return rgb;
}

// Sets the pixels of rect (clipped to the image) to an RGB colour and a fourth channel to alpha.
void paint(QHost::OwnedImage& image, const Rect& rect, float r, float g, float b, float alpha = 1.0f) {
    const Rect bounds = image.getRect();
    const float rgba[4] = {r, g, b, alpha};
    for (ML::i32 y = std::max(rect.y0, bounds.y0); y < std::min(rect.y1, bounds.y1); ++y)
        for (ML::i32 x = std::max(rect.x0, bounds.x0); x < std::min(rect.x1, bounds.x1); ++x)
            for (ML::u32 c = 0; c < image.channels(); ++c) setValue(image, x, y, c, rgba[c]);
}

// Every element inside roi holds want[channel] (within tolerance); every element outside it
// still holds `outside`.
void expectWrittenOnlyInRoi(const QHost::OwnedImage& image, const Rect& roi, const std::vector<float>& want,
                                   const std::string& what, float outside = kSentinel) {
    const Rect r = image.getRect();
    int wrong = 0;
    for (ML::i32 y = r.y0; y < r.y1; ++y)
        for (ML::i32 x = r.x0; x < r.x1; ++x) {
            const bool inside = x >= roi.x0 && x < roi.x1 && y >= roi.y0 && y < roi.y1;
            for (ML::u32 c = 0; c < image.channels(); ++c) {
                const float v = valueAt(image, x, y, c), expected = inside ? want[c] : outside;
                if (std::fabs(v - expected) > (inside ? kTolerance : 0.5f / 255.0f) && ++wrong <= 3)
                    ADD_FAILURE() << what << " at " << x << "," << y << " channel " << c << ": " << v << " instead of "
                                  << expected << (inside ? "" : " (outside the region)");
            }
        }
    EXPECT_EQ(wrong, 0) << what;
}

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
        ImagePtr input = filledImage(p.imageRect, p.inputFormat, p.inputType, 1.0f, p.inputLayout);
        paint(*input, p.roi, p.colour[0], p.colour[1], p.colour[2]);
        ImagePtr depth = filledImage(p.imageRect, Image::R, p.depthType, kSentinel, p.depthLayout);
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
    ImagePtr input = filledImage(rect, Image::RGB, ML::F32, 0.0f);
    paint(*input, roi, colour[0], colour[1], colour[2]);
    ImagePtr depth = filledImage(rect, Image::R, ML::F16, kSentinel);
    ImagePtr colorized = filledImage(rect, Image::RGB, ML::F32, kSentinel);
    auto settings = depthSettings(frame, 3);
    settings->setRoi(frame, roi);
    settings->setInputImage(frame, input);
    settings->setOutputImage(frame, depth, {0, -1});
    settings->setOutputImage(frame, colorized, {1, -1});
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
    std::vector<QHost::ResourceKey> outputs;
    for (const auto& request : settings->outputImageRequests()) outputs.push_back(request.key);
    EXPECT_EQ(outputs, (std::vector<QHost::ResourceKey>{{frame, 0, -1}, {frame, 1, -1}}));
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
    const std::array<float, 3> colours[2] = {{0.1f, 0.2f, 0.3f}, {0.9f, 0.8f, 0.2f}};
    const Rect rects[2] = {{0, 0, 300, 200}, {-50, 0, 250, 260}}, rois[2] = {{20, 10, 280, 190}, rects[1]};
    ImagePtr depths[2];
    std::shared_ptr<QHost::CallSettings> settings[2];
    for (int i = 0; i < 2; ++i) {
        ImagePtr input = filledImage(rects[i], Image::RGBA, ML::U8, 0.0f);
        paint(*input, rois[i], colours[i][0], colours[i][1], colours[i][2]);
        depths[i] = filledImage(rects[i], Image::R, i == 0 ? ML::F16 : ML::F32, kSentinel);
        settings[i] = depthSettings(30 + i);
        settings[i]->setRoi(30 + i, rois[i]);
        settings[i]->setInputImage(30 + i, input);
        settings[i]->setOutputImage(30 + i, depths[i]);
    }
    for (int round = 0; round < 3; ++round) {
        ML::i32 results[2] = {-1, -1};
        std::thread first([&] { results[0] = host().run(&mlMain, settings[0]); });
        results[1] = host().run(&mlMain, settings[1]);
        first.join();
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(results[i], ML::STATUS_OK);
            expectWrittenOnlyInRoi(*depths[i], rois[i], {expectedDepth(colours[i][0], colours[i][1], colours[i][2])},
                                   "round " + std::to_string(round));
        }
    }
}

struct Output {
    ML::u32 format, layout, type;
    Rect rect;
    int index = 0;  // 0: depth, 1: colorized
};

struct Case {
    std::string what;
    std::vector<Output> outputs;
    std::string logged;  // in the single error line (or, when cancelled, anywhere in the log)
    ML::i32 status = ML::STATUS_OTHER;
    int mode = 4;
    Rect roi = {10, 5, 90, 60};
    std::optional<Rect> input = Rect{0, 0, 96, 64};  // none: the host returns no input image
    int inputRequests = 0;                             // -1: not checked
    bool hostFailsInput = false;
};

TEST(DepthErrors, RefusedRendersTouchNothing) {
    const Rect whole{0, 0, 96, 64}, roi{10, 5, 90, 60};
    const Output depthF32{Image::R, Image::HWC, ML::F32, whole};
    const auto cover = [&](const char* what, const Rect& r) {
        return std::string(what) + " rect " + r.toString() + " must cover ROI rect " + roi.toString() + " for frame 5";
    };
    std::vector<Case> cases = {
        {"RGB output", {{Image::RGB, Image::HWC, ML::F32, whole}},
         "output must have single-channel output! (ML::Image::ChannelFormat::R)"},
        {"U8 output", {{Image::R, Image::HWC, ML::U8, whole}}, "depth estimation output must be float16 or float32!"},
        {"U8 output when preparing", {{Image::R, Image::HWC, ML::U8, whole}},
         "depth estimation output must be float16 or float32!", ML::STATUS_OTHER, 3},
        {"output smaller than the region", {{Image::R, Image::HWC, ML::F32, {10, 5, 89, 60}}},
         cover("Output", {10, 5, 89, 60})},
        {"colorized output smaller than the region", {depthF32, {Image::RGB, Image::HWC, ML::F32, {11, 5, 90, 60}, 1}},
         cover("Colorized output", {11, 5, 90, 60})},
        {"no output", {},
         "[Quillon] [W] Attempting to render retiming without providing output image. nothing to do, returning!",
         ML::STATUS_CANCELLED},
        {"no input", {{Image::R, Image::HWC, ML::F16, whole}}, "No input image returned by host for frame 5",
         ML::STATUS_OTHER, 4, roi, std::nullopt, 1},
        {"input smaller than the region", {depthF32}, cover("Input", {12, 5, 90, 60}), ML::STATUS_OTHER, 4, roi,
         Rect{12, 5, 90, 60}, -1},
        {"planar output needs the whole image as region", {{Image::R, Image::CHW, ML::F32, whole}},
         "TODO: implement makeNewImageView for CHW image!", ML::STATUS_OTHER, 4, roi, whole, -1},
        {"host fails on the input", {depthF32}, "PLUGIN/HOST: disk on fire", ML::STATUS_HOST, 4, roi, whole, -1, true},
    };
    for (const Rect empty : {Rect{0, 0, 0, 0}, Rect{10, 5, 10, 60}, Rect{10, 60, 90, 5}})
        for (int mode : {3, 4})
            cases.push_back({"empty region, mode " + std::to_string(mode), {depthF32},
                             "Empty region of interest " + empty.toString() + " for frame 5", ML::STATUS_HOST, mode,
                             empty});
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto settings = depthSettings(5, c.mode);
        settings->setRoi(5, c.roi);
        if (c.input) settings->setInputImage(5, filledImage(*c.input, Image::RGBA, ML::U8, 0.5f));
        if (c.hostFailsInput) settings->failOperation(QHost::HostOperation::INPUT_IMAGE, ML::STATUS_HOST, "disk on fire");
        std::vector<std::pair<ImagePtr, float>> outputs;
        for (const Output& o : c.outputs) {
            const float fill = o.type == ML::U8 ? 0.25f : kSentinel;
            outputs.emplace_back(filledImage(o.rect, o.format, o.type, fill, o.layout), fill);
            settings->setOutputImage(5, outputs.back().first, {o.index, -1});
        }
        EXPECT_EQ(render(settings), c.status);
        expectRefusalLogged(c.status, c.logged);
        if (c.inputRequests >= 0) {
            EXPECT_EQ(settings->inputImageRequests().size(), static_cast<size_t>(c.inputRequests));
        }
        for (const auto& [image, fill] : outputs) expectWrittenOnlyInRoi(*image, Rect{}, {}, "untouched output", fill);
    }

    // A failed render leaves the plug-in usable.
    auto settings = depthSettings(5);
    settings->setRoi(5, roi);
    settings->setInputImage(5, filledImage(whole, Image::RGBA, ML::U8, 0.5f));
    ImagePtr depth = filledImage(whole, Image::R, ML::F32, kSentinel);
    settings->setOutputImage(5, depth);
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
    expectWrittenOnlyInRoi(*depth, roi, {expectedDepth(0.5f, 0.5f, 0.5f)}, "depth after the failures");
}

constexpr ML::i32 kExec = 256;

class TiledRunner : public testpkg::PackageSuite {
protected:
    ML::TiledNetworkRunner makeRunner() {
        auto inDesc = ML::makeDescription(kExec, kExec, Image::RGB, Image::CHW, ML::F16);
        auto outDesc = ML::makeDescription(kExec, kExec, Image::R, Image::CHW, ML::F16);
        return ML::TiledNetworkRunner(context->loadModel("depth_standin"), inDesc,
                                      context->createTensor(ML::shapeOfImage(*inDesc, 1), ML::F16), outDesc,
                                      context->createTensor(ML::shapeOfImage(*outDesc, 1), ML::F16));
    }

    // A source whose every pixel differs from its neighbours, so a tile placed one pixel off
    // shows up at once.
    static ImagePtr noisySource(const Rect& rect, ML::u32 format, ML::u32 type) {
        ImagePtr image = QHost::OwnedImage::make(rect, format, Image::HWC, type);
        std::mt19937 random(1234);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f);
        for (ML::i32 y = rect.y0; y < rect.y1; ++y)
            for (ML::i32 x = rect.x0; x < rect.x1; ++x)
                paint(*image, Rect{x, y, x + 1, y + 1}, unit(random), unit(random), unit(random));
        return image;
    }
};

TEST_F(TiledRunner, PlansEqualThePointwiseFormulaInTheRegionOnly) {
    const struct {
        const char* what;
        Rect image, region;
        ML::u32 format, type, resultType;
        int tiles;  // 0: more than 4
    } cases[] = {
        {"large region", {100, 50, 700, 450}, {100, 50, 700, 450}, Image::RGB, ML::F32, ML::F32, 0},
        {"part of larger images", {0, 0, 640, 480}, {37, 21, 637, 421}, Image::RGBA, ML::U8, ML::F16, 0},
        {"smaller than a tile: padded and cropped", {5, 7, 105, 67}, {5, 7, 105, 67}, Image::RGB, ML::F32, ML::F32, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
        const ML::TiledExecution::ExecutionPlan& plan = plans.get(c.region, 32);
        if (c.tiles > 0) {
            EXPECT_EQ(plan.numTiles, c.tiles);
        } else {
            EXPECT_GT(plan.numTiles, 4);
        }
        ImagePtr source = noisySource(c.image, c.format, c.type);
        ImagePtr result = filledImage(c.image, Image::R, c.resultType, kSentinel);
        makeRunner().run(*common, plan, source, result);
        int wrong = 0;
        for (ML::i32 y = c.image.y0; y < c.image.y1; ++y)
            for (ML::i32 x = c.image.x0; x < c.image.x1; ++x) {
                const bool inside = x >= c.region.x0 && x < c.region.x1 && y >= c.region.y0 && y < c.region.y1;
                const float want = inside ? expectedDepth(valueAt(*source, x, y, 0), valueAt(*source, x, y, 1),
                                                          valueAt(*source, x, y, 2))
                                          : kSentinel;
                const float got = valueAt(*result, x, y);
                if (std::fabs(got - want) > (inside ? kTolerance : 0.0f) && ++wrong <= 5)
                    ADD_FAILURE() << "at " << x << "," << y << ": " << got << " instead of " << want;
            }
        EXPECT_EQ(wrong, 0);
    }
}

TEST_F(TiledRunner, ReportsProgressAndStopsWhenCancelled) {
    const Rect region{0, 0, 600, 400};
    ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
    const auto& plan = plans.get(region, 32);
    ImagePtr source = noisySource(region, Image::RGB, ML::F32);
    ImagePtr result = filledImage(region, Image::R, ML::F32, kSentinel);
    ML::TiledNetworkRunner runner = makeRunner();
    QHost::Host localHost;
    auto settings = std::make_shared<QHost::CallSettings>();
    const ML::u64 call = localHost.beginCall(settings);
    runner.run(*common, plan, source, result, &localHost, call);
    const auto progress = settings->progress();
    ASSERT_EQ(progress.size(), static_cast<size_t>(plan.numTiles));
    for (size_t i = 1; i < progress.size(); ++i) EXPECT_GT(progress[i], progress[i - 1]);
    EXPECT_FLOAT_EQ(progress.back(), 1.0f);
    EXPECT_EQ(settings->cancelPolls(), static_cast<ML::u64>(plan.numTiles));
    settings->clearRecords();
    settings->cancelAfterPolls(2);
    try {
        runner.run(*common, plan, source, result, &localHost, call);
        ADD_FAILURE() << "a cancelled run must throw";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.code(), ML::Exception::CANCEL);
    }
    EXPECT_EQ(settings->progress().size(), 2u);
    localHost.endCall(call);
}

}  // namespace
