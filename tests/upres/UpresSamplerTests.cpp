// The alternating tensor pair and the result-grid sampler on the CPU backend. The sampler
// networks are written by the package tool's library into a temporary model folder; results are
// checked against the mapping worked out here.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Plugin/AlternatingTensors.h"
#include "Plugin/ImageUpresSampler.h"
#include "Plugin/ModelContext.h"
#include "Sampler.h"
#include "util/TempDir.h"
#include "util/TensorValues.h"

namespace {

using ML::u32;
using ML::u64;
using Tensor = std::shared_ptr<ML::BackendTensor>;

constexpr int kHeight = 6;
constexpr int kWidth = 10;

// One backend over a model folder holding plain samplers of 1x6x10 for F16 and F32 and a split
// one for F32 in "split/".
class Upres : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder = std::make_unique<TempDir>();
        for (u32 type : {ML::F16, ML::F32})
            qpkg::writeSamplerNetwork(folder->path(), type, qpkg::TensorSize{1, kHeight, kWidth}, false);
        qpkg::writeSamplerNetwork(folder->path() / "split", ML::F32, qpkg::TensorSize{1, kHeight, kWidth}, true);
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder->path(), folder->path());
    }
    static void TearDownTestSuite() {
        context.reset();
        folder.reset();
    }
    static Tensor tensor(const std::vector<u64>& shape, u32 type = ML::F32) {
        return context->createTensor(shape, type);
    }

    static inline std::unique_ptr<TempDir> folder;
    static inline std::shared_ptr<ML::ModelContext> context;
};

template <class F>
std::string thrownText(F&& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

using tensorvalues::download;
using tensorvalues::upload;

// Source tile pattern: linear in both axes, so bilinear sampling of it at a clamped position is
// the pattern itself at that position.
float pattern(float x, float y) { return 3.0f * x + 17.0f * y; }

std::vector<float> sourceTile() {
    std::vector<float> values;
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x) values.push_back(pattern(float(x), float(y)));
    return values;
}

ML::TiledExecution::Tile makeTile(ML::Rect src, ML::Rect srcTile, ML::Rect dst, ML::Rect dstTile) {
    ML::TiledExecution::Tile tile;
    tile.srcRect = src;
    tile.srcTileRect = srcTile;
    tile.dstRect = dst;
    tile.dstTileRect = dstTile;
    return tile;
}

}  // namespace

TEST_F(Upres, AlternatingTensorsRefusals) {
    const Tensor a = tensor({1, 3, 4, 4});
    const Tensor same = tensor({1, 3, 4, 4});
    ML::AlternatingTensors empty(context);
    const struct {
        const char* what;
        std::function<void()> call;
        std::string message;
    } cases[] = {
        {"only t0", [&] { ML::AlternatingTensors(context, a, nullptr); },
         "AlternatingTensors: must provide both t0 and t1, or neither"},
        {"only t1", [&] { ML::AlternatingTensors(context, nullptr, a); },
         "AlternatingTensors: must provide both t0 and t1, or neither"},
        {"rank", [&] { ML::AlternatingTensors(context, a, tensor({1, 3, 16})); },
         "AlternatingTensors: t0 and t1 must have the same rank"},
        {"shape", [&] { ML::AlternatingTensors(context, a, tensor({1, 3, 4, 5})); },
         "AlternatingTensors: t0 and t1 must have the same shape"},
        {"same bytes, other shape", [&] { ML::AlternatingTensors(context, a, tensor({1, 4, 3, 4})); },
         "AlternatingTensors: t0 and t1 must have the same shape"},
        {"dtype", [&] { ML::AlternatingTensors(context, a, tensor({1, 3, 4, 4}, ML::F16)); },
         "AlternatingTensors: t0 and t1 must have the same dtype"},
        {"current before init", [&] { empty.current(); }, "Must initialize AlternatingTensors before using!"},
        {"next before init", [&] { empty.next(); }, "Must initialize AlternatingTensors before using!"},
        {"swap before init", [&] { empty.swap(); }, "Must initialize AlternatingTensors before using!"},
        {"matching pair", [&] { ML::AlternatingTensors(context, a, same); }, "(nothing thrown)"},
    };
    for (const auto& c : cases) EXPECT_EQ(thrownText(c.call), c.message) << c.what;
    EXPECT_FALSE(empty.isInitialised());
}

TEST_F(Upres, AlternatingTensorsPingPong) {
    // Given tensors: t0 first, and every swap turns the pair around.
    const Tensor t0 = tensor({1, 2, 2, 2});
    const Tensor t1 = tensor({1, 2, 2, 2});
    ML::AlternatingTensors given(context, t0, t1);
    given.init({1, 1, 8, 8}, ML::F16);  // already there: nothing changes
    const Tensor expectedCurrent[] = {t0, t1, t0, t1};
    for (int swaps = 0; swaps < 4; ++swaps) {
        EXPECT_EQ(given.current(), expectedCurrent[swaps]) << swaps << " swaps";
        EXPECT_EQ(given.next(), expectedCurrent[(swaps + 1) % 2]) << swaps << " swaps";
        given.swap();
    }

    // Made by init: two tensors of their own, kept by a later init of another shape.
    ML::AlternatingTensors made(context);
    made.init({1, 3, 2, 2}, ML::F16);
    ASSERT_TRUE(made.isInitialised());
    const Tensor first = made.current();
    const Tensor second = made.next();
    EXPECT_EQ(first->getShape(), (std::vector<u64>{1, 3, 2, 2}));
    EXPECT_EQ(first->getDataType(), ML::F16);
    EXPECT_EQ(second->getShape(), first->getShape());
    EXPECT_EQ(second->getDataType(), ML::F16);
    upload(*first, std::vector<float>(12, 1.0f));
    upload(*second, std::vector<float>(12, 2.0f));
    EXPECT_EQ(download(*first), std::vector<float>(12, 1.0f)) << "the two tensors share memory";

    made.swap();
    made.swap();
    made.swap();
    made.init({1, 1, 9, 9}, ML::F32);
    EXPECT_EQ(made.current(), second);
    EXPECT_EQ(made.next(), first);
    EXPECT_EQ(made.current()->getShape(), (std::vector<u64>{1, 3, 2, 2}));
}

TEST_F(Upres, SamplerRefusesToSampleBeforeInit) {
    ML::ImageUpresSampler sampler(context);
    const Tensor t = tensor({1, 1, kHeight, kWidth});
    EXPECT_EQ(thrownText([&] { sampler.sample(t, t, ML::TiledExecution::Tile{}, 2.0f, 0, 0); }),
              "Must initialize ImageUpresSampler before using!");
}

TEST(UpresSamplerSplit, OnlyCoreMlFromVersionTwelve) {
    const struct {
        const char* backend;
        const char* version;
        bool split;
    } cases[] = {
        {"coreml", "12.0", true},  {"coreml", "13.1.2", true}, {"coreml", "120", true},
        {"coreml", "11.9", false}, {"coreml", "9.10", false},  {"coreml", "1.17.0", false},
        {"coreml", "", false},     {"coreml", "v12", false},   {"ort_cpu", "14.0", false},
        {"ort_cuda", "12.0", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ML::upresSamplerSplitsParameters(c.backend, c.version), c.split) << c.backend << " " << c.version;
}

TEST_F(Upres, SamplerMapsResultPixelsToTheSourceTile) {
    // Output pixel (x, y) of the network's tile is result position (x + a, y + b); per axis it
    // reads the source at (p + 0.5 - origin) / scale + origin - 0.5, which lies at that minus c
    // (or d) in the source tile, clamped to the tile.
    const struct {
        const char* what;
        ML::TiledExecution::Tile tile;
        float scale;
        int originX, originY;
    } cases[] = {
        {"scale 2, first tile", makeTile({5, 2, 11, 8}, {0, 0, 6, 6}, {12, 6, 22, 12}, {0, 0, 10, 6}), 2.0f, 0, 0},
        {"scale 2, inner tile",
         makeTile({7, 3, 16, 9}, {2, 1, 11, 7}, {16, 9, 24, 14}, {2, 1, 10, 6}), 2.0f, 0, 0},
        {"scale 1.5 about an origin",
         makeTile({-4, 9, 4, 15}, {1, 0, 9, 6}, {-3, 21, 5, 26}, {1, 2, 9, 6}), 1.5f, 7, -5},
    };
    const std::vector<float> source = sourceTile();
    for (u32 type : {ML::F32, ML::F16}) {
        const bool half = type == ML::F16;
        ML::ImageUpresSampler sampler(context);
        sampler.init(1, kHeight, kWidth, type);
        ASSERT_FALSE(sampler.splitsParameters());
        EXPECT_EQ(sampler.parameterTensor()->getShape(), (std::vector<u64>{1, 7, 1, 1}));
        EXPECT_EQ(sampler.parameterTensor()->getDataType(), ML::F32);

        const Tensor src = tensor({1, 1, kHeight, kWidth}, type);
        const Tensor dst = tensor({1, 1, kHeight, kWidth}, type);
        upload(*src, source);
        for (const auto& c : cases) {
            const auto& t = c.tile;
            const int a = t.dstRect.x0 - t.dstTileRect.x0, b = t.dstRect.y0 - t.dstTileRect.y0;
            const int cx = t.srcRect.x0 - t.srcTileRect.x0, dy = t.srcRect.y0 - t.srcTileRect.y0;
            sampler.sample(src, dst, t, c.scale, c.originX, c.originY);
            EXPECT_EQ(sampler.parameterValues(),
                      (std::vector<float>{float(a), float(b), float(cx), float(dy), float(c.originX),
                                          float(c.originY), c.scale}))
                << c.what;

            auto sourcePosition = [&](int p, int origin, int offset, int extent) {
                const float s = (float(p) + 0.5f - float(origin)) / c.scale + float(origin) - 0.5f - float(offset);
                return std::clamp(s, 0.0f, float(extent - 1));
            };
            const std::vector<float> got = download(*dst);
            int inside = 0;
            for (int y = 0; y < kHeight; ++y)
                for (int x = 0; x < kWidth; ++x) {
                    const float sx = sourcePosition(x + a, c.originX, cx, kWidth);
                    const float sy = sourcePosition(y + b, c.originY, dy, kHeight);
                    inside += sx > 0.0f && sx < kWidth - 1 && sy > 0.0f && sy < kHeight - 1;
                    const float want = pattern(sx, sy);
                    EXPECT_NEAR(got[size_t(y * kWidth + x)], want, half ? 0.07f : 1e-3f)
                        << c.what << (half ? " F16" : " F32") << " at " << x << "," << y;
                }
            EXPECT_GT(inside, kWidth * kHeight / 2) << c.what << ": the case should mostly sample inside the tile";
        }
    }
}

TEST_F(Upres, SplitParametersDriveTheSplitNetworkLikeThePlainOne) {
    // Negative and positive offsets beyond 256, chosen so that the tile is sampled inside.
    const ML::TiledExecution::Tile tile =
        makeTile({-291, 266, -281, 272}, {2, 1, 10, 7}, {-300, 257, -290, 263}, {0, 0, 10, 6});
    const float scale = 1.25f;
    const int originX = -260, originY = 300;
    const std::vector<float> split = ML::upresSamplerParameters(tile, scale, originX, originY, true);
    EXPECT_EQ(split, (std::vector<float>{-1, -44, 1, 1, -1, -37, 1, 9, -1, -4, 1, 44, 1.25f}));

    const Tensor src = tensor({1, 1, kHeight, kWidth});
    upload(*src, sourceTile());
    auto run = [&](const std::string& name, const std::vector<float>& values) {
        const Tensor params = tensor({1, u64(values.size()), 1, 1});
        params->upload(values.data());
        const Tensor dst = tensor({1, 1, kHeight, kWidth});
        context->loadModel(name)->run({src, params}, {dst});
        return download(*dst);
    };
    const std::vector<float> plain =
        run("upres_sampler_F32_1x6x10", ML::upresSamplerParameters(tile, scale, originX, originY, false));
    EXPECT_EQ(run("split/upres_sampler_F32_1x6x10", split), plain);
    // Not clamped to one edge: the plain result spans most of the pattern's range.
    const auto range = std::minmax_element(plain.begin(), plain.end());
    EXPECT_GT(*range.second - *range.first, 60.0f);
}
