// The resize networks in both forms (fused and portable): bilinear with half-pixel centres, batch
// and channels kept; a known answer, and the two forms against each other on odd sizes up and down.
#include <gtest/gtest.h>

#include <cmath>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

std::string resizeName(ML::u32 type, bool chw) {
    return std::string("resize_") + (type == ML::U8 ? "U8" : type == ML::F16 ? "F16" : "F32") + (chw ? "_CHW" : "_HWC");
}

std::vector<int64_t> imageShape(bool chw, int64_t n, int64_t c, int64_t h, int64_t w) {
    return chw ? std::vector<int64_t>{n, c, h, w} : std::vector<int64_t>{n, h, w, c};
}

}  // namespace

TEST(ResizeNetworks, HalfPixelBilinearKnownAnswer) {
    // Two images of three 2x2 channels, 8 * row + 4 * column + 50 * channel + 20 * image, grow to
    // 4 rows and 3 columns: rows sample the source at 0, 0.25, 0.75 and 1, columns at 0, 0.5 and 1.
    // The target's batch and channel extents are ignored.
    const float rows[] = {0, 2, 6, 8}, cols[] = {0, 2, 4};
    for (const PackageForm& form : packageForms())
        for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
            for (bool chw : {false, true}) {
                const std::string name = resizeName(type, chw);
                auto at = [&](int64_t h, int64_t w, int64_t n, int64_t c, int64_t y, int64_t x) {
                    return static_cast<size_t>(chw ? ((n * 3 + c) * h + y) * w + x : ((n * h + y) * w + x) * 3 + c);
                };
                Tensor src = makeTensor(type, imageShape(chw, 2, 3, 2, 2));
                Tensor want = makeTensor(type, imageShape(chw, 2, 3, 4, 3));
                for (int64_t n = 0; n < 2; ++n)
                    for (int64_t c = 0; c < 3; ++c) {
                        const float base = static_cast<float>(50 * c + 20 * n);
                        for (int64_t y = 0; y < 2; ++y)
                            for (int64_t x = 0; x < 2; ++x) src.values[at(2, 2, n, c, y, x)] = base + 8.0f * y + 4.0f * x;
                        for (int64_t y = 0; y < 4; ++y)
                            for (int64_t x = 0; x < 3; ++x) want.values[at(4, 3, n, c, y, x)] = base + rows[y] + cols[x];
                    }
                const Tensor got = Network(form.models / "imgcvt" / (name + ".onnx"))
                                       .run1({src, makeTensor(ML::I64, {4}, {1, 1, 4, 3})});
                EXPECT_EQ(got.type, type) << form.name << " " << name;
                EXPECT_EQ(got.shape, want.shape) << form.name << " " << name;
                EXPECT_EQ(got.values, want.values) << form.name << " " << name;
            }
}

// Each row: channels, source and target size. Values spread over the type's range; the forms
// round differently inside (ONNX Runtime weighs the four neighbours at once, the fused kernel
// blends rows of a horizontal pass), so they agree to one U8 step, F16 rounding or a few F32 ulps.
TEST(ResizeNetworks, FusedAndPortableFormsAgree) {
    struct Row {
        int64_t n, c, h, w, outH, outW;
    };
    const Row rows[] = {{2, 3, 7, 37, 19, 11}, {1, 4, 31, 29, 64, 90}, {1, 1, 135, 241, 67, 517}, {1, 2, 1, 1, 3, 5}};
    const std::vector<PackageForm> forms = packageForms();
    for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
        for (bool chw : {false, true})
            for (const Row& r : rows) {
                const std::string what = resizeName(type, chw) + " " + std::to_string(r.h) + "x" + std::to_string(r.w) +
                                         " to " + std::to_string(r.outH) + "x" + std::to_string(r.outW);
                Tensor src = makeTensor(type, imageShape(chw, r.n, r.c, r.h, r.w));
                uint32_t state = 99;
                for (float& v : src.values) {
                    state = state * 1664525u + 1013904223u;
                    v = type == ML::U8 ? static_cast<float>(state >> 24) : static_cast<float>(state >> 8) / 16777216.0f * 1.4f - 0.2f;
                }
                src = makeTensor(type, src.shape, src.values);
                const Tensor target = makeTensor(ML::I64, {4}, {1, 1, static_cast<float>(r.outH), static_cast<float>(r.outW)});
                const Tensor fused = Network(forms[0].models / "imgcvt" / (resizeName(type, chw) + ".onnx")).run1({src, target});
                const Tensor portable =
                    Network(forms[1].models / "imgcvt" / (resizeName(type, chw) + ".onnx")).run1({src, target});
                ASSERT_EQ(fused.shape, portable.shape) << what;
                ASSERT_EQ(fused.shape, imageShape(chw, r.n, r.c, r.outH, r.outW)) << what;
                for (size_t i = 0; i < fused.values.size(); ++i) {
                    const float a = fused.values[i], b = portable.values[i];
                    const float tolerance =
                        type == ML::U8 ? 1.0f : (type == ML::F16 ? 1e-3f : 1e-5f) * std::max(1.0f, std::fabs(b));
                    if (!(std::fabs(a - b) <= tolerance)) {
                        ADD_FAILURE() << what << " element " << i << ": fused " << a << ", portable " << b;
                        break;
                    }
                }
            }
}
