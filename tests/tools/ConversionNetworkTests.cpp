// The format conversion networks, both forms: the default package's fused ones (one operator the
// ort backends run) and the portable ones of standard operators, every pair with a known answer,
// and the two forms against each other on sizes that take every path of the fused kernels.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

struct Format {
    bool chw;
    ML::u32 type;
    std::string channels;  // channel names in memory order
};

std::string key(const Format& f) {
    return std::string(f.chw ? "CHW-" : "HWC-") + (f.type == ML::U8 ? "U8-" : f.type == ML::F16 ? "F16-" : "F32-") +
           f.channels;
}

fs::path networkPath(const fs::path& folder, const std::string& from, const std::string& to) {
    return folder / "imgcvt" / (from + "_TO_" + to + ".onnx");
}

std::vector<Format> allFormats() {
    std::vector<Format> formats;
    for (bool chw : {false, true})
        for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
            for (const char* ch : {"RGB", "RGBA", "R", "RG", "ARGB", "BGR"}) formats.push_back({chw, type, ch});
    return formats;
}

// Two images of 2 rows and 3 columns.
constexpr int64_t kN = 2, kH = 2, kW = 3;

// A distinct whole number of 1..236 for every image, row, column and channel name; the pixel
// value is that number / 255.
float code(int64_t n, int64_t y, int64_t x, char channel) {
    return static_cast<float>(1 + (((n * kH + y) * kW + x) * 4 + std::string("RGBA").find(channel)) * 5);
}

// A destination channel takes its own channel of the source; else alpha is opaque; else a grey
// (R only) source repeats R; else 0.
float expectedCode(const std::string& from, int64_t n, int64_t y, int64_t x, char channel) {
    if (from.find(channel) != std::string::npos) return code(n, y, x, channel);
    if (channel == 'A') return 255.0f;
    return from == "R" ? code(n, y, x, 'R') : 0.0f;
}

// An image of the format whose every element is codeOf(n, y, x, channel) in the format's units.
template <class F>
Tensor image(const Format& f, F codeOf) {
    const int64_t c = static_cast<int64_t>(f.channels.size());
    Tensor t = makeTensor(f.type, f.chw ? std::vector<int64_t>{kN, c, kH, kW} : std::vector<int64_t>{kN, kH, kW, c});
    for (int64_t n = 0; n < kN; ++n)
        for (int64_t y = 0; y < kH; ++y)
            for (int64_t x = 0; x < kW; ++x)
                for (int64_t i = 0; i < c; ++i) {
                    const float k = codeOf(n, y, x, f.channels[static_cast<size_t>(i)]);
                    const int64_t at = f.chw ? ((n * c + i) * kH + y) * kW + x : ((n * kH + y) * kW + x) * c + i;
                    t.values[static_cast<size_t>(at)] = f.type == ML::U8 ? k : k / 255.0f;
                }
    return t;
}

}  // namespace

TEST(ConversionNetworks, EveryPairMovesChannelsAndScalesValues) {
    const std::vector<Format> formats = allFormats();
    for (const PackageForm& form : packageForms())
        for (const Format& a : formats)
            for (const Format& b : formats) {
                if (key(a) == key(b)) continue;
                const std::string what = std::string(form.name) + " " + key(a) + "_TO_" + key(b);
                const Tensor src = image(a, code);
                const Tensor want = image(b, [&](int64_t n, int64_t y, int64_t x, char ch) {
                    return expectedCode(a.channels, n, y, x, ch);
                });
                const Tensor got = Network(networkPath(form.models, key(a), key(b))).run1({src});
                ASSERT_EQ(got.type, want.type) << what;
                ASSERT_EQ(got.shape, want.shape) << what;
                // U8 results are exact; float ones within F16 precision.
                for (size_t i = 0; i < want.values.size(); ++i)
                    if (std::fabs(got.values[i] - want.values[i]) > (b.type == ML::U8 ? 0.0f : 1e-3f)) {
                        ADD_FAILURE() << what << " element " << i << ": " << got.values[i] << ", expected "
                                      << want.values[i];
                        break;
                    }
            }
}

TEST(ConversionNetworks, FloatToU8RoundsHalfToEvenAndClamps) {
    const std::vector<float> in{0.5f / 255, 1.5f / 255, 2.5f / 255, 254.5f / 255, -0.1f, 1.7f, NAN, INFINITY, -INFINITY,
                                // past the vectorised block of 8 too
                                0.5f / 255, 1.5f / 255, 2.5f / 255, 254.5f / 255, -0.1f, 1.7f, NAN, INFINITY, -INFINITY};
    const std::vector<float> want{0, 2, 2, 254, 0, 255, 0, 255, 0, 0, 2, 2, 254, 0, 255, 0, 255, 0};
    for (const PackageForm& form : packageForms())
        EXPECT_EQ(Network(networkPath(form.models, "CHW-F32-R", "CHW-U8-R")).run1({makeTensor(ML::F32, {1, 1, 1, 18}, in)}).values,
                  want)
            << form.name;
}

namespace {

// Spread values: every byte for U8; for floats mostly 0..1 with some outside, ties of the U8
// rounding, and NaN and infinities now and then.
Tensor noise(const Format& f, std::vector<int64_t> shape) {
    Tensor t = makeTensor(f.type, shape);
    uint32_t state = 12345;
    for (size_t i = 0; i < t.values.size(); ++i) {
        state = state * 1664525u + 1013904223u;
        const uint32_t r = state >> 8;
        if (f.type == ML::U8)
            t.values[i] = static_cast<float>(r & 0xFF);
        else if (r % 97 == 0)
            t.values[i] = (r / 97) % 3 == 0 ? NAN : (r / 97) % 3 == 1 ? INFINITY : -INFINITY;
        else if (r % 5 == 0)
            t.values[i] = (static_cast<float>(r % 256) + 0.5f) / 255.0f;
        else
            t.values[i] = static_cast<float>(r % 14000) / 10000.0f - 0.2f;
    }
    return makeTensor(f.type, std::move(shape), t.values);
}

bool sameValue(float a, float b) { return (std::isnan(a) && std::isnan(b)) || a == b; }

}  // namespace

// Both forms compute the same values: the fused kernels' vector blocks, tails, batches and
// threaded row split against the standard operators. Each row: formats (empty: every pair) and a
// size N x H x W.
TEST(ConversionNetworks, FusedAndPortableFormsAgree) {
    struct Row {
        std::vector<std::pair<Format, Format>> pairs;
        int64_t n, h, w;
    };
    std::vector<std::pair<Format, Format>> every;
    for (const Format& a : allFormats())
        for (const Format& b : allFormats())
            if (key(a) != key(b)) every.emplace_back(a, b);
    const Format u8rgba{false, ML::U8, "RGBA"}, f16rgb{true, ML::F16, "RGB"}, f32rgb{true, ML::F32, "RGB"},
        u8rgb{false, ML::U8, "RGB"}, f16r{true, ML::F16, "R"}, f32bgr{false, ML::F32, "BGR"};
    const Row rows[] = {
        {every, 2, 3, 37},
        {{{u8rgba, f16rgb}, {f16rgb, u8rgba}, {u8rgb, f32rgb}, {f32rgb, u8rgb}, {f16r, u8rgba}, {u8rgba, f32bgr}},
         1, 131, 1039},
    };
    for (const Row& row : rows)
        for (const auto& [a, b] : row.pairs) {
            const std::string what = key(a) + "_TO_" + key(b) + " at " + std::to_string(row.n) + "x" +
                                     std::to_string(row.h) + "x" + std::to_string(row.w);
            const int64_t c = static_cast<int64_t>(a.channels.size());
            const Tensor src = noise(a, a.chw ? std::vector<int64_t>{row.n, c, row.h, row.w}
                                              : std::vector<int64_t>{row.n, row.h, row.w, c});
            const Tensor fused = Network(networkPath(packageForms()[0].models, key(a), key(b))).run1({src});
            const Tensor portable = Network(networkPath(packageForms()[1].models, key(a), key(b))).run1({src});
            ASSERT_EQ(fused.shape, portable.shape) << what;
            for (size_t i = 0; i < fused.values.size(); ++i)
                if (!sameValue(fused.values[i], portable.values[i])) {
                    ADD_FAILURE() << what << " element " << i << ": fused " << fused.values[i] << ", portable "
                                  << portable.values[i];
                    break;
                }
        }
}
