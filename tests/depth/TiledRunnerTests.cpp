// The tiled network runner over plans of the depth stand-in network. The network is pointwise
// (depth = 1 - luma), so a correct tiled run equals the formula everywhere, seams included.
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <set>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/TiledExecution.h"
#include "Plugin/TiledNetworkRunner.h"
#include "depth/DepthTestEnv.h"

using namespace depthtest;
using ML::Image;
using ML::Rect;

namespace {

constexpr ML::i32 kExec = 256;

class TiledRunner : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, packageDir() / "config", packageDir() / "models");
        common = std::make_unique<ML::ModelCommon>(context);
    }
    static void TearDownTestSuite() {
        common.reset();
        context.reset();
    }

    ML::TiledNetworkRunner makeRunner() {
        auto network = context->loadModel("depth_standin");
        auto inDesc = ML::makeDescription(kExec, kExec, Image::RGB, Image::CHW, ML::F16);
        auto outDesc = ML::makeDescription(kExec, kExec, Image::R, Image::CHW, ML::F16);
        auto inTensor = context->createTensor(ML::shapeOfImage(*inDesc, 1), ML::F16);
        auto outTensor = context->createTensor(ML::shapeOfImage(*outDesc, 1), ML::F16);
        return ML::TiledNetworkRunner(network, inDesc, inTensor, outDesc, outTensor);
    }

    // A source whose every pixel differs from its neighbours, so a tile placed one pixel off
    // shows up at once.
    static ImagePtr noisySource(const Rect& rect, ML::u32 format, ML::u32 type) {
        ImagePtr image = QHost::OwnedImage::make(rect, format, Image::HWC, type);
        std::mt19937 random(1234);
        std::uniform_real_distribution<float> unit(0.0f, 1.0f);
        for (ML::i32 y = rect.y0; y < rect.y1; ++y)
            for (ML::i32 x = rect.x0; x < rect.x1; ++x) paint(*image, Rect{x, y, x + 1, y + 1}, unit(random), unit(random), unit(random));
        return image;
    }

    // Compares every pixel of result inside region with the formula applied to source.
    static void expectFormula(const QHost::OwnedImage& source, const QHost::OwnedImage& result, const Rect& region) {
        int wrong = 0;
        for (ML::i32 y = region.y0; y < region.y1; ++y) {
            for (ML::i32 x = region.x0; x < region.x1; ++x) {
                const float want = expectedDepth(valueAt(source, x, y, 0), valueAt(source, x, y, 1), valueAt(source, x, y, 2));
                const float got = valueAt(result, x, y);
                if (std::abs(got - want) > kTolerance && wrong++ < 5)
                    ADD_FAILURE() << "at " << x << "," << y << ": " << got << " instead of " << want;
            }
        }
        EXPECT_EQ(wrong, 0);
    }

    static std::shared_ptr<ML::ModelContext> context;
    static std::unique_ptr<ML::ModelCommon> common;
};

std::shared_ptr<ML::ModelContext> TiledRunner::context;
std::unique_ptr<ML::ModelCommon> TiledRunner::common;

TEST_F(TiledRunner, PlanOverLargeRegionEqualsPointwiseFormula) {
    const Rect region{100, 50, 700, 450};  // 600 x 400
    ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
    const ML::TiledExecution::ExecutionPlan& plan = plans.get(region, 32);
    ASSERT_GT(plan.numTiles, 4);

    ImagePtr source = noisySource(region, Image::RGB, ML::F32);
    ImagePtr result = filledImage(region, Image::R, Image::HWC, ML::F32, kSentinel);
    ML::TiledNetworkRunner runner = makeRunner();
    runner.run(*common, plan, source, result);
    expectFormula(*source, *result, region);
}

TEST_F(TiledRunner, SubRegionOfLargerImagesLeavesTheRestAlone) {
    const Rect imageRect{0, 0, 640, 480};
    const Rect region{37, 21, 637, 421};
    ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
    const auto& plan = plans.get(region, 32);

    ImagePtr source = noisySource(imageRect, Image::RGBA, ML::U8);
    ImagePtr result = filledImage(imageRect, Image::R, Image::HWC, ML::F16, kSentinel);
    ML::TiledNetworkRunner runner = makeRunner();
    runner.run(*common, plan, source, result);
    expectFormula(*source, *result, region);
    int touched = 0;
    for (ML::i32 y = imageRect.y0; y < imageRect.y1; ++y)
        for (ML::i32 x = imageRect.x0; x < imageRect.x1; ++x)
            if (!(x >= region.x0 && x < region.x1 && y >= region.y0 && y < region.y1) &&
                valueAt(*result, x, y) != kSentinel)
                ++touched;
    EXPECT_EQ(touched, 0);
}

TEST_F(TiledRunner, RegionSmallerThanTileIsPaddedAndCropped) {
    const Rect region{5, 7, 105, 67};
    ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
    const auto& plan = plans.get(region, 32);
    ASSERT_EQ(plan.numTiles, 1);
    ImagePtr source = noisySource(region, Image::RGB, ML::F32);
    ImagePtr result = filledImage(region, Image::R, Image::HWC, ML::F32, kSentinel);
    makeRunner().run(*common, plan, source, result);
    expectFormula(*source, *result, region);
}

TEST_F(TiledRunner, ReportsProgressAndStopsWhenCancelled) {
    const Rect region{0, 0, 600, 400};
    ML::TiledExecution::ExecutionPlanMap plans({{kExec, kExec}});
    const auto& plan = plans.get(region, 32);
    ImagePtr source = noisySource(region, Image::RGB, ML::F32);
    ImagePtr result = filledImage(region, Image::R, Image::HWC, ML::F32, kSentinel);
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
