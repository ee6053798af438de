// The resize networks against a bilinear reference with half-pixel centres.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "ML/ImageImp.h"
#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

// Source coordinate of output index o, as ONNX Resize with half_pixel defines it.
struct Tap {
    int64_t i0, i1;
    float w;
};

Tap tap(int64_t o, int64_t in, int64_t out) {
    const float scale = static_cast<float>(out) / static_cast<float>(in);
    float s = (static_cast<float>(o) + 0.5f) / scale - 0.5f;
    s = std::fmin(std::fmax(s, 0.0f), static_cast<float>(in - 1));
    const int64_t i0 = static_cast<int64_t>(std::floor(s));
    return {i0, std::min(i0 + 1, in - 1), s - static_cast<float>(i0)};
}

// Reference in N,C,H,W indexing, unrounded (F32); hwc selects how the tensors are laid out.
Tensor referenceResize(const Tensor& src, bool hwc, int64_t outH, int64_t outW) {
    const int64_t n = src.shape[0];
    const int64_t c = hwc ? src.shape[3] : src.shape[1];
    const int64_t h = hwc ? src.shape[1] : src.shape[2];
    const int64_t w = hwc ? src.shape[2] : src.shape[3];
    auto at = [&](int64_t H, int64_t W, int64_t in, int64_t ic, int64_t y, int64_t x) {
        return static_cast<size_t>(hwc ? ((in * H + y) * W + x) * c + ic : ((in * c + ic) * H + y) * W + x);
    };
    Tensor dst = makeTensor(ML::F32, hwc ? std::vector<int64_t>{n, outH, outW, c} : std::vector<int64_t>{n, c, outH, outW});
    for (int64_t in = 0; in < n; ++in)
        for (int64_t ic = 0; ic < c; ++ic)
            for (int64_t y = 0; y < outH; ++y)
                for (int64_t x = 0; x < outW; ++x) {
                    const Tap ty = tap(y, h, outH), tx = tap(x, w, outW);
                    auto v = [&](int64_t yy, int64_t xx) { return src.get(at(h, w, in, ic, yy, xx)); };
                    const float top = v(ty.i0, tx.i0) * (1 - tx.w) + v(ty.i0, tx.i1) * tx.w;
                    const float bottom = v(ty.i1, tx.i0) * (1 - tx.w) + v(ty.i1, tx.i1) * tx.w;
                    dst.set(at(outH, outW, in, ic, y, x), top * (1 - ty.w) + bottom * ty.w);
                }
    return dst;
}

// Largest difference from the reference. U8 must round to nearest: only values within a hair of
// a tie may go either way, since the network sums its weights in another order.
float worstError(const Tensor& got, const Tensor& reference) {
    float worst = 0;
    for (size_t i = 0; i < reference.count(); ++i) {
        const float r = reference.get(i);
        float err = std::fabs(got.get(i) - r);
        if (got.type == ML::U8) {
            const bool nearTie = std::fabs(r - std::floor(r) - 0.5f) < 1e-3f;
            err = got.get(i) == std::nearbyint(r) || (nearTie && err < 0.51f) ? 0.0f : err;
        }
        worst = std::fmax(worst, err);
    }
    return worst;
}

float tolerance(ML::u32 type) { return type == ML::U8 ? 0.0f : type == ML::F16 ? 1e-3f : 1e-5f; }

const char* typeName(ML::u32 t) { return t == ML::U8 ? "U8" : t == ML::F16 ? "F16" : "F32"; }

}  // namespace

TEST(ResizeNetworks, MatchBilinearHalfPixelReference) {
    std::mt19937 rng(3);
    for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
        for (bool hwc : {true, false}) {
            const std::string name = std::string("resize_") + typeName(type) + (hwc ? "_HWC" : "_CHW");
            Network net(packageModelFolder() / "imgcvt" / (name + ".onnx"));
            ASSERT_EQ(net.inputCount(), 2u);
            ASSERT_EQ(net.outputCount(), 1u);
            for (const auto& [c, outH, outW] : std::vector<std::array<int64_t, 3>>{{3, 13, 20}, {1, 4, 5}, {3, 7, 9}, {2, 1, 1}}) {
                Tensor src = makeTensor(type, hwc ? std::vector<int64_t>{2, 7, 9, c} : std::vector<int64_t>{2, c, 7, 9});
                fillRandom(src, rng);
                const Tensor got = net.run({src, makeI64({2, c, outH, outW})}).at(0);
                const Tensor want = referenceResize(src, hwc, outH, outW);
                ASSERT_EQ(got.shape, want.shape) << name;
                ASSERT_EQ(got.type, type) << name;
                EXPECT_LE(worstError(got, want), tolerance(type)) << name << " to " << outH << "x" << outW;
            }
        }
}

TEST(ResizeNetworks, KeepBatchAndChannelsWhateverTheTargetSays) {
    Network net(packageModelFolder() / "imgcvt" / "resize_F32_HWC.onnx");
    Tensor src = makeTensor(ML::F32, {3, 4, 6, 2});
    std::mt19937 rng(5);
    fillRandom(src, rng);
    const Tensor got = net.run({src, makeI64({1, 1, 8, 12})}).at(0);
    EXPECT_EQ(got.shape, (std::vector<int64_t>{3, 8, 12, 2}));
}

TEST(ResizeNetworks, ConstantImageStaysConstant) {
    Network net(packageModelFolder() / "imgcvt" / "resize_U8_CHW.onnx");
    Tensor src = makeTensor(ML::U8, {1, 1, 5, 5});
    for (size_t i = 0; i < src.count(); ++i) src.set(i, 200);
    const Tensor got = net.run({src, makeI64({1, 1, 11, 3})}).at(0);
    for (size_t i = 0; i < got.count(); ++i) ASSERT_EQ(got.get(i), 200.0f);
}
