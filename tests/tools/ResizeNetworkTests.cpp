// The resize networks: bilinear with half-pixel centres, batch and channels kept.
#include <gtest/gtest.h>

#include "ToolTestUtil.h"

using namespace tooltest;

TEST(ResizeNetworks, HalfPixelBilinearKnownAnswer) {
    // Two images of three 2x2 channels, 8 * row + 4 * column + 50 * channel + 20 * image, grow to
    // 4 rows and 3 columns: rows sample the source at 0, 0.25, 0.75 and 1, columns at 0, 0.5 and 1.
    // The target's batch and channel extents are ignored.
    const float rows[] = {0, 2, 6, 8}, cols[] = {0, 2, 4};
    for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
        for (bool chw : {false, true}) {
            const std::string name = std::string("resize_") + (type == ML::U8 ? "U8" : type == ML::F16 ? "F16" : "F32") +
                                     (chw ? "_CHW" : "_HWC");
            auto shape = [&](int64_t h, int64_t w) {
                return chw ? std::vector<int64_t>{2, 3, h, w} : std::vector<int64_t>{2, h, w, 3};
            };
            auto at = [&](int64_t h, int64_t w, int64_t n, int64_t c, int64_t y, int64_t x) {
                return static_cast<size_t>(chw ? ((n * 3 + c) * h + y) * w + x : ((n * h + y) * w + x) * 3 + c);
            };
            Tensor src = makeTensor(type, shape(2, 2));
            Tensor want = makeTensor(type, shape(4, 3));
            for (int64_t n = 0; n < 2; ++n)
                for (int64_t c = 0; c < 3; ++c) {
                    const float base = static_cast<float>(50 * c + 20 * n);
                    for (int64_t y = 0; y < 2; ++y)
                        for (int64_t x = 0; x < 2; ++x) src.values[at(2, 2, n, c, y, x)] = base + 8.0f * y + 4.0f * x;
                    for (int64_t y = 0; y < 4; ++y)
                        for (int64_t x = 0; x < 3; ++x) want.values[at(4, 3, n, c, y, x)] = base + rows[y] + cols[x];
                }
            const Tensor got = Network(packageModelFolder() / "imgcvt" / (name + ".onnx"))
                                   .run1({src, makeTensor(ML::I64, {4}, {1, 1, 4, 3})});
            EXPECT_EQ(got.type, type) << name;
            EXPECT_EQ(got.shape, want.shape) << name;
            EXPECT_EQ(got.values, want.values) << name;
        }
}
