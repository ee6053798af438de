// The depth stand-in networks of the default package.
#include <gtest/gtest.h>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {
constexpr int64_t kTile = 256, kPlane = kTile * kTile;
}  // namespace

TEST(DepthStandIn, DepthIsOneMinusLuminanceAndColorizeIsAJetRamp) {
    // Depth: the first pixels are red, green, blue and grey; the rest black.
    Tensor rgb = makeTensor(ML::F16, {1, 3, kTile, kTile});
    for (int c = 0; c < 3; ++c) {
        rgb.values[static_cast<size_t>(c * kPlane + c)] = 1.0f;
        rgb.values[static_cast<size_t>(c * kPlane + 3)] = 0.5f;
    }
    const Tensor depth = Network(packageModelFolder() / "depth_standin.onnx").run1({rgb});
    ASSERT_EQ(depth.shape, (std::vector<int64_t>{1, 1, kTile, kTile}));
    const float want[] = {1 - 0.2126f, 1 - 0.7152f, 1 - 0.0722f, 0.5f, 1.0f};
    for (size_t i = 0; i < 5; ++i) EXPECT_NEAR(depth.values[i], want[i], 1e-3f) << i;

    // Colorize: near is dark blue, far dark red, clamped outside 0..1.
    Tensor d = makeTensor(ML::F16, {1, 1, kTile, kTile});
    const std::vector<float> depths{-0.2f, 0.25f, 0.5f, 0.75f, 1.2f};
    const float colours[3][5] = {{0, 0, 0.5f, 1, 0.5f}, {0, 0.5f, 1, 0.5f, 0}, {0.5f, 1, 0.5f, 0, 0}};
    std::copy(depths.begin(), depths.end(), d.values.begin());
    const Tensor colour = Network(packageModelFolder() / "depth_standin_colorize.onnx").run1({d});
    ASSERT_EQ(colour.shape, (std::vector<int64_t>{1, 3, kTile, kTile}));
    for (int c = 0; c < 3; ++c)
        for (size_t i = 0; i < depths.size(); ++i)
            EXPECT_EQ(colour.values[static_cast<size_t>(c * kPlane) + i], colours[c][i]) << c << ", " << depths[i];
}
