// The tiled network runner over plans of the depth stand-in network. The network is pointwise
// (depth = 1 - luma), so a correct tiled run equals the formula everywhere, seams included.
#include <random>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/TiledExecution.h"
#include "Plugin/TiledNetworkRunner.h"
#include "depth/DepthTestEnv.h"

using namespace depthtest;

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

    static inline std::shared_ptr<ML::ModelContext> context;
    static inline std::unique_ptr<ML::ModelCommon> common;
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
        ImagePtr result = filledImage(c.image, Image::R, Image::HWC, c.resultType, kSentinel);
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
