// The fused conversion and resize kernels: plain row loops against the vectorised ones, bit for bit, on
// sizes with vector blocks, tails and a threaded split. (The networks that use them are checked
// against references and against the standard-operator form in tools_conversion_tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ImageKernels.h"

using ML::OrtBackend::convertImage;
using ML::OrtBackend::ImageConversion;
using ML::OrtBackend::KernelVariant;
using ML::OrtBackend::PixelType;

TEST(ImageKernels, PlainAndVectorisedLoopsAgree) {
    if (!ML::OrtBackend::imageKernelsVectorised()) GTEST_SKIP() << "no AVX2/F16C on this processor";
    struct Row {
        PixelType from, to;
        bool fromPlanar, toPlanar;
        int fromChannels;
        std::vector<int> sources;
        std::vector<float> fills;
    };
    const PixelType U8 = PixelType::U8, F16 = PixelType::F16, F32 = PixelType::F32;
    const Row rows[] = {
        {U8, F16, false, true, 4, {0, 1, 2}, {0, 0, 0}},
        {F16, U8, true, false, 3, {0, 1, 2, -1}, {0, 0, 0, 1}},
        {U8, F32, false, false, 3, {2, 1, 0}, {0, 0, 0}},
        {F32, U8, true, true, 1, {0, 0, -1}, {0, 0, 0}},
        {F16, F32, false, true, 2, {0, 1, -1, -1}, {0, 0, 0, 1}},
        {F32, F16, true, false, 4, {3, 0, 1, 2}, {0, 0, 0, 0}},
        {U8, U8, false, true, 4, {1, 2, 3}, {0, 0, 0}},
        {U8, F32, false, true, 3, {2, -1, 0, 0}, {0, 0.5f, 0, 0}},
    };
    const int64_t n = 2, h = 37, w = 1043;
    for (const Row& r : rows) {
        ImageConversion c{r.from, r.to, r.fromPlanar, r.toPlanar, r.fromChannels, r.sources, r.fills};
        const size_t inBytes = static_cast<size_t>(n * h * w * r.fromChannels) * (r.from == U8 ? 1 : r.from == F16 ? 2 : 4);
        const size_t outBytes = static_cast<size_t>(n * h * w) * r.sources.size() * (r.to == U8 ? 1 : r.to == F16 ? 2 : 4);
        // Any bits: floats of every size, NaN and infinities among them.
        std::vector<uint8_t> in(inBytes);
        uint32_t state = 7;
        for (uint8_t& b : in) b = static_cast<uint8_t>((state = state * 1664525u + 1013904223u) >> 24);
        std::vector<uint8_t> plain(outBytes, 0xAB), best(outBytes, 0xCD);
        convertImage(c, in.data(), plain.data(), n, h, w, 1, KernelVariant::Plain);
        convertImage(c, in.data(), best.data(), n, h, w, 3, KernelVariant::Best);
        EXPECT_TRUE(plain == best) << "row " << (&r - rows);
    }
}

TEST(ImageKernels, PlainAndVectorisedResizeAgree) {
    if (!ML::OrtBackend::imageKernelsVectorised()) GTEST_SKIP() << "no AVX2/F16C on this processor";
    struct Row {
        PixelType type;
        bool planar;
        int64_t channels, h, w, outH, outW;
    };
    const Row rows[] = {{PixelType::U8, false, 4, 41, 77, 130, 251}, {PixelType::F16, true, 3, 135, 241, 67, 83},
                        {PixelType::F16, false, 3, 20, 30, 41, 13}, {PixelType::U8, false, 6, 5, 9, 11, 4},
                        {PixelType::F32, false, 1, 9, 1030, 20, 517}, {PixelType::U8, true, 2, 3, 3, 1, 1},
                        {PixelType::U8, true, 1, 50, 300, 97, 611}, {PixelType::F32, true, 2, 17, 64, 40, 129},
                        {PixelType::U8, true, 3, 60, 1000, 31, 203}, {PixelType::F16, true, 3, 108, 193, 77, 129}};
    for (const Row& r : rows) {
        const size_t eb = r.type == PixelType::U8 ? 1 : r.type == PixelType::F16 ? 2 : 4;
        std::vector<uint8_t> in(static_cast<size_t>(2 * r.channels * r.h * r.w) * eb);
        uint32_t state = 3;
        for (size_t i = 0; i < in.size(); ++i) {
            state = state * 1664525u + 1013904223u;
            in[i] = static_cast<uint8_t>(state >> 24);
            // Floats of moderate size: exponent bits kept away from NaN and infinity.
            if (eb > 1 && i % eb == eb - 1) in[i] = static_cast<uint8_t>(0x30 + (state >> 30));
        }
        const size_t outBytes = static_cast<size_t>(2 * r.channels * r.outH * r.outW) * eb;
        std::vector<uint8_t> plain(outBytes, 0xAB), best(outBytes, 0xCD);
        ML::OrtBackend::resizeImage(r.type, r.planar, in.data(), plain.data(), 2, r.channels, r.h, r.w, r.outH, r.outW, 1,
                                    KernelVariant::Plain);
        ML::OrtBackend::resizeImage(r.type, r.planar, in.data(), best.data(), 2, r.channels, r.h, r.w, r.outH, r.outW, 3);
        EXPECT_TRUE(plain == best) << "row " << (&r - rows);
    }
}

TEST(ImageKernels, CopiesSplitOverThreadsKeepEveryByte) {
    // Sizes below, at and above a split, with a tail that is no whole line.
    for (const size_t bytes : {size_t{1}, size_t{63}, size_t{1} << 20, (size_t{6} << 20) + 13}) {
        std::vector<uint8_t> in(bytes), out(bytes + 1, 0xEE);
        for (size_t i = 0; i < bytes; ++i) in[i] = static_cast<uint8_t>(i * 131 + (i >> 9));
        ML::OrtBackend::copyBytes(out.data(), in.data(), bytes, 3);
        EXPECT_TRUE(std::equal(in.begin(), in.end(), out.begin())) << bytes << " bytes";
        EXPECT_EQ(out[bytes], 0xEE) << bytes << " bytes";
    }
}
