// Depth renders through mlMain that must fail, with their result codes, log lines and what the
// plug-in did (not) ask the host for before failing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "Plugin/PluginMain.h"
#include "depth/DepthTestEnv.h"

using namespace depthtest;
using ML::Image;
using ML::Rect;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

class DepthErrors : public ::testing::Test {
protected:
    static constexpr ML::u32 kFrame = 5;
    const Rect rect{0, 0, 96, 64};
    const Rect roi{10, 5, 90, 60};

    void SetUp() override {
        settings = depthSettings(kFrame);
        settings->setRoi(kFrame, roi);
        input = filledImage(rect, Image::RGBA, Image::HWC, ML::U8, 0.5f);
        settings->setInputImage(kFrame, input);
        host().logger().clear();
    }

    ML::i32 render() { return host().run(&mlMain, settings); }

    // The single error line of the failed call; fails the test unless there is exactly one.
    std::string errorLine() {
        const auto lines = host().logger().linesWith("[Quillon] [E] ");
        EXPECT_EQ(lines.size(), 1u) << testing::PrintToString(host().logger().lines());
        return lines.empty() ? std::string() : lines[0];
    }

    void expectNoInputRequested() { EXPECT_TRUE(settings->inputImageRequests().empty()); }
    // Every element still holds the value the image was filled with.
    static void expectUntouched(const QHost::OwnedImage& image, float filledWith = kSentinel) {
        const Rect r = image.getRect();
        for (ML::i32 y = r.y0; y < r.y1; ++y)
            for (ML::i32 x = r.x0; x < r.x1; ++x)
                for (ML::u32 c = 0; c < image.channels(); ++c)
                    ASSERT_NEAR(valueAt(image, x, y, c), filledWith, 0.5f / 255.0f) << x << "," << y;
    }

    std::shared_ptr<QHost::CallSettings> settings;
    ImagePtr input;
};

TEST_F(DepthErrors, RgbOutputFailsBeforeInputIsRequested) {
    ImagePtr out = filledImage(rect, Image::RGB, Image::HWC, ML::F32, kSentinel);
    settings->setOutputImage(kFrame, out);
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    const std::string line = errorLine();
    EXPECT_THAT(line, StartsWith("[Quillon] [E] "));
    EXPECT_THAT(line, HasSubstr("output must have single-channel output! (ML::Image::ChannelFormat::R)"));
    expectNoInputRequested();
    expectUntouched(*out);
}

TEST_F(DepthErrors, U8OutputIsRefused) {
    ImagePtr out = filledImage(rect, Image::R, Image::HWC, ML::U8, 0.25f);
    settings->setOutputImage(kFrame, out);
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("depth estimation output must be float16 or float32!"));
    expectNoInputRequested();
    expectUntouched(*out, 0.25f);
}

TEST_F(DepthErrors, OutputSmallerThanRoiIsRefused) {
    const Rect small{10, 5, 89, 60};
    settings->setOutputImage(kFrame, filledImage(small, Image::R, Image::HWC, ML::F32, kSentinel));
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("Output rect " + small.toString() + " must cover ROI rect " +
                                       roi.toString() + " for frame 5"));
    expectNoInputRequested();
}

TEST_F(DepthErrors, ColorizedOutputSmallerThanRoiFailsBeforeInputIsRequested) {
    const Rect small{11, 5, 90, 60};
    ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel);
    settings->setOutputImage(kFrame, depth, {0, -1});
    settings->setOutputImage(kFrame, filledImage(small, Image::RGB, Image::HWC, ML::F32, kSentinel), {1, -1});
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("Colorized output rect " + small.toString() + " must cover ROI rect " +
                                       roi.toString() + " for frame 5"));
    expectNoInputRequested();
    expectUntouched(*depth);
}

TEST_F(DepthErrors, MissingOutputCancelsWithAWarning) {
    EXPECT_EQ(render(), ML::STATUS_CANCELLED);
    EXPECT_TRUE(host().logger().contains(
        "[Quillon] [W] Attempting to render retiming without providing output image. nothing to do, returning!"))
        << testing::PrintToString(host().logger().lines());
    EXPECT_TRUE(host().logger().linesWith("[Quillon] [E] ").empty());
    expectNoInputRequested();
}

TEST_F(DepthErrors, MissingInputIsReportedWithItsFrame) {
    settings->setInputImage(kFrame, nullptr);
    ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F16, kSentinel);
    settings->setOutputImage(kFrame, depth);
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("No input image returned by host for frame 5"));
    EXPECT_EQ(settings->inputImageRequests().size(), 1u);
    expectUntouched(*depth);
}

TEST_F(DepthErrors, InputSmallerThanRoiIsRefused) {
    const Rect small{12, 5, 90, 60};
    settings->setInputImage(kFrame, filledImage(small, Image::RGBA, Image::HWC, ML::U8, 0.5f));
    settings->setOutputImage(kFrame, filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel));
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("Input rect " + small.toString() + " must cover ROI rect " + roi.toString() +
                                       " for frame 5"));
}

TEST_F(DepthErrors, EmptyRegionIsTheHostsErrorInBothRenderModes) {
    for (const Rect empty : {Rect{0, 0, 0, 0}, Rect{10, 5, 10, 60}, Rect{10, 60, 90, 5}}) {
        for (int mode : {3, 4}) {
            SCOPED_TRACE(empty.toString() + " mode " + std::to_string(mode));
            host().logger().clear();
            settings->setMode(mode);
            settings->setRoi(kFrame, empty);
            ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel);
            settings->setOutputImage(kFrame, depth);
            EXPECT_EQ(render(), ML::STATUS_HOST);
            EXPECT_THAT(errorLine(), HasSubstr("Empty region of interest " + empty.toString() + " for frame 5"));
            expectNoInputRequested();
            expectUntouched(*depth);
        }
    }
}

TEST_F(DepthErrors, PlanarOutputNeedsTheWholeImageAsRegion) {
    ImagePtr depth = filledImage(rect, Image::R, Image::CHW, ML::F32, kSentinel);
    settings->setOutputImage(kFrame, depth);
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("TODO: implement makeNewImageView for CHW image!"));
    expectUntouched(*depth);
}

TEST_F(DepthErrors, PrepareModeChecksTheOutputsToo) {
    settings->setMode(3);
    settings->setOutputImage(kFrame, filledImage(rect, Image::R, Image::HWC, ML::U8, 0.0f));
    EXPECT_EQ(render(), ML::STATUS_OTHER);
    EXPECT_THAT(errorLine(), HasSubstr("depth estimation output must be float16 or float32!"));
    expectNoInputRequested();
}

TEST_F(DepthErrors, HostFailureOnInputGivesHostStatus) {
    settings->setOutputImage(kFrame, filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel));
    settings->failOperation(QHost::HostOperation::INPUT_IMAGE, ML::STATUS_HOST, "disk on fire");
    EXPECT_EQ(render(), ML::STATUS_HOST);
    EXPECT_THAT(errorLine(), HasSubstr("disk on fire"));
}

TEST_F(DepthErrors, FailedRenderLeavesThePlugInUsable) {
    settings->setOutputImage(kFrame, filledImage(rect, Image::RGB, Image::HWC, ML::F32, kSentinel));
    ASSERT_EQ(render(), ML::STATUS_OTHER);
    ImagePtr depth = filledImage(rect, Image::R, Image::HWC, ML::F32, kSentinel);
    settings->setOutputImage(kFrame, depth);
    ASSERT_EQ(render(), ML::STATUS_OK);
    EXPECT_NEAR(valueAt(*depth, 50, 30), expectedDepth(0.5f, 0.5f, 0.5f), kTolerance);
    EXPECT_EQ(valueAt(*depth, 0, 0), kSentinel);
}

}  // namespace
