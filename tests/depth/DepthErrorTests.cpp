// Depth renders through mlMain that must fail, with their result codes, log lines and what the
// plug-in did (not) ask the host for before failing.
#include <optional>

#include "depth/DepthTestEnv.h"

using namespace depthtest;

namespace {

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
    std::vector<Case> cases = {
        {"RGB output", {{Image::RGB, Image::HWC, ML::F32, whole}},
         "output must have single-channel output! (ML::Image::ChannelFormat::R)"},
        {"U8 output", {{Image::R, Image::HWC, ML::U8, whole}}, "depth estimation output must be float16 or float32!"},
        {"U8 output when preparing", {{Image::R, Image::HWC, ML::U8, whole}},
         "depth estimation output must be float16 or float32!", ML::STATUS_OTHER, 3},
        {"output smaller than the region", {{Image::R, Image::HWC, ML::F32, {10, 5, 89, 60}}},
         "Output rect " + Rect{10, 5, 89, 60}.toString() + " must cover ROI rect " + roi.toString() + " for frame 5"},
        {"colorized output smaller than the region", {depthF32, {Image::RGB, Image::HWC, ML::F32, {11, 5, 90, 60}, 1}},
         "Colorized output rect " + Rect{11, 5, 90, 60}.toString() + " must cover ROI rect " + roi.toString() +
             " for frame 5"},
        {"no output", {},
         "[Quillon] [W] Attempting to render retiming without providing output image. nothing to do, returning!",
         ML::STATUS_CANCELLED},
        {"no input", {{Image::R, Image::HWC, ML::F16, whole}}, "No input image returned by host for frame 5",
         ML::STATUS_OTHER, 4, roi, std::nullopt, 1},
        {"input smaller than the region", {depthF32},
         "Input rect " + Rect{12, 5, 90, 60}.toString() + " must cover ROI rect " + roi.toString() + " for frame 5",
         ML::STATUS_OTHER, 4, roi, Rect{12, 5, 90, 60}, -1},
        {"planar output needs the whole image as region", {{Image::R, Image::CHW, ML::F32, whole}},
         "TODO: implement makeNewImageView for CHW image!", ML::STATUS_OTHER, 4, roi, whole, -1},
        {"host fails on the input", {depthF32}, "disk on fire", ML::STATUS_HOST, 4, roi, whole, -1, true},
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
        if (c.input) settings->setInputImage(5, filledImage(*c.input, Image::RGBA, Image::HWC, ML::U8, 0.5f));
        if (c.hostFailsInput) settings->failOperation(QHost::HostOperation::INPUT_IMAGE, ML::STATUS_HOST, c.logged);
        std::vector<std::pair<ImagePtr, float>> outputs;
        for (const Output& o : c.outputs) {
            const float fill = o.type == ML::U8 ? 0.25f : kSentinel;
            outputs.emplace_back(filledImage(o.rect, o.format, o.layout, o.type, fill), fill);
            settings->setOutputImage(5, outputs.back().first, {o.index, -1});
        }
        host().logger().clear();
        EXPECT_EQ(host().run(&mlMain, settings), c.status);

        const auto errors = host().logger().linesWith("[Quillon] [E] ");
        if (c.status == ML::STATUS_CANCELLED) {
            EXPECT_TRUE(errors.empty()) << errors.front();
            EXPECT_TRUE(host().logger().contains(c.logged)) << ::testing::PrintToString(host().logger().lines());
        } else {
            ASSERT_EQ(errors.size(), 1u) << ::testing::PrintToString(host().logger().lines());
            EXPECT_NE(errors[0].find(c.logged), std::string::npos) << errors[0];
        }
        if (c.inputRequests >= 0) {
            EXPECT_EQ(settings->inputImageRequests().size(), static_cast<size_t>(c.inputRequests));
        }
        for (const auto& [image, fill] : outputs) expectWrittenOnlyInRoi(*image, Rect{}, {}, "untouched output", fill);
    }

    // A failed render leaves the plug-in usable.
    auto settings = depthSettings(5);
    settings->setRoi(5, roi);
    settings->setInputImage(5, filledImage(whole, Image::RGBA, Image::HWC, ML::U8, 0.5f));
    ImagePtr depth = filledImage(whole, Image::R, Image::HWC, ML::F32, kSentinel);
    settings->setOutputImage(5, depth);
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK);
    expectWrittenOnlyInRoi(*depth, roi, {expectedDepth(0.5f, 0.5f, 0.5f)}, "depth after the failures");
}

}  // namespace
