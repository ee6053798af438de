// Gamma, statistics, normaliser and sampler networks against plain C++ references.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include <Imath/half.h>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

const char* typeName(ML::u32 t) { return t == ML::F16 ? "F16" : "F32"; }

float roundTo(ML::u32 type, float v) { return type == ML::F16 ? static_cast<float>(Imath::half(v)) : v; }

Tensor scalars(ML::u32 type, const std::vector<float>& values) {
    Tensor t = makeTensor(type, {static_cast<int64_t>(values.size())});
    for (size_t i = 0; i < values.size(); ++i) t.set(i, values[i]);
    return t;
}

float signedPow(float x, float e) { return std::copysign(std::pow(std::fabs(x), e), x); }

float maxDiff(const Tensor& a, const Tensor& b) {
    float worst = 0;
    for (size_t i = 0; i < a.count(); ++i) worst = std::fmax(worst, std::fabs(a.get(i) - b.get(i)));
    return worst;
}

// Networks written by the command line for fixed sizes, shared by the tests below.
class FixedSizeNetworks : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = new TempDir();
        for (const char* type : {"F16", "F32"}) {
            ASSERT_EQ(runPkg("normalizer \"" + plain().string() + "\" --type " + type + " --size 2x8x12").code, 0);
            ASSERT_EQ(runPkg("sampler \"" + plain().string() + "\" --type " + type + " --size 2x6x10").code, 0);
            ASSERT_EQ(runPkg("sampler \"" + split().string() + "\" --type " + type + " --size 2x6x10 --split").code, 0);
        }
    }
    static void TearDownTestSuite() {
        delete dir_;
        dir_ = nullptr;
    }
    static fs::path plain() { return dir_->path() / "plain"; }
    static fs::path split() { return dir_->path() / "split"; }

    static TempDir* dir_;
};

TempDir* FixedSizeNetworks::dir_ = nullptr;

// Reference of the sampler: separable bilinear, x first, clamped to the tile.
Tensor referenceSample(const Tensor& src, const std::vector<float>& p) {
    const int64_t n = src.shape[0], c = src.shape[1], h = src.shape[2], w = src.shape[3];
    auto taps = [&](int64_t len, float dst, float srcOff, float origin) {
        std::vector<std::pair<std::array<int64_t, 2>, float>> t;
        const float shift = (dst + 0.5f) - origin;
        const float back = (origin - 0.5f) - srcOff;
        for (int64_t i = 0; i < len; ++i) {
            float s = (static_cast<float>(i) + shift) / p[6] + back;
            s = std::fmin(std::fmax(s, 0.0f), static_cast<float>(len - 1));
            const float f0 = std::floor(s);
            const int64_t i0 = static_cast<int64_t>(f0);
            t.push_back({{i0, std::min(i0 + 1, len - 1)}, s - f0});
        }
        return t;
    };
    const auto tx = taps(w, p[0], p[2], p[4]);
    const auto ty = taps(h, p[1], p[3], p[5]);
    Tensor rows = makeTensor(ML::F32, src.shape), out = makeTensor(src.type, src.shape);
    auto at = [&](int64_t in, int64_t ic, int64_t y, int64_t x) { return static_cast<size_t>(((in * c + ic) * h + y) * w + x); };
    for (int64_t in = 0; in < n; ++in)
        for (int64_t ic = 0; ic < c; ++ic)
            for (int64_t y = 0; y < h; ++y)
                for (int64_t x = 0; x < w; ++x) {
                    const float v0 = src.get(at(in, ic, y, tx[x].first[0])), v1 = src.get(at(in, ic, y, tx[x].first[1]));
                    rows.set(at(in, ic, y, x), v0 + (v1 - v0) * tx[x].second);
                }
    for (int64_t in = 0; in < n; ++in)
        for (int64_t ic = 0; ic < c; ++ic)
            for (int64_t y = 0; y < h; ++y)
                for (int64_t x = 0; x < w; ++x) {
                    const float v0 = rows.get(at(in, ic, ty[y].first[0], x)), v1 = rows.get(at(in, ic, ty[y].first[1], x));
                    out.set(at(in, ic, y, x), v0 + (v1 - v0) * ty[y].second);
                }
    return out;
}

// The 13 parameters of the split form: each integer as value / 256 and value % 256.
std::vector<float> splitParams(const std::vector<float>& p) {
    std::vector<float> s;
    for (int i = 0; i < 6; ++i) {
        const int v = static_cast<int>(p[i]);
        s.push_back(static_cast<float>(v / 256));
        s.push_back(static_cast<float>(v % 256));
    }
    s.push_back(p[6]);
    return s;
}

}  // namespace

TEST(GammaNetworks, EqualGammasLeaveDataUnchanged) {
    std::mt19937 rng(1);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net(packageModelFolder() / "imgcvt" / (std::string("CONVERT_GAMMA_") + typeName(type) + ".onnx"));
        Tensor x = makeTensor(type, {3 * 5 * 7});
        fillRandom(x, rng, -2.0f, 3.0f);
        const Tensor y = net.run({x, scalars(type, {2.2f}), scalars(type, {2.2f})}).at(0);
        EXPECT_EQ(y.bytes, x.bytes) << typeName(type);
    }
}

TEST(GammaNetworks, ReencodeWithSignedPower) {
    std::mt19937 rng(2);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net(packageModelFolder() / "imgcvt" / (std::string("CONVERT_GAMMA_") + typeName(type) + ".onnx"));
        Tensor x = makeTensor(type, {2 * 3 * 4 * 5});
        fillRandom(x, rng, -1.0f, 1.5f);
        const Tensor y = net.run({x, scalars(type, {2.2f}), scalars(type, {1.0f})}).at(0);
        ASSERT_EQ(y.shape, x.shape);
        const float e = roundTo(type, 2.2f) / 1.0f;
        Tensor want = makeTensor(type, x.shape);
        for (size_t i = 0; i < x.count(); ++i) want.set(i, signedPow(x.get(i), e));
        EXPECT_LE(maxDiff(y, want), type == ML::F16 ? 2e-3f : 1e-5f) << typeName(type);
    }
}

TEST(StatsNetworks, MinimumAndMaximum) {
    std::mt19937 rng(4);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net(packageModelFolder() / "imgcvt" / (std::string("GET_IMAGE_STATS_") + typeName(type) + ".onnx"));
        for (const std::vector<int64_t>& shape : {std::vector<int64_t>{2, 3, 5, 7}, std::vector<int64_t>{1, 1, 1, 11}}) {
            Tensor x = makeTensor(type, shape);
            fillRandom(x, rng, -0.5f, 2.0f);
            x.set(3, -0.75f);
            x.set(x.count() - 1, 2.5f);
            const Tensor r = net.run({x}).at(0);
            ASSERT_EQ(r.shape, (std::vector<int64_t>{2}));
            EXPECT_EQ(r.type, type);
            EXPECT_EQ(r.get(0), -0.75f);
            EXPECT_EQ(r.get(1), 2.5f);
        }
    }
}

TEST_F(FixedSizeNetworks, NormaliseThenDenormaliseReturnsTheInput) {
    std::mt19937 rng(6);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        const std::string key = std::string(typeName(type)) + "_2x8x12";
        Network norm(plain() / ("normalize-input_" + key + ".onnx"));
        Network denorm(plain() / ("denormalize-output_" + key + ".onnx"));
        // A wide range (low 1, high log2(span)) and a gamma preset (2.2 to 1.0).
        for (const std::vector<float>& params : {std::vector<float>{1.0f, 1.32f, -0.5f, 2.0f}, std::vector<float>{2.2f, 1.0f, 0.0f, 1.0f}}) {
            Tensor x = makeTensor(type, {2, 3, 8, 12});
            fillRandom(x, rng, params[2], params[3]);
            const Tensor p = scalars(type, params);
            const Tensor y = norm.run({x, p}).at(0);
            ASSERT_EQ(y.shape, x.shape);

            Tensor want = makeTensor(type, x.shape);
            const float lo = roundTo(type, params[2]), span = roundTo(type, params[3]) - lo;
            const float e = roundTo(type, params[0]) / roundTo(type, params[1]);
            for (size_t i = 0; i < x.count(); ++i) want.set(i, signedPow((x.get(i) - lo) / span, e));
            EXPECT_LE(maxDiff(y, want), type == ML::F16 ? 2e-3f : 1e-5f) << key;

            const Tensor back = denorm.run({y, p}).at(0);
            EXPECT_LE(maxDiff(back, x), type == ML::F16 ? 6e-3f : 1e-5f) << key;
        }
    }
}

TEST_F(FixedSizeNetworks, NeutralParametersNormaliseToTheInput) {
    std::mt19937 rng(8);
    Network norm(plain() / "normalize-input_F32_2x8x12.onnx");
    Tensor x = makeTensor(ML::F32, {2, 1, 8, 12});
    fillRandom(x, rng);
    EXPECT_EQ(norm.run({x, scalars(ML::F32, {1.0f, 1.0f, 0.0f, 1.0f})}).at(0).bytes, x.bytes);
}

TEST_F(FixedSizeNetworks, SamplerAtScaleOneIsACopy) {
    std::mt19937 rng(9);
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net(plain() / (std::string("upres_sampler_") + typeName(type) + "_2x6x10.onnx"));
        Tensor x = makeTensor(type, {2, 3, 6, 10});
        fillRandom(x, rng);
        const Tensor y = net.run({x, makeF32({1, 7, 1, 1}, {5, -3, 5, -3, 100, 40, 1.0f})}).at(0);
        EXPECT_EQ(y.bytes, x.bytes) << typeName(type);
    }
}

TEST_F(FixedSizeNetworks, SamplerMatchesReference) {
    std::mt19937 rng(10);
    const std::vector<std::vector<float>> cases{
        {3, 1, 0, 2, 7, 4, 2.0f}, {0, 0, 1, 1, 0, 0, 0.75f}, {-2, 4, 3, -1, 13, -6, 1.6f}};
    for (ML::u32 type : {ML::F16, ML::F32}) {
        Network net(plain() / (std::string("upres_sampler_") + typeName(type) + "_2x6x10.onnx"));
        for (const std::vector<float>& p : cases) {
            Tensor x = makeTensor(type, {2, 3, 6, 10});
            fillRandom(x, rng);
            const Tensor y = net.run({x, makeF32({1, 7, 1, 1}, p)}).at(0);
            EXPECT_LE(maxDiff(y, referenceSample(x, p)), type == ML::F16 ? 1e-3f : 1e-5f) << typeName(type) << " scale " << p[6];
        }
    }
}

TEST_F(FixedSizeNetworks, SplitParametersGiveTheSameResult) {
    std::mt19937 rng(12);
    // Negative values split into a negative quotient and a negative remainder.
    const std::vector<float> p{-300, 517, -299, 515, -300, 517, 1.25f};
    for (ML::u32 type : {ML::F16, ML::F32}) {
        const std::string file = std::string("upres_sampler_") + typeName(type) + "_2x6x10.onnx";
        Network plainNet(plain() / file), splitNet(split() / file);
        Tensor x = makeTensor(type, {2, 3, 6, 10});
        fillRandom(x, rng);
        const Tensor a = plainNet.run({x, makeF32({1, 7, 1, 1}, p)}).at(0);
        const Tensor b = splitNet.run({x, makeF32({1, 13, 1, 1}, splitParams(p))}).at(0);
        EXPECT_EQ(a.bytes, b.bytes) << typeName(type);
    }
}
