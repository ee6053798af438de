// The depth stand-in networks of the default package.
#include <gtest/gtest.h>

#include <cmath>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

constexpr int64_t kTile = 256;

float jet(float d, int channel) {
    d = std::fmin(std::fmax(d, 0.0f), 1.0f);
    return std::fmin(std::fmax(1.5f - std::fabs(4.0f * d - static_cast<float>(3 - channel)), 0.0f), 1.0f);
}

}  // namespace

TEST(DepthStandIn, DepthIsOneMinusLuminance) {
    Network net(packageModelFolder() / "depth_standin.onnx");
    ASSERT_EQ(net.inputCount(), 1u);
    ASSERT_EQ(net.outputCount(), 1u);
    Tensor x = makeTensor(ML::F16, {1, 3, kTile, kTile});
    std::mt19937 rng(13);
    fillRandom(x, rng);
    const Tensor d = net.run({x}).at(0);
    ASSERT_EQ(d.type, ML::F16);
    ASSERT_EQ(d.shape, (std::vector<int64_t>{1, 1, kTile, kTile}));
    const size_t plane = static_cast<size_t>(kTile * kTile);
    float worst = 0;
    for (size_t i = 0; i < plane; ++i) {
        const float luma = 0.2126f * x.get(i) + 0.7152f * x.get(plane + i) + 0.0722f * x.get(2 * plane + i);
        worst = std::fmax(worst, std::fabs(d.get(i) - (1.0f - luma)));
    }
    EXPECT_LE(worst, 1e-3f);
}

TEST(DepthStandIn, ColorizeIsAJetRamp) {
    Network net(packageModelFolder() / "depth_standin_colorize.onnx");
    Tensor d = makeTensor(ML::F16, {1, 1, kTile, kTile});
    const size_t plane = static_cast<size_t>(kTile * kTile);
    for (size_t i = 0; i < plane; ++i) d.set(i, -0.2f + 1.4f * static_cast<float>(i) / static_cast<float>(plane));
    const Tensor rgb = net.run({d}).at(0);
    ASSERT_EQ(rgb.shape, (std::vector<int64_t>{1, 3, kTile, kTile}));
    float worst = 0;
    for (int c = 0; c < 3; ++c)
        for (size_t i = 0; i < plane; ++i) worst = std::fmax(worst, std::fabs(rgb.get(c * plane + i) - jet(d.get(i), c)));
    EXPECT_LE(worst, 1e-3f);
    // Near is red, far is blue, the middle green.
    EXPECT_EQ(jet(0.0f, 2), 0.5f);
    EXPECT_EQ(jet(0.5f, 1), 1.0f);
    EXPECT_EQ(jet(1.0f, 0), 0.5f);
}
