// The format conversion networks of the default package, every pair with a known answer.
#include <gtest/gtest.h>

#include <cmath>

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

fs::path networkPath(const std::string& from, const std::string& to) {
    return packageModelFolder() / "imgcvt" / (from + "_TO_" + to + ".onnx");
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
    std::vector<Format> formats;
    for (bool chw : {false, true})
        for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
            for (const char* ch : {"RGB", "RGBA", "R", "RG", "ARGB", "BGR"}) formats.push_back({chw, type, ch});
    for (const Format& a : formats)
        for (const Format& b : formats) {
            if (key(a) == key(b)) continue;
            const Tensor src = image(a, code);
            const Tensor want = image(b, [&](int64_t n, int64_t y, int64_t x, char ch) {
                return expectedCode(a.channels, n, y, x, ch);
            });
            const Tensor got = Network(networkPath(key(a), key(b))).run1({src});
            ASSERT_EQ(got.type, want.type) << key(a) << "_TO_" << key(b);
            ASSERT_EQ(got.shape, want.shape) << key(a) << "_TO_" << key(b);
            // U8 results are exact; float ones within F16 precision.
            for (size_t i = 0; i < want.values.size(); ++i)
                if (std::fabs(got.values[i] - want.values[i]) > (b.type == ML::U8 ? 0.0f : 1e-3f)) {
                    ADD_FAILURE() << key(a) << "_TO_" << key(b) << " element " << i << ": " << got.values[i]
                                  << ", expected " << want.values[i];
                    break;
                }
        }
}

TEST(ConversionNetworks, FloatToU8RoundsHalfToEvenAndClamps) {
    const std::vector<float> in{0.5f / 255, 1.5f / 255, 2.5f / 255, 254.5f / 255, -0.1f, 1.7f, NAN, INFINITY, -INFINITY};
    Network net(networkPath("CHW-F32-R", "CHW-U8-R"));
    EXPECT_EQ(net.run1({makeTensor(ML::F32, {1, 1, 1, 9}, in)}).values,
              (std::vector<float>{0, 2, 2, 254, 0, 255, 0, 255, 0}));
}
