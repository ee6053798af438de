// The denoiser stand-in's two stages, run with ONNX Runtime on synthetic footage: moving objects
// leave no ghosts, HDR values pass through, any tile size works. (That the two stages together
// take the noise down is checked end to end in tests/denoise.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

constexpr float kSigma = 0.05f;  // camera noise of 8-bit footage
constexpr float kAny = -1000.0f;  // no requirement

// A smooth, varied RGB scene in about 0.15..0.85 (1x3xHxW values, unrounded).
std::vector<float> texturedScene(int64_t h, int64_t w) {
    std::vector<float> v;
    for (int64_t c = 0; c < 3; ++c)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x)
                v.push_back(0.5f + 0.2f * std::sin(0.35f * x + 0.9f * c) * std::cos(0.27f * y - 0.5f * c) +
                            0.15f * std::sin(0.11f * (x + y) + c));
    return v;
}

std::vector<float> withNoise(std::vector<float> v, float sigma, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> n(0.0f, sigma);
    for (float& x : v) x += n(rng);
    return v;
}

Tensor frame(int64_t h, int64_t w, std::vector<float> v) { return planar(h, w, std::move(v), ML::F16); }

// Runs a stage on three frames with a uniform noise level.
Tensor runStage(int stage, const Tensor& f0, const Tensor& f1, const Tensor& f2, float noise = 1.0f) {
    const int64_t h = f1.shape[2], w = f1.shape[3];
    const Tensor level = makeTensor(ML::F16, {1, 1, h, w}, std::vector<float>(static_cast<size_t>(h * w), noise));
    const Tensor out = packageNetwork("denoiser_standin_stage" + std::to_string(stage)).run1({f0, f1, f2, level});
    EXPECT_EQ(out.shape, f1.shape) << "stage " << stage;
    return out;
}

double psnr(const std::vector<float>& a, const std::vector<float>& clean) {
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i) se += (double(a[i]) - clean[i]) * (double(a[i]) - clean[i]);
    return 10 * std::log10(1.0 / (se / static_cast<double>(a.size())));
}

}  // namespace

TEST(DenoiserStandIn, EachStageKeepsMotionHdrAndAnySize) {
    struct Inputs {
        int64_t h, w;
        std::vector<float> frames[3];
        std::vector<float> reference;  // what the output should be close to: the clean centre frame
        float noise = 1.0f;
    };
    // A 16 px square of 0.95 on a dim textured background, 12 px further right in each frame.
    auto movingSquare = [](int64_t h, int64_t w) {
        Inputs in{h, w, {}, {}};
        for (int i = 0; i < 3; ++i) {
            std::vector<float> v = texturedScene(h, w);
            for (float& x : v) x = 0.1f + 0.3f * x;
            for (int64_t c = 0; c < 3; ++c)
                for (int64_t y = 24; y < 40; ++y)
                    for (int64_t x = 12 + 12 * i; x < 28 + 12 * i; ++x) v[static_cast<size_t>((c * h + y) * w + x)] = 0.95f;
            in.frames[i] = v;
        }
        in.reference = in.frames[1];
        return in;
    };
    auto noisyStill = [](float scale, float offset) {
        return [=](int64_t h, int64_t w) {
            Inputs in{h, w, {}, {}};
            in.reference = texturedScene(h, w);
            for (float& x : in.reference) x = scale * x + offset;
            for (unsigned i = 0; i < 3; ++i) in.frames[i] = withNoise(in.reference, kSigma, 7 + i);
            return in;
        };
    };
    // Flat 0.5 with neighbours 0.01 brighter: within the noise allowance, so at noise 1 they
    // count nearly fully and pull the output at least two thirds of the way to 0.51; at noise 0
    // only an exact match would count, so the output stays 0.5.
    auto slightlyBrighterNeighbours = [](float noise) {
        return [=](int64_t h, int64_t w) {
            Inputs in{h, w, {}, {}, noise};
            const std::vector<float> mid(static_cast<size_t>(3 * h * w), 0.5f), side(mid.size(), 0.51f);
            in.frames[0] = in.frames[2] = side;
            in.frames[1] = mid;
            in.reference = noise > 0 ? side : mid;
            return in;
        };
    };

    // Three identical frames at noise 0: the neighbours match exactly and count fully (no 0 / 0).
    auto identicalAtNoiseZero = [](int64_t h, int64_t w) {
        Inputs in{h, w, {}, texturedScene(h, w), 0.0f};
        in.frames[0] = in.frames[1] = in.frames[2] = in.reference;
        return in;
    };

    // Positions near the square's places in the neighbour frames, away from its own edges.
    auto nearNeighbourSquares = [](int64_t y, int64_t x) {
        const bool nearOther = y >= 21 && y < 43 && ((x >= 9 && x < 31) || (x >= 33 && x < 55));
        const bool nearOwn = y >= 22 && y < 42 && x >= 22 && x < 42;
        return nearOther && !nearOwn;
    };
    auto everywhere = [](int64_t, int64_t) { return true; };

    const struct {
        const char* name;
        int64_t h, w;
        std::function<Inputs(int64_t, int64_t)> make;
        std::function<bool(int64_t, int64_t)> region;  // where maxError applies
        float maxError;                                // vs the reference
        double minGain;                                // PSNR over the centre frame's, dB (kAny: none)
        float reachBelow, reachAbove;                  // the output's range must reach these
    } cases[] = {
        // Any ghost of the bright square (0.95 on about 0.25) would show as a large error.
        {"moving square", 64, 64, movingSquare, nearNeighbourSquares, 0.04f, kAny, kAny, 0.9f},
        // Scene x4 - 0.8: values from about -0.2 to 2.6 pass through unclipped.
        {"HDR x4 still", 48, 64, noisyStill(4.0f, -0.8f), everywhere, 0.3f, 3.0, -0.1f, 2.4f},
        {"odd size 37x53", 37, 53, noisyStill(1.0f, 0.0f), everywhere, 0.2f, 3.0, kAny, kAny},
        {"smallest tile 8x8", 8, 8, noisyStill(1.0f, 0.0f), everywhere, 0.2f, 1.0, kAny, kAny},
        {"noise 1 admits near neighbours", 16, 24, slightlyBrighterNeighbours(1.0f), everywhere, 0.005f, kAny, kAny, kAny},
        {"noise 0 admits only exact matches", 16, 24, slightlyBrighterNeighbours(0.0f), everywhere, 0.001f, kAny, kAny, kAny},
        {"noise 0 on identical frames", 16, 24, identicalAtNoiseZero, everywhere, 0.02f, kAny, kAny, kAny},
    };
    for (int stage : {1, 2})
        for (const auto& c : cases) {
            SCOPED_TRACE(std::string(c.name) + ", stage " + std::to_string(stage));
            const Inputs in = c.make(c.h, c.w);
            const Tensor centre = frame(c.h, c.w, in.frames[1]);
            const Tensor out = runStage(stage, frame(c.h, c.w, in.frames[0]), centre, frame(c.h, c.w, in.frames[2]), in.noise);
            if (out.shape != centre.shape) continue;
            float worst = 0;
            for (int64_t ch = 0; ch < 3; ++ch)
                for (int64_t y = 0; y < c.h; ++y)
                    for (int64_t x = 0; x < c.w; ++x) {
                        const size_t i = static_cast<size_t>((ch * c.h + y) * c.w + x);
                        ASSERT_TRUE(std::isfinite(out.values[i])) << y << ", " << x;
                        if (c.region(y, x)) worst = std::max(worst, std::fabs(out.values[i] - in.reference[i]));
                    }
            EXPECT_LT(worst, c.maxError);
            const double gain = psnr(out.values, in.reference) - psnr(centre.values, in.reference);
            EXPECT_TRUE(c.minGain == kAny || gain > c.minGain) << "PSNR gain " << gain;
            const auto [lo, hi] = std::minmax_element(out.values.begin(), out.values.end());
            EXPECT_TRUE(c.reachBelow == kAny || *lo <= c.reachBelow) << "lowest " << *lo;
            EXPECT_TRUE(c.reachAbove == kAny || *hi >= c.reachAbove) << "highest " << *hi;
        }
}
