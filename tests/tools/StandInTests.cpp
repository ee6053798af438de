// The depth and upscaling stand-in networks of the default package.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {
constexpr int64_t kTile = 256, kPlane = kTile * kTile;
}  // namespace

// (Depth as one minus luminance is checked end to end in tests/depth, on many colours; its colour
// ramp there only at one depth within 0..1.)
TEST(DepthStandIn, ColorizeIsAJetRampClampedToZeroToOne) {
    // Near is dark blue, far dark red, clamped outside 0..1.
    Tensor d = makeTensor(ML::F16, {1, 1, kTile, kTile});
    const std::vector<float> depths{-0.2f, 0.25f, 0.5f, 0.75f, 1.2f};
    const float colours[3][5] = {{0, 0, 0.5f, 1, 0.5f}, {0, 0.5f, 1, 0.5f, 0}, {0.5f, 1, 0.5f, 0, 0}};
    std::copy(depths.begin(), depths.end(), d.values.begin());
    const Tensor colour = packageNetwork("depth_standin_colorize").run1({d});
    ASSERT_EQ(colour.shape, (std::vector<int64_t>{1, 3, kTile, kTile}));
    for (int c = 0; c < 3; ++c)
        for (size_t i = 0; i < depths.size(); ++i)
            EXPECT_EQ(colour.values[static_cast<size_t>(c * kPlane) + i], colours[c][i]) << c << ", " << depths[i];
}

namespace {

// An image of 1x3xHxW F16 values in 0..1 (rounded to F16), varied in both directions.
Tensor testImage(int64_t h, int64_t w) {
    std::vector<float> v(static_cast<size_t>(3 * h * w));
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>((i * 53 + i / static_cast<size_t>(w) * 7) % 97) / 96.0f;
    return planar(h, w, v, ML::F16);
}

float keys(float x) {  // Keys cubic convolution, a = -0.5
    x = std::fabs(x);
    if (x < 1) return 1.5f * x * x * x - 2.5f * x * x + 1;
    if (x < 2) return -0.5f * x * x * x + 2.5f * x * x - 4 * x + 2;
    return 0;
}

// Bicubic upscale by s computed here: output X reads (X + 0.5) / s - 0.5, taps clamped to the image.
std::vector<float> bicubicReference(const Tensor& img, int s) {
    const int h = static_cast<int>(img.shape[2]), w = static_cast<int>(img.shape[3]);
    std::vector<float> out;
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < h * s; ++y)
            for (int x = 0; x < w * s; ++x) {
                const float u = (x + 0.5f) / s - 0.5f, v = (y + 0.5f) / s - 0.5f;
                const int u0 = static_cast<int>(std::floor(u)), v0 = static_cast<int>(std::floor(v));
                float sum = 0;
                for (int j = v0 - 1; j <= v0 + 2; ++j)
                    for (int i = u0 - 1; i <= u0 + 2; ++i)
                        sum += keys(v - j) * keys(u - i) *
                               img.values[static_cast<size_t>((c * h + std::clamp(j, 0, h - 1)) * w + std::clamp(i, 0, w - 1))];
                out.push_back(std::clamp(sum, 0.0f, 1.0f));
            }
    return out;
}

}  // namespace

TEST(UpresStandIn, BicubicAtEachScaleAndLocalToTiles) {
    // file, scale, image extents, crop (y, x, h, w) in source pixels
    const struct { const char* file; int scale; int64_t h, w, cy, cx, ch, cw; } cases[] = {
        {"upres_standin_2x.onnx", 2, 9, 13, 3, 4, 5, 6},
        {"upres_standin_4x.onnx", 4, 7, 10, 2, 3, 5, 5},
        {"upres_standin_2x.onnx", 2, 1, 3, 0, 0, 1, 3},
    };
    for (const auto& c : cases) {
        Network net(packageModelFolder() / c.file);
        const Tensor img = testImage(c.h, c.w);
        const Tensor up = net.run1({img});
        ASSERT_EQ(up.shape, (std::vector<int64_t>{1, 3, c.h * c.scale, c.w * c.scale})) << c.file;
        const std::vector<float> want = bicubicReference(img, c.scale);
        for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(up.values[i], want[i], 1e-3f) << c.file << " " << i;
        // A crop upscaled equals the upscale cropped, 2 source pixels away from the crop's edges.
        const Tensor tile = net.run1({crop(img, c.cy, c.cx, c.ch, c.cw)});
        const int64_t s = c.scale, m = 2 * s;
        for (int64_t ch = 0; ch < 3; ++ch)
            for (int64_t y = m; y < c.ch * s - m; ++y)
                for (int64_t x = m; x < c.cw * s - m; ++x)
                    ASSERT_EQ(pixel(tile, ch, y, x), pixel(up, ch, c.cy * s + y, c.cx * s + x)) << c.file << " " << y << "," << x;
    }
}

TEST(UpresStandIn, EnhanceSharpensWithRepeatedEdges) {
    // x + k (4x - four neighbours), k = 1/8, edges repeated, clamped to 0..1.
    const Tensor img = testImage(5, 7);
    const Tensor out = packageNetwork("upres_standin_enhance").run1({img});
    ASSERT_EQ(out.shape, img.shape);
    for (int64_t c = 0; c < 3; ++c)
        for (int64_t y = 0; y < 5; ++y)
            for (int64_t x = 0; x < 7; ++x) {
                auto px = [&](int64_t yy, int64_t xx) { return pixel(img, c, std::clamp<int64_t>(yy, 0, 4), std::clamp<int64_t>(xx, 0, 6)); };
                const float lap = 4 * px(y, x) - px(y - 1, x) - px(y + 1, x) - px(y, x - 1) - px(y, x + 1);
                EXPECT_NEAR(pixel(out, c, y, x), std::clamp(px(y, x) + lap / 8, 0.0f, 1.0f), 1e-3f) << c << " " << y << " " << x;
            }
}
