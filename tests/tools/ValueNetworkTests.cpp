// The sampler networks against the mapping worked out here: the fixed-size one for a batch of two
// and the package's dynamic one. (The normaliser, gamma and statistics networks, and the
// fixed-size sampler for one image, plain and split, are checked through the plug-in's helpers in
// tests/denoise and tests/upres.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "ToolTestUtil.h"

using namespace tooltest;

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

// The fixed-size sampler for two images, as the command line writes it (the plug-in's tests only
// use one image).
TEST(FixedSizeSampler, KnownAnswersForEachImageOfTheBatch) {
    TempDir dir;
    ASSERT_EQ(runPkg("sampler \"" + dir.path().string() + "\" --type F16 --type F32 --size 2x6x10").code, 0);
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
        const std::string name = type == ML::F16 ? "F16" : "F32";
        Network net(dir.path() / ("upres_sampler_" + name + "_2x6x10.onnx"));
        Tensor src = makeTensor(type, {2, 1, 6, 10});
        for (size_t i = 0; i < 120; ++i) src.values[i] = static_cast<float>(4 * (i % 10) + 40 * (i / 10 % 6) + i / 60);
        for (const auto& c : cases) {
            std::vector<float> want;
            for (int i = 0; i < 120; ++i) want.push_back(c.value(i / 10 % 6, i % 10) + static_cast<float>(i / 60));
            EXPECT_EQ(net.run1({src, makeTensor(ML::F32, {1, 7, 1, 1}, c.params)}).values, want)
                << name << " scale " << c.params[6];
        }
    }
}

TEST(DynamicSampler, MatchesTheReference) {
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
        const std::string name = type == ML::F16 ? "F16" : "F32";
        Network dynamic(packageModelFolder() / ("upres_sampler_dynamic_" + name + ".onnx"));
        Tensor src = makeTensor(type, {1, 3, hs, ws});
        for (size_t i = 0; i < src.values.size(); ++i) src.values[i] = static_cast<float>((i * 37) % 101) / 100.0f;
        src = makeTensor(type, src.shape, src.values);
        for (const auto& c : cases) {
            const std::string what = name + " scale " + std::to_string(c.params[6]);
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
            ASSERT_EQ(got.values.size(), want.size()) << what;
            for (size_t i = 0; i < want.size(); ++i)
                EXPECT_NEAR(got.values[i], want[i], type == ML::F16 ? 1e-3f : 1e-5f) << what << " element " << i;
        }
    }
}
