// Normaliser and sampler networks with known answers. (The gamma and statistics networks are
// checked through the plug-in's helpers, tests/denoise/HelperNetworkTests.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

const char* typeName(ML::u32 t) { return t == ML::F16 ? "F16" : "F32"; }

void expectNear(const Tensor& got, const std::vector<float>& want, float tolerance, const std::string& what) {
    ASSERT_EQ(got.values.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i) EXPECT_NEAR(got.values[i], want[i], tolerance) << what << " element " << i;
}

// Networks written by the command line for 2 images of 6x10 and 8x12, shared by the tests below.
class FixedSizeNetworks : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<TempDir>();
        const std::string plain = " \"" + (dir_->path() / "plain").string() + "\" --type F16 --type F32";
        ASSERT_EQ(runPkg("normalizer" + plain + " --size 2x8x12").code, 0);
        ASSERT_EQ(runPkg("sampler" + plain + " --size 2x6x10 --size 1x6x10").code, 0);
        const std::string split = " \"" + (dir_->path() / "split").string() + "\" --type F16 --type F32";
        ASSERT_EQ(runPkg("sampler" + split + " --size 2x6x10 --split").code, 0);
    }
    static void TearDownTestSuite() { dir_.reset(); }
    static Network network(const std::string& folder, const std::string& name, ML::u32 type, const char* size) {
        return Network(dir_->path() / folder / (name + "_" + typeName(type) + "_" + size + ".onnx"));
    }
    static inline std::unique_ptr<TempDir> dir_;
};

}  // namespace

// Their arithmetic is checked through the plug-in's helpers; here only that the package ships them.
TEST(GammaAndStatsNetworks, AreInTheDefaultPackage) {
    for (const char* name : {"CONVERT_GAMMA_F16", "CONVERT_GAMMA_F32", "GET_IMAGE_STATS_F16", "GET_IMAGE_STATS_F32"})
        EXPECT_NO_THROW(packageNetwork(std::string("imgcvt/") + name)) << name;
}

TEST_F(FixedSizeNetworks, NormaliseMapsTheRangeWithTheGammaRatioAndDenormaliseUndoesIt) {
    // Parameters: source gamma, target gamma (either not above 0: exponent 1), range low and high.
    const std::vector<float> in{-0.5f, 0.5f, 1.5f, -1.5f, 2.5f, 0.0f};
    const struct { std::vector<float> params, out; } cases[] = {
        {{2, 1, -0.5f, 1.5f}, {0, 0.25f, 1, -0.25f, 2.25f, 0.0625f}},
        {{0, 2, 0, 1}, in},
    };
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network norm = network("plain", "normalize-input", type, "2x8x12");
        Network denorm = network("plain", "denormalize-output", type, "2x8x12");
        std::vector<float> x, want;
        for (size_t i = 0; i < 192; ++i) x.push_back(in[i % in.size()]);
        for (const auto& c : cases) {
            want.clear();
            for (size_t i = 0; i < 192; ++i) want.push_back(c.out[i % c.out.size()]);
            const Tensor p = makeTensor(type, {4}, c.params);
            const Tensor y = norm.run1({makeTensor(type, {2, 1, 8, 12}, x), p});
            expectNear(y, want, type == ML::F16 ? 2e-3f : 1e-5f, typeName(type));
            expectNear(denorm.run1({y, p}), x, type == ML::F16 ? 6e-3f : 1e-5f, typeName(type));
        }
    }
}

TEST_F(FixedSizeNetworks, SamplerKnownAnswers) {
    // The source is 4 * column + 40 * row + image. Parameters: destination offset x and y, source
    // offset x and y, origin x and y, scale; a position t samples the source, clamped to the tile,
    // at (t + destination offset + 0.5 - origin) / scale + origin - 0.5 - source offset.
    using Expect = std::function<float(int, int)>;  // of row and column, without the image term
    const struct { std::vector<float> params; Expect value; } cases[] = {
        {{0, 0, 0, 0, 0, 0, 2}, [](int y, int x) { return std::max(0, 2 * x - 1) + std::max(0, 20 * y - 10); }},
        {{3, 0, 1, 2, 0, 0, 1}, [](int y, int x) { return 4 * std::min(x + 2, 9) + 40 * std::max(y - 2, 0); }},
        {{0, 0, 0, 0, 4, 2, 2}, [](int y, int x) { return 2 * x + 7 + 20 * y + 30; }},
    };
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net = network("plain", "upres_sampler", type, "2x6x10");
        Tensor src = makeTensor(type, {2, 1, 6, 10});
        for (size_t i = 0; i < 120; ++i) src.values[i] = static_cast<float>(4 * (i % 10) + 40 * (i / 10 % 6) + i / 60);
        for (const auto& c : cases) {
            std::vector<float> want;
            for (int i = 0; i < 120; ++i) want.push_back(c.value(i / 10 % 6, i % 10) + static_cast<float>(i / 60));
            expectNear(net.run1({src, makeTensor(ML::F32, {1, 7, 1, 1}, c.params)}), want, 0.0f,
                       std::string(typeName(type)) + " scale " + std::to_string(c.params[6]));
        }
    }
}

TEST_F(FixedSizeNetworks, SamplerWithSplitParametersGivesTheSameResult) {
    // Each integer is given as value / 256 and value % 256; negative ones split into a negative
    // quotient and a negative remainder. The quotients differ, so that a wrong factor shows.
    const std::vector<float> p{255, -256, 257, -256, 260, -255, 1.25f};
    std::vector<float> split;
    for (int i = 0; i < 6; ++i) {
        const int v = static_cast<int>(p[static_cast<size_t>(i)]);
        split.push_back(static_cast<float>(v / 256));
        split.push_back(static_cast<float>(v % 256));
    }
    split.push_back(p[6]);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Tensor x = makeTensor(type, {2, 3, 6, 10});
        for (size_t i = 0; i < x.values.size(); ++i) x.values[i] = static_cast<float>((i * 37) % 101) / 64.0f;
        const Tensor a = network("plain", "upres_sampler", type, "2x6x10").run1({x, makeTensor(ML::F32, {1, 7, 1, 1}, p)});
        const Tensor b =
            network("split", "upres_sampler", type, "2x6x10").run1({x, makeTensor(ML::F32, {1, 13, 1, 1}, split)});
        EXPECT_EQ(a.values, b.values) << typeName(type);
    }
}

namespace {

// The sampler's mapping along one axis of v (extent n), computed here: output position t reads
// (t + a + 0.5 - origin) / scale + origin - 0.5 - c, clamped to the source, linearly interpolated.
float sampleReference(const std::function<float(int)>& v, int n, int t, float a, float c, float origin, float scale) {
    const float pos = std::clamp((static_cast<float>(t) + a + 0.5f - origin) / scale + origin - 0.5f - c, 0.0f,
                                 static_cast<float>(n - 1));
    const int i0 = static_cast<int>(std::floor(pos));
    const int i1 = std::min(i0 + 1, n - 1);
    return v(i0) + (v(i1) - v(i0)) * (pos - static_cast<float>(i0));
}

}  // namespace

TEST_F(FixedSizeNetworks, DynamicSamplerMatchesTheReferenceAndTheFixedSampler) {
    // A 1x3x6x10 source; rows give the parameters (a, b, c, d, originX, originY, scale) and the
    // output width and height.
    constexpr int hs = 6, ws = 10;
    const struct { std::vector<float> params; int w, h; } cases[] = {
        {{0, 0, 0, 0, 0, 0, 2}, 7, 5},
        {{1, -2, 0, 1, 3, 2, 0.5f}, 4, 3},
        {{5, 3, 2, 1, 4, 4, 1.5f}, 12, 9},
        {{2, 1, 2, 1, 0, 0, 1}, ws, hs},
        {{-3, 4, 1, 0, 2, 7, 2.75f}, ws, hs},
    };
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network dynamic(packageModelFolder() / (std::string("upres_sampler_dynamic_") + typeName(type) + ".onnx"));
        Network fixed = network("plain", "upres_sampler", type, "1x6x10");
        Tensor src = makeTensor(type, {1, 3, hs, ws});
        for (size_t i = 0; i < src.values.size(); ++i) src.values[i] = static_cast<float>((i * 37) % 101) / 100.0f;
        src = makeTensor(type, src.shape, src.values);
        for (const auto& c : cases) {
            const std::string what = std::string(typeName(type)) + " scale " + std::to_string(c.params[6]);
            const Tensor params = makeTensor(ML::F32, {1, 7, 1, 1}, c.params);
            const Tensor got =
                dynamic.run1({src, params, makeTensor(ML::I32, {1, 2, 1, 1}, {float(c.w), float(c.h)})});
            ASSERT_EQ(got.shape, (std::vector<int64_t>{1, 3, c.h, c.w})) << what;
            std::vector<float> want;
            for (int ch = 0; ch < 3; ++ch)
                for (int y = 0; y < c.h; ++y)
                    for (int x = 0; x < c.w; ++x) {
                        auto row = [&](int sy) {
                            return sampleReference(
                                [&](int sx) { return src.values[static_cast<size_t>((ch * hs + sy) * ws + sx)]; }, ws,
                                x, c.params[0], c.params[2], c.params[4], c.params[6]);
                        };
                        want.push_back(sampleReference(row, hs, y, c.params[1], c.params[3], c.params[5], c.params[6]));
                    }
            expectNear(got, want, type == ML::F16 ? 1e-3f : 1e-5f, what);
            if (c.w == ws && c.h == hs) {
                EXPECT_EQ(got.values, fixed.run1({src, params}).values) << what;
            }
        }
    }
}
