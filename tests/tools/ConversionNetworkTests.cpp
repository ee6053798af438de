// The format conversion networks of the default package against a plain C++ reference.
#include <gtest/gtest.h>

#include <array>
#include <cmath>

#include "ML/ImageImp.h"
#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

struct Format {
    ML::u32 layout;
    ML::u32 type;
    std::string channels;  // channel names in memory order
};

std::string typeName(ML::u32 t) { return t == ML::U8 ? "U8" : t == ML::F16 ? "F16" : "F32"; }

std::string key(const Format& f) {
    return std::string(f.layout == ML::Image::HWC ? "HWC" : "CHW") + "-" + typeName(f.type) + "-" + f.channels;
}

std::vector<Format> allFormats() {
    std::vector<Format> v;
    for (ML::u32 layout : {ML::Image::HWC, ML::Image::CHW})
        for (ML::u32 type : {ML::U8, ML::F16, ML::F32})
            for (const char* ch : {"RGB", "RGBA", "R", "RG", "ARGB", "BGR"}) v.push_back({layout, type, ch});
    return v;
}

Format parse(const std::string& k) {
    for (const Format& f : allFormats())
        if (key(f) == k) return f;
    throw std::logic_error("bad key " + k);
}

std::vector<int64_t> shapeOf(const Format& f, int64_t n, int64_t h, int64_t w) {
    const int64_t c = static_cast<int64_t>(f.channels.size());
    if (f.layout == ML::Image::CHW) return {n, c, h, w};
    return {n, h, w, c};
}

size_t indexOf(const Format& f, int64_t h, int64_t w, int64_t n, int64_t c, int64_t y, int64_t x) {
    const int64_t cs = static_cast<int64_t>(f.channels.size());
    if (f.layout == ML::Image::CHW) return static_cast<size_t>(((n * cs + c) * h + y) * w + x);
    return static_cast<size_t>(((n * h + y) * w + x) * cs + c);
}

// A pixel value in 0..1 units, as the networks compute it in 32-bit floats.
float unitValue(const Tensor& t, size_t i) {
    const float v = t.get(i);
    return t.type == ML::U8 ? v / 255.0f : v;
}

float encode(float unit, ML::u32 type) {
    if (type != ML::U8) return unit;
    const float scaled = unit * 255.0f;
    if (std::isnan(scaled)) return 0.0f;
    return std::fmin(255.0f, std::fmax(0.0f, std::nearbyint(scaled)));
}

// Destination channel X takes X of the source; else alpha is 1; else a grey (R only) source
// repeats R; else 0.
Tensor referenceConvert(const Tensor& src, const Format& a, const Format& b) {
    const int64_t n = src.shape[0];
    const int64_t h = a.layout == ML::Image::CHW ? src.shape[2] : src.shape[1];
    const int64_t w = a.layout == ML::Image::CHW ? src.shape[3] : src.shape[2];
    Tensor dst = makeTensor(b.type, shapeOf(b, n, h, w));
    for (int64_t in = 0; in < n; ++in)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x)
                for (size_t c = 0; c < b.channels.size(); ++c) {
                    const char name = b.channels[c];
                    const auto at = a.channels.find(name);
                    float unit;
                    if (at != std::string::npos)
                        unit = unitValue(src, indexOf(a, h, w, in, static_cast<int64_t>(at), y, x));
                    else if (name == 'A')
                        unit = 1.0f;
                    else if (a.channels == "R")
                        unit = unitValue(src, indexOf(a, h, w, in, 0, y, x));
                    else
                        unit = 0.0f;
                    dst.set(indexOf(b, h, w, in, static_cast<int64_t>(c), y, x), encode(unit, b.type));
                }
    return dst;
}

fs::path networkPath(const Format& a, const Format& b) {
    return packageModelFolder() / "imgcvt" / (key(a) + "_TO_" + key(b) + ".onnx");
}

// Runs the network of the pair on src; returns an empty text when it matches the reference.
std::string checkPair(const Format& a, const Format& b, const Tensor& src) {
    Network net(networkPath(a, b));
    if (net.inputCount() != 1 || net.outputCount() != 1) return "expected one input and one output";
    const Tensor got = net.run({src}).at(0);
    const Tensor want = referenceConvert(src, a, b);
    if (got.type != want.type) return "output type differs";
    if (got.shape != want.shape) return "output shape differs";
    for (size_t i = 0; i < want.count(); ++i)
        if (got.get(i) != want.get(i))
            return "element " + std::to_string(i) + ": got " + std::to_string(got.get(i)) + ", expected " +
                   std::to_string(want.get(i)) + " from input element value " +
                   std::to_string(src.get(std::min(i, src.count() - 1)));
    return {};
}

}  // namespace

TEST(ConversionNetworks, EveryPairRunsAndMatchesReference) {
    std::mt19937 rng(7);
    int pairs = 0;
    for (const Format& a : allFormats())
        for (const Format& b : allFormats()) {
            if (key(a) == key(b)) continue;
            Tensor src = makeTensor(a.type, shapeOf(a, 2, 3, 5));
            fillRandom(src, rng, -0.25f, 1.25f);
            const std::string problem = checkPair(a, b, src);
            EXPECT_EQ(problem, "") << key(a) << "_TO_" << key(b);
            ++pairs;
        }
    EXPECT_EQ(pairs, 36 * 35);
}

TEST(ConversionNetworks, OddSizesAndLargerBatches) {
    std::mt19937 rng(11);
    const std::vector<std::pair<const char*, const char*>> pairs{
        {"HWC-U8-RGBA", "CHW-F16-RGB"}, {"CHW-F16-RGB", "HWC-U8-RGBA"}, {"HWC-F32-BGR", "CHW-F32-ARGB"},
        {"CHW-F16-R", "HWC-U8-RGB"},    {"HWC-U8-RG", "HWC-F16-RGBA"},  {"CHW-U8-ARGB", "CHW-U8-BGR"}};
    for (const auto& [ka, kb] : pairs) {
        const Format a = parse(ka), b = parse(kb);
        for (const auto& size : std::vector<std::array<int64_t, 3>>{{3, 17, 31}, {1, 1, 1}, {4, 9, 2}}) {
            Tensor src = makeTensor(a.type, shapeOf(a, size[0], size[1], size[2]));
            fillRandom(src, rng, -0.5f, 1.5f);
            EXPECT_EQ(checkPair(a, b, src), "") << ka << "_TO_" << kb << " " << size[0] << "x" << size[1] << "x" << size[2];
        }
    }
}

TEST(ConversionNetworks, U8ThroughFloatAndBackIsExact) {
    for (const char* middle : {"CHW-F16-RGBA", "CHW-F32-RGBA", "HWC-F16-RGBA"}) {
        Tensor src = makeTensor(ML::U8, {2, 16, 16, 4});
        for (size_t i = 0; i < src.count(); ++i) src.set(i, static_cast<float>((i * 7) % 256));
        Network there(networkPath(parse("HWC-U8-RGBA"), parse(middle)));
        Network back(networkPath(parse(middle), parse("HWC-U8-RGBA")));
        const Tensor roundTrip = back.run(there.run({src})).at(0);
        ASSERT_EQ(roundTrip.bytes, src.bytes) << middle;
    }
}

TEST(ConversionNetworks, FloatToU8RoundsHalfToEvenAndClamps) {
    const float nan = std::nanf("");
    const float inf = INFINITY;
    const std::vector<float> in{0.5f / 255, 1.5f / 255, 2.5f / 255, 254.5f / 255, -0.1f, 1.7f, nan, inf, -inf};
    const std::vector<float> want{0, 2, 2, 254, 0, 255, 0, 255, 0};
    Network net(networkPath(parse("CHW-F32-R"), parse("CHW-U8-R")));
    const Tensor out = net.run({makeF32({1, 1, 1, 9}, in)}).at(0);
    for (size_t i = 0; i < want.size(); ++i) EXPECT_EQ(out.get(i), want[i]) << "input " << in[i];
}

TEST(ConversionNetworks, ChannelRules) {
    // One pixel R=0.25, G=0.5, B=0.75, A=0.125 in F32, looked at through several destinations.
    auto convert = [](const char* from, const std::vector<float>& px, const char* to) {
        Network net(networkPath(parse(from), parse(to)));
        const Tensor out = net.run({makeF32({1, 1, 1, static_cast<int64_t>(px.size())}, px)}).at(0);
        std::vector<float> v;
        for (size_t i = 0; i < out.count(); ++i) v.push_back(out.get(i));
        return v;
    };
    EXPECT_EQ(convert("HWC-F32-RGBA", {0.25f, 0.5f, 0.75f, 0.125f}, "HWC-F32-ARGB"),
              (std::vector<float>{0.125f, 0.25f, 0.5f, 0.75f}));
    EXPECT_EQ(convert("HWC-F32-RGB", {0.25f, 0.5f, 0.75f}, "HWC-F32-BGR"), (std::vector<float>{0.75f, 0.5f, 0.25f}));
    EXPECT_EQ(convert("HWC-F32-RGB", {0.25f, 0.5f, 0.75f}, "HWC-F32-R"), (std::vector<float>{0.25f}));
    EXPECT_EQ(convert("HWC-F32-R", {0.25f}, "HWC-F32-ARGB"), (std::vector<float>{1.0f, 0.25f, 0.25f, 0.25f}));
    EXPECT_EQ(convert("HWC-F32-RG", {0.25f, 0.5f}, "HWC-F32-RGBA"), (std::vector<float>{0.25f, 0.5f, 0.0f, 1.0f}));
    EXPECT_EQ(convert("HWC-F32-BGR", {0.75f, 0.5f, 0.25f}, "HWC-U8-RGBA"), (std::vector<float>{64, 128, 191, 255}));
}
