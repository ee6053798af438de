#pragma once
// Shared pieces of the converter tests: one CPU backend over the default package per test
// program, host images and tensors filled with known patterns and read back as float planes,
// and plain C++ references for the helper networks' arithmetic.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "ML/Exception.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelContext.h"

namespace ConversionTest {

using ML::Image;
using ML::u32;
using ML::u64;
using ML::u8;
using Owned = ML::Ptr<QHost::OwnedImage>;

inline std::filesystem::path packageDir() { return QUILLON_TEST_PACKAGE_DIR; }

// One backend per test suite; every test builds its own converter on it.
class ConverterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (!sharedContext)
            sharedContext = std::make_shared<ML::ModelContext>("ort_cpu", 0, packageDir() / "config",
                                                               packageDir() / "models");
    }
    static void TearDownTestSuite() { sharedContext.reset(); }
    void SetUp() override { converter = std::make_unique<ML::ImageTensorConverter>(sharedContext); }

    std::shared_ptr<ML::BackendTensor> tensor(const std::vector<u64>& shape, u32 type) {
        return sharedContext->createTensor(shape, type);
    }

public:
    static ML::ModelContext* context() { return sharedContext.get(); }

protected:

    static inline std::shared_ptr<ML::ModelContext> sharedContext;
    std::unique_ptr<ML::ImageTensorConverter> converter;
};

inline ML::Ptr<Image> asImage(const Owned& image) { return ML::Ptr<Image>(image.get()); }

inline ML::Ptr<Image> describe(int height, int width, u32 format, u32 layout, u32 type) {
    return ML::makeDescription(height, width, format, layout, type);
}

// A distinct byte per (x, y, channel), covering the whole 0..255 range.
inline u8 patternByte(int x, int y, u32 c) { return static_cast<u8>((x * 37 + y * 101 + c * 59 + 13) & 0xFF); }

inline Owned makeU8Image(const ML::Rect& rect, u32 format, u32 layout, u32 rowPadding = 0) {
    Owned image = QHost::OwnedImage::make(rect, format, layout, ML::U8, rowPadding);
    for (int y = rect.y0; y < rect.y1; ++y)
        for (int x = rect.x0; x < rect.x1; ++x)
            for (u32 c = 0; c < image->channels(); ++c) image->at<u8>(x, y, c) = patternByte(x, y, c);
    return image;
}

template <class T>
std::vector<T> download(ML::BackendTensor& tensor) {
    u64 count = 1;
    for (u64 extent : tensor.getShape()) count *= extent;
    std::vector<T> values(count);
    tensor.download(values.data());
    return values;
}

inline std::vector<u8> bytesOf(const void* data, u64 size) {
    const auto* p = static_cast<const u8*>(data);
    return std::vector<u8>(p, p + size);
}

inline u8 floatToU8(float v) {
    if (std::isnan(v)) return 0;
    const float scaled = std::nearbyint(v * 255.0f);  // default rounding mode: ties to even
    return static_cast<u8>(std::clamp(scaled, 0.0f, 255.0f));
}

// What a value becomes when stored as an element of the given type, as float (U8 as 0..1).
inline float quantise(float v, u32 type) {
    if (type == ML::U8) return floatToU8(v) / 255.0f;
    if (type == ML::F16) return float(Imath::half(v));
    return v;
}

// One element at p as float (U8 as 0..1), and the other way.
inline float readElement(const void* p, u32 type) {
    if (type == ML::U8) return *static_cast<const u8*>(p) / 255.0f;
    if (type == ML::F16) return float(*static_cast<const Imath::half*>(p));
    return *static_cast<const float*>(p);
}
inline void writeElement(void* p, u32 type, float v) {
    if (type == ML::U8) *static_cast<u8*>(p) = floatToU8(v);
    else if (type == ML::F16) *static_cast<Imath::half*>(p) = Imath::half(v);
    else *static_cast<float*>(p) = v;
}
inline size_t elementBytes(u32 type) { return type == ML::U8 ? 1 : type == ML::F16 ? 2 : 4; }

// Float planes: plane p (image b, channel c of C is plane b * C + c), row y, column x.
struct Planes {
    int planes = 0, height = 0, width = 0;
    std::vector<float> values;
    Planes(int p, int h, int w) : planes(p), height(h), width(w), values(static_cast<size_t>(p * h * w)) {}
    float& at(int p, int y, int x) { return values[static_cast<size_t>((p * height + y) * width + x)]; }
    float at(int p, int y, int x) const { return values[static_cast<size_t>((p * height + y) * width + x)]; }
};

// Bilinear resampling with half-pixel centres and clamped edges, no antialiasing.
inline Planes bilinear(const Planes& in, int height, int width) {
    Planes out(in.planes, height, width);
    auto source = [](int o, int inSize, int outSize, int& i0, int& i1, float& t) {
        float s = (static_cast<float>(o) + 0.5f) * static_cast<float>(inSize) / static_cast<float>(outSize) - 0.5f;
        s = std::clamp(s, 0.0f, static_cast<float>(inSize - 1));
        i0 = static_cast<int>(std::floor(s));
        i1 = std::min(i0 + 1, inSize - 1);
        t = s - static_cast<float>(i0);
    };
    for (int y = 0; y < height; ++y) {
        int y0, y1;
        float ty;
        source(y, in.height, height, y0, y1, ty);
        for (int x = 0; x < width; ++x) {
            int x0, x1;
            float tx;
            source(x, in.width, width, x0, x1, tx);
            for (int p = 0; p < in.planes; ++p) {
                const float top = in.at(p, y0, x0) * (1 - tx) + in.at(p, y0, x1) * tx;
                const float bottom = in.at(p, y1, x0) * (1 - tx) + in.at(p, y1, x1) * tx;
                out.at(p, y, x) = top * (1 - ty) + bottom * ty;
            }
        }
    }
    return out;
}

// Runs fn and checks that it throws a plug-in INTERNAL exception whose message ends with text.
inline void expectPluginError(const std::function<void()>& fn, const std::string& text) {
    try {
        fn();
        ADD_FAILURE() << "no exception, expected: " << text;
    } catch (const ML::Exception& e) {
        const std::string what = e.what();
        EXPECT_EQ(e.source(), static_cast<u32>(ML::Exception::PLUGIN)) << what;
        EXPECT_EQ(e.code(), static_cast<u32>(ML::Exception::INTERNAL)) << what;
        const std::string tail = ": " + text;
        EXPECT_TRUE(what.size() >= tail.size() && what.compare(what.size() - tail.size(), tail.size(), tail) == 0)
            << "got: " << what << "\nexpected to end with: " << tail;
    }
}

}  // namespace ConversionTest
