// The optical-flow and retiming stand-ins, run with ONNX Runtime: flow of known motions (shifts,
// a rotation), the scale input, real footage, the colouring and largest-value networks, frame
// interpolation of a moving square, and the retiming tiles' blend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Host/Media/ImageReader.h"
#include "ToolTestUtil.h"
#include "util/PlanarResize.h"

using namespace tooltest;

namespace {

constexpr int64_t kH = 288, kW = 512;  // the flow network's tile
constexpr int64_t kT = 384;            // the retiming network's tile

// A smooth random RGB texture defined everywhere, so that moved copies are exact: a sum of
// sinusoids of wavelengths 6..160 px, longer ones stronger as in natural pictures; about 0.1..0.9.
struct Texture {
    struct Wave {
        float fx, fy, phase, amp;
    };
    std::vector<Wave> waves[3];

    explicit Texture(unsigned seed) {
        std::mt19937 rng(seed);
        std::uniform_real_distribution<float> angle(0.0f, 6.2831853f), logLen(std::log(6.0f), std::log(160.0f));
        for (auto& c : waves) {
            float total = 0;
            for (int i = 0; i < 32; ++i) {
                const float a = angle(rng), len = std::exp(logLen(rng));
                c.push_back({6.2831853f / len * std::cos(a), 6.2831853f / len * std::sin(a), angle(rng), std::sqrt(len)});
                total += std::sqrt(len);
            }
            for (Wave& w : c) w.amp *= 1.0f / total;  // at most 0.5 in all
        }
    }
    float at(int c, float x, float y) const {
        float v = 0.5f;
        for (const Wave& w : waves[c]) v += w.amp * std::sin(w.fx * x + w.fy * y + w.phase);
        return v;
    }
    // 1x3xhxw values of at(c, src(x, y)).
    std::vector<float> picture(int64_t h, int64_t w, const std::function<std::pair<float, float>(float, float)>& src) const {
        std::vector<float> v(static_cast<size_t>(3 * h * w));
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x) {
                const auto [sx, sy] = src(float(x), float(y));
                for (int c = 0; c < 3; ++c) v[static_cast<size_t>((c * h + y) * w + x)] = at(c, sx, sy);
            }
        return v;
    }
};

Tensor scaleInput(float sx, float sy) { return makeTensor(ML::F32, {1, 2, 1, 1}, {sx, sy}); }

Tensor runFlow(const Tensor& a, const Tensor& b, float sx = 1.0f, float sy = 1.0f) {
    static Network net = packageNetwork("optical_flow_standin");
    const Tensor f = net.run1({a, b, scaleInput(sx, sy)});
    EXPECT_EQ(f.shape, (std::vector<int64_t>{1, 2, a.shape[2], a.shape[3]}));
    return f;
}

// Mean end-point error against the true flow, over pixels at least margin from every edge.
double meanEpe(const Tensor& f, const std::function<std::pair<float, float>(float, float)>& truth, int64_t margin) {
    double sum = 0;
    size_t n = 0;
    for (int64_t y = margin; y < f.shape[2] - margin; ++y)
        for (int64_t x = margin; x < f.shape[3] - margin; ++x, ++n) {
            const auto [tx, ty] = truth(float(x), float(y));
            sum += std::hypot(pixel(f, 0, y, x) - tx, pixel(f, 1, y, x) - ty);
        }
    return sum / double(n);
}

// A picture file as 1x3xkHxkW RGB in 0..1, resized with bilinear interpolation (pixel centres).
Tensor readResized(const std::string& file) {
    const QMedia::Frame f = QMedia::readImage(fs::path(QUILLON_SOURCE_DIR) / ".deps" / "media" / file);
    return planar(kH, kW, testutil::planarResized(f, kH, kW));
}

double stddev(const std::vector<float>& v, size_t from, size_t count) {
    double s = 0, s2 = 0;
    for (size_t i = from; i < from + count; ++i) s += v[i], s2 += double(v[i]) * v[i];
    const double m = s / double(count);
    return std::sqrt(std::max(0.0, s2 / double(count) - m * m));
}

}  // namespace

// Shifts (sub-pixel to 21 px), a rotation about the centre, and pictures of any size: odd sides
// lose a row or column in the pyramid and get it back on the way up; 16 is the smallest side that
// five levels allow.
TEST(FlowStandIn, KnownMotionsAreMeasured) {
    const struct {
        int64_t h, w;
        float dx, dy, degrees;
        unsigned seed;
        int64_t margin;  // pixels left out at each edge
        double within;  // mean EPE, pixels
    } cases[] = {
        {kH, kW, 0.5f, 0.0f, 0, 7, 9, 0.5},    {kH, kW, 0.0f, -0.25f, 0, 7, 9, 0.5}, {kH, kW, 2.3f, -1.7f, 0, 7, 11, 0.5},
        {kH, kW, 5.0f, 3.0f, 0, 7, 13, 0.5},   {kH, kW, 8.0f, -8.0f, 0, 7, 16, 0.5}, {kH, kW, -13.6f, 6.2f, 0, 7, 22, 0.5},
        {kH, kW, 21.0f, -4.5f, 0, 7, 29, 0.5}, {kH, kW, 0, 0, 2.0f, 11, 16, 0.6},    {kH, kW, 0, 0, -3.0f, 11, 16, 0.6},
        {151, 203, 3.2f, -2.1f, 0, 29, 12, 0.5}, {384, 384, 3.2f, -2.1f, 0, 29, 12, 0.5},
        {48, 64, 3.2f, -2.1f, 0, 29, 12, 0.5},   {16, 17, 3.2f, -2.1f, 0, 29, 4, 1.0},
    };
    for (const auto& k : cases) {
        const Texture tex(k.seed);
        const float a = k.degrees * 3.14159265f / 180.0f, c = std::cos(a), s = std::sin(a);
        const float cx = float(k.w) / 2, cy = float(k.h) / 2;
        // The point at p moves to R (p - centre) + centre + d: image1(q) = texture(R^-1 (q - centre - d) + centre).
        const Tensor first = planar(k.h, k.w, tex.picture(k.h, k.w, [](float x, float y) { return std::pair{x, y}; }));
        const Tensor second = planar(k.h, k.w, tex.picture(k.h, k.w, [&](float x, float y) {
            const float u = x - cx - k.dx, v = y - cy - k.dy;
            return std::pair{c * u + s * v + cx, -s * u + c * v + cy};
        }));
        const double epe = meanEpe(runFlow(first, second), [&](float x, float y) {
            return std::pair{c * (x - cx) - s * (y - cy) + cx + k.dx - x, s * (x - cx) + c * (y - cy) + cy + k.dy - y};
        }, k.margin);
        EXPECT_LT(epe, k.within) << k.h << "x" << k.w << " shift " << k.dx << ", " << k.dy << " rotation " << k.degrees;
    }
}

TEST(FlowStandIn, ScaleMultipliesEachComponent) {
    const Texture tex(3);
    const Tensor a = planar(kH, kW, tex.picture(kH, kW, [](float x, float y) { return std::pair{x, y}; }));
    const Tensor b = planar(kH, kW, tex.picture(kH, kW, [](float x, float y) { return std::pair{x - 3.0f, y + 1.5f}; }));
    const Tensor plain = runFlow(a, b);
    const size_t plane = static_cast<size_t>(kH * kW);
    for (const auto& [sx, sy] : {std::pair{2.0f, 3.0f}, {0.5f, -1.0f}}) {
        const Tensor scaled = runFlow(a, b, sx, sy);
        for (size_t i = 0; i < plane; i += 997) {
            EXPECT_NEAR(scaled.values[i], sx * plain.values[i], 1e-4f) << i;
            EXPECT_NEAR(scaled.values[plane + i], sy * plain.values[plane + i], 1e-4f) << i;
        }
    }
    // The unscaled flow is the motion, so the scaled one is not just the scale.
    EXPECT_NEAR(plain.values[plane / 2 + kW / 2], 3.0f, 0.3f);
}

TEST(FlowStandIn, RealFootageGivesVariedPlausibleFlowAndColours) {
    Network viz = packageNetwork("flow_viz-288x512");
    const size_t plane = static_cast<size_t>(kH * kW);
    for (const std::string name : {"rubberwhale", "basketball"}) {
        SCOPED_TRACE(name);
        const Tensor a = readResized(name + "1.png"), b = readResized(name + "2.png"), f = runFlow(a, b);
        float largest = 0;
        for (float v : f.values) {
            ASSERT_TRUE(std::isfinite(v));
            largest = std::max(largest, std::fabs(v));
        }
        EXPECT_LT(largest, 40.0f);
        EXPECT_GT(stddev(f.values, 0, plane) + stddev(f.values, plane, plane), 0.2);
        // The pair, warped by the flow, matches better than without it.
        double still = 0, moved = 0;
        for (int64_t c = 0; c < 3; ++c)
            for (int64_t y = 0; y < kH; ++y)
                for (int64_t x = 0; x < kW; ++x) {
                    const int64_t qx = std::clamp<int64_t>(std::lround(x + pixel(f, 0, y, x)), 0, kW - 1);
                    const int64_t qy = std::clamp<int64_t>(std::lround(y + pixel(f, 1, y, x)), 0, kH - 1);
                    still += std::fabs(pixel(b, c, y, x) - pixel(a, c, y, x));
                    moved += std::fabs(pixel(b, c, qy, qx) - pixel(a, c, y, x));
                }
        EXPECT_LT(moved, 0.85 * still);

        const Tensor color = viz.run1({f});
        ASSERT_EQ(color.shape, (std::vector<int64_t>{1, 3, kH, kW}));
        for (float v : color.values) ASSERT_TRUE(v >= 0.0f && v <= 1.0f) << v;
        EXPECT_GT(stddev(color.values, 0, plane) + stddev(color.values, plane, plane) +
                      stddev(color.values, 2 * plane, plane),
                  0.05);
    }
}

TEST(FlowStandIn, FlatPicturesGiveNoMotion) {
    // Nothing to follow: the damping keeps the solve finite and the flow at zero, also for two
    // different levels (a change of brightness is no motion).
    const struct {
        float first, second;
    } cases[] = {{0.5f, 0.5f}, {0.0f, 0.0f}, {0.3f, 0.6f}};
    const size_t n = static_cast<size_t>(3 * kH * kW);
    for (const auto& k : cases) {
        const Tensor f = runFlow(planar(kH, kW, std::vector<float>(n, k.first)), planar(kH, kW, std::vector<float>(n, k.second)));
        for (float v : f.values) ASSERT_LT(std::fabs(v), 1e-3f) << k.first << " " << k.second;  // NaN fails too
    }
}

TEST(FlowViz, DirectionIsHueAndLengthIsSaturation) {
    // One pixel per case, the rest still; the field's longest vector has length 4.
    const struct {
        float u, v;
        float r, g, b;
    } cases[] = {
        {4, 0, 1, 0, 0},                         // +x: red
        {-4, 0, 0, 1, 1},                        // -x: cyan
        {4 * -0.5f, 4 * 0.8660254f, 0, 1, 0},    // 120 degrees (+y is down): green
        {4 * -0.5f, 4 * -0.8660254f, 0, 0, 1},   // 240 degrees: blue
        {2, 0, 1, 0.5f, 0.5f},                   // half the longest: half saturated
        {0, 0, 1, 1, 1},                         // still: white
    };
    Network viz = packageNetwork("flow_viz-288x512");
    const size_t plane = static_cast<size_t>(kH * kW);
    std::vector<float> field(2 * plane, 0.0f);
    for (size_t k = 0; k < std::size(cases); ++k) {
        field[k * 10] = cases[k].u;
        field[plane + k * 10] = cases[k].v;
    }
    const Tensor color = viz.run1({makeTensor(ML::F32, {1, 2, kH, kW}, field)});
    for (size_t k = 0; k < std::size(cases); ++k) {
        SCOPED_TRACE(k);
        EXPECT_NEAR(color.values[k * 10], cases[k].r, 1e-3f);
        EXPECT_NEAR(color.values[plane + k * 10], cases[k].g, 1e-3f);
        EXPECT_NEAR(color.values[2 * plane + k * 10], cases[k].b, 1e-3f);
    }
}

TEST(FlowMax, LargestMagnitudeOfEachComponent) {
    const struct {
        int64_t h, w;
        std::vector<float> values;
        float mx, my;
    } cases[] = {
        {1, 3, {1, -5, 2, 0.5f, 0.25f, -0.75f}, 5, 0.75f},
        {2, 2, {0, 0, 0, 0, -1, 3, -2, 2.5f}, 0, 3},
        {288, 512, {}, 17, 9},
    };
    Network net = packageNetwork("flow_max");
    for (const auto& k : cases) {
        std::vector<float> v = k.values;
        if (v.empty()) {
            v = randomValues(static_cast<size_t>(2 * k.h * k.w), 5, -8.0f, 8.0f);
            v[1234] = -17.0f;
            v[v.size() - 7] = 9.0f;
        }
        const Tensor m = net.run1({makeTensor(ML::F32, {1, 2, k.h, k.w}, v)});
        ASSERT_EQ(m.shape, (std::vector<int64_t>{1, 2, 1, 1}));
        EXPECT_FLOAT_EQ(m.values[0], k.mx) << k.h << "x" << k.w;
        EXPECT_FLOAT_EQ(m.values[1], k.my) << k.h << "x" << k.w;
    }
}

namespace {

// A textured green-blue background, and a textured red square of side 64 with its top left
// corner at (x0, y0).
std::vector<float> squareScene(const Texture& tex, float x0, float y0) {
    std::vector<float> v(static_cast<size_t>(3 * kT * kT));
    for (int64_t y = 0; y < kT; ++y)
        for (int64_t x = 0; x < kT; ++x) {
            const bool inside = x >= x0 && x < x0 + 64 && y >= y0 && y < y0 + 64;
            const float sx = inside ? x - x0 : float(x), sy = inside ? y - y0 : float(y);
            const float t0 = tex.at(0, sx, sy), t1 = tex.at(1, sx, sy), t2 = tex.at(2, sx, sy);
            const float px[3] = {inside ? 0.6f + 0.4f * t0 : 0.3f * t0, inside ? 0.3f * t1 : 0.4f + 0.5f * t1,
                                 inside ? 0.3f * t2 : 0.3f + 0.5f * t2};
            for (int c = 0; c < 3; ++c) v[static_cast<size_t>((c * kT + y) * kT + x)] = px[c];
        }
    return v;
}

// The centroid and the count of the pixels whose red exceeds green by 0.2.
struct Red {
    double x = 0, y = 0, count = 0;
};
Red red(const Tensor& t) {
    Red r;
    for (int64_t y = 0; y < kT; ++y)
        for (int64_t x = 0; x < kT; ++x)
            if (pixel(t, 0, y, x) > pixel(t, 1, y, x) + 0.2f) r.x += double(x), r.y += double(y), r.count += 1;
    return {r.x / r.count, r.y / r.count, r.count};
}

// The mean absolute difference over the rows y0..y1 and columns x0..x1 (inclusive) of all channels.
double meanAbsIn(const std::vector<float>& a, const std::vector<float>& b, int64_t x0, int64_t y0, int64_t x1,
                 int64_t y1) {
    double s = 0;
    size_t n = 0;
    for (int64_t c = 0; c < 3; ++c)
        for (int64_t y = y0; y <= y1; ++y)
            for (int64_t x = x0; x <= x1; ++x, ++n) {
                const size_t i = static_cast<size_t>((c * kT + y) * kT + x);
                s += std::fabs(double(a[i]) - b[i]);
            }
    return s / double(n);
}

}  // namespace

TEST(RetimeStandIn, MovingSquareLandsBetweenItsPlaces) {
    const Texture tex(19);
    const struct {
        float dx, dy;
    } moves[] = {{12, 0}, {-8, 10}};
    Network net = packageNetwork("retiming_standin");
    for (const auto& m : moves) {
        SCOPED_TRACE(std::to_string(m.dx) + ", " + std::to_string(m.dy));
        const float x0 = 150, y0 = 140;
        const Tensor a = planar(kT, kT, squareScene(tex, x0, y0)), b = planar(kT, kT, squareScene(tex, x0 + m.dx, y0 + m.dy));
        const Red ra = red(a), rb = red(b);
        const struct {
            float t;
            const Tensor* same;  // the input it should reproduce
        } times[] = {{0.0f, &a}, {0.5f, nullptr}, {1.0f, &b}, {0.25f, nullptr}};
        for (const auto& k : times) {
            const Tensor out = net.run1({a, b, makeTensor(ML::F32, {1, 1}, {k.t})});
            ASSERT_EQ(out.shape, (std::vector<int64_t>{1, 3, kT, kT}));
            const Red got = red(out);
            const Tensor truth = planar(kT, kT, squareScene(tex, x0 + k.t * m.dx, y0 + k.t * m.dy));
            EXPECT_NEAR(got.x, ra.x + k.t * (rb.x - ra.x), 1.0) << k.t;
            EXPECT_NEAR(got.y, ra.y + k.t * (rb.y - ra.y), 1.0) << k.t;
            if (k.same) {
                EXPECT_LT(meanAbsIn(out.values, k.same->values, 0, 0, kT - 1, kT - 1), 1e-4) << k.t;
                continue;
            }
            // Around the square, against the moved scene and against a cross-fade of the inputs
            // (which has the right centre too, but a shorter square and ghosts on both sides).
            std::vector<float> fade(a.values.size());
            for (size_t i = 0; i < fade.size(); ++i) fade[i] = (1 - k.t) * a.values[i] + k.t * b.values[i];
            const int64_t bx0 = int64_t(x0 + std::min(0.0f, m.dx)) - 16, by0 = int64_t(y0 + std::min(0.0f, m.dy)) - 16;
            const int64_t bx1 = int64_t(x0 + std::max(0.0f, m.dx)) + 80, by1 = int64_t(y0 + std::max(0.0f, m.dy)) + 80;
            const double near = meanAbsIn(out.values, truth.values, bx0, by0, bx1, by1);
            const double faded = meanAbsIn(fade, truth.values, bx0, by0, bx1, by1);
            EXPECT_LT(near, 0.4 * faded) << k.t;
            EXPECT_NEAR(got.count, 64.0 * 64.0, 0.03 * 64 * 64) << k.t;
        }
    }
}

TEST(Blend, AddsTheWeightedResult) {
    const size_t plane = static_cast<size_t>(kT * kT);
    const Tensor sum = planar(kT, kT, randomValues(3 * plane, 23)), result = planar(kT, kT, randomValues(3 * plane, 24));
    const Tensor wy = makeTensor(ML::F32, {1, 1, kT, 1}, randomValues(kT, 25)),
                 wx = makeTensor(ML::F32, {1, 1, 1, kT}, randomValues(kT, 26));
    const Tensor out = packageNetwork("imgcvt/blend_F32_1x3x384x384").run1({sum, result, wy, wx});
    ASSERT_EQ(out.shape, sum.shape);
    for (size_t i = 0; i < out.values.size(); i += 13) {
        const size_t y = (i % plane) / kT, x = i % kT;
        EXPECT_NEAR(out.values[i], sum.values[i] + result.values[i] * wy.values[y] * wx.values[x], 1e-5f) << i;
    }
}
