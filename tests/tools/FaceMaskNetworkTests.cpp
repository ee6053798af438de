// The networks of the detection effect's image outputs, run with ONNX Runtime: the object blur
// against a C++ box-blur reference (and its reach, which tiles rely on), the logits-to-masks
// softmax, and the face-parsing stand-in on a drawn face.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

constexpr int64_t kRadius = 16, kReach = 3 * kRadius;

// Planar channels of h x w with a texture that varies on every scale the blur sees.
std::vector<float> texture(int64_t channels, int64_t h, int64_t w) {
    std::vector<float> v(static_cast<size_t>(channels * h * w));
    for (int64_t c = 0; c < channels; ++c)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x)
                v[static_cast<size_t>((c * h + y) * w + x)] =
                    0.5f + 0.3f * std::sin(0.11f * x + 0.05f * y * (c + 1)) + 0.15f * float((x * 7 + y * 3 + c) % 5) / 4.0f - 0.1f;
    return v;
}

// Three box means of 2r + 1 along x, then three along y, edges repeated.
std::vector<float> boxBlurReference(std::vector<float> v, int64_t channels, int64_t h, int64_t w) {
    const auto pass = [&](bool alongX) {
        std::vector<float> out(v.size());
        for (int64_t c = 0; c < channels; ++c)
            for (int64_t y = 0; y < h; ++y)
                for (int64_t x = 0; x < w; ++x) {
                    double sum = 0;
                    for (int64_t k = -kRadius; k <= kRadius; ++k) {
                        const int64_t xx = alongX ? std::clamp<int64_t>(x + k, 0, w - 1) : x;
                        const int64_t yy = alongX ? y : std::clamp<int64_t>(y + k, 0, h - 1);
                        sum += v[static_cast<size_t>((c * h + yy) * w + xx)];
                    }
                    out[static_cast<size_t>((c * h + y) * w + x)] = static_cast<float>(sum / (2 * kRadius + 1));
                }
        v = std::move(out);
    };
    for (int i = 0; i < 3; ++i) pass(true);
    for (int i = 0; i < 3; ++i) pass(false);
    return v;
}

}  // namespace

TEST(MaskBlur, BlursWhereTheMaskIsAndKeepsTheRest) {
    constexpr int64_t h = 70, w = 90;
    const std::vector<float> rgb = texture(3, h, w);
    std::vector<float> mask(static_cast<size_t>(h * w), 0.0f);
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = w / 2; x < w; ++x) mask[static_cast<size_t>(y * w + x)] = x < w / 2 + 10 ? 0.5f : 1.0f;
    const Tensor color = makeTensor(ML::F16, {1, 3, h, w}, rgb);
    const Tensor out = packageNetwork("mask_blur").run1({color, makeTensor(ML::F16, {1, 1, h, w}, mask)});
    const std::vector<float> blurred = boxBlurReference(color.values, 3, h, w);
    for (size_t i = 0; i < out.values.size(); ++i) {
        const float m = mask[i % static_cast<size_t>(h * w)];
        const float expected = color.values[i] + m * (blurred[i] - color.values[i]);
        ASSERT_NEAR(out.values[i], expected, 2e-3f) << "element " << i;
    }
}

// A tile with kReach pixels of padding gives the same centre as the whole picture.
TEST(MaskBlur, ReachIsWithinThePadding) {
    constexpr int64_t h = 40, w = 300, x0 = 120, tileW = 2 * kReach + 20;
    const Tensor rgb = planar(h, w, texture(3, h, w), ML::F16), tile = crop(rgb, 0, x0, h, tileW);
    auto ones = [](int64_t width) { return makeTensor(ML::F16, {1, 1, h, width}, std::vector<float>(size_t(h * width), 1.0f)); };
    Network net = packageNetwork("mask_blur");
    const Tensor whole = net.run1({rgb, ones(w)}), part = net.run1({tile, ones(tileW)});
    for (int64_t c = 0; c < 3; ++c)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = kReach; x < tileW - kReach; ++x)
                ASSERT_NEAR(pixel(part, c, y, x), pixel(whole, c, y, x0 + x), 2e-3f);
}

// A softmax over the classes; one channel alone (interactive segmentation) is its logit's sigmoid,
// also far out where a softmax written naively overflows.
TEST(LogitsToMasks, SoftmaxOverClassesOrSigmoidOfOne) {
    constexpr int64_t t = 512;
    for (int64_t classes : {3, 1})
        for (ML::u32 type : {ML::F16, ML::F32}) {
            std::vector<float> logits(static_cast<size_t>(classes * t * t));
            for (size_t i = 0; i < logits.size(); ++i) logits[i] = std::sin(0.37f * static_cast<float>(i % 977)) * 4.0f;
            for (int64_t p = 0; p < t; ++p) logits[static_cast<size_t>(p)] = 10.0f;  // a row of certain background
            const float extremes[] = {-10.0f, 30.0f, -30.0f, 200.0f, -200.0f, -20000.0f};
            for (size_t k = 0; k < std::size(extremes); ++k) logits[static_cast<size_t>(t + 37 * k)] = extremes[k];
            for (int64_t c = 0; c < classes; ++c) logits[static_cast<size_t>(c * t * t + t + 37 * 6)] = -200.0f;  // all far out
            const std::string file = type == ML::F16 ? "imgcvt/logits_to_masks_aa_F16" : "imgcvt/logits_to_masks_aa_F32";
            const Tensor in = makeTensor(type, {1, classes, t, t}, logits), out = packageNetwork(file).run1({in});
            for (int64_t p = 0; p < t * t; p += 37) {
                double sum = classes == 1 ? 1.0 : 0.0;  // one channel: against an implicit zero
                for (int64_t c = 0; c < classes; ++c) sum += std::exp(double(in.values[static_cast<size_t>(c * t * t + p)]));
                for (int64_t c = 0; c < classes; ++c) {
                    const size_t i = static_cast<size_t>(c * t * t + p);
                    const double want = std::isinf(sum) ? (in.values[i] > 0 ? 1.0 : 0.0) : std::exp(double(in.values[i])) / sum;
                    ASSERT_NEAR(out.values[i], want, 1e-3) << file << ", " << classes << " classes, pixel " << p;
                }
            }
            EXPECT_GT(out.values[0], 0.99f);
        }
}

// A skin-toned oval on a green background: skin in the middle of the crop, none on the green
// or at the corners.
TEST(FaceParsingStandIn, MarksSkinInTheMiddleOfTheCrop) {
    constexpr int64_t e = 256;
    std::vector<float> rgb(static_cast<size_t>(3 * e * e));
    const float skin[3] = {0.80f, 0.56f, 0.45f}, green[3] = {0.2f, 0.6f, 0.25f};
    for (int64_t y = 0; y < e; ++y)
        for (int64_t x = 0; x < e; ++x) {
            const float u = (x - e / 2.0f) / 60.0f, v = (y - e * 0.52f) / 75.0f;
            const float* col = u * u + v * v < 1.0f ? skin : green;
            for (int c = 0; c < 3; ++c) rgb[static_cast<size_t>((c * e + y) * e + x)] = col[c];
        }
    const Tensor logits = packageNetwork("face_parsing_standin").run1({planar(e, e, rgb, ML::F16)});
    ASSERT_EQ(logits.shape, (std::vector<int64_t>{1, 2, e, e}));
    const auto skinProbability = [&](int64_t x, int64_t y) {
        return 1.0f / (1.0f + std::exp(pixel(logits, 0, y, x) - pixel(logits, 1, y, x)));
    };
    EXPECT_GT(skinProbability(e / 2, e / 2), 0.9f);
    EXPECT_LT(skinProbability(e / 2 + 55, e / 2 - 60), 0.3f);  // green inside the oval's reach
    EXPECT_LT(skinProbability(5, 5), 0.01f);                     // corner
}
