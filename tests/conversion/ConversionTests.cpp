// Moving pixels between host images and tensors: layouts, element types, channel formats, sizes,
// padded rows and views, with the helper networks each change runs, against plain C++ references;
// and every refusal of the converter and the resizer, with its exact text. One CPU backend over
// the default package serves the whole program.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "ML/Exception.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelContext.h"
#include "Util/ML_Util.h"
#include "util/ExpectMessage.h"
#include "util/LogCapture.h"
#include "util/PackageContext.h"
#include "util/RawDescription.h"
#include "util/TempDir.h"

namespace {

using ML::Image;
using ML::u32;
using ML::u64;
using ML::u8;
using Owned = ML::Ptr<QHost::OwnedImage>;

// One backend per test suite; every test builds its own converter on it.
class Conversion : public testpkg::PackageSuite {
protected:
    void SetUp() override { converter = std::make_unique<ML::ImageTensorConverter>(context); }
    std::shared_ptr<ML::BackendTensor> tensor(const std::vector<u64>& shape, u32 type) {
        return context->createTensor(shape, type);
    }
    std::unique_ptr<ML::ImageTensorConverter> converter;
};

ML::Ptr<Image> asImage(const Owned& image) { return ML::Ptr<Image>(image.get()); }
ML::Ptr<Image> describe(int height, int width, u32 format, u32 layout, u32 type) {
    return ML::makeDescription(height, width, format, layout, type);
}

// A distinct byte per (x, y, channel), covering the whole 0..255 range.
Owned makeU8Image(const ML::Rect& rect, u32 format, u32 layout, u32 rowPadding = 0) {
    Owned image = QHost::OwnedImage::make(rect, format, layout, ML::U8, rowPadding);
    for (int y = rect.y0; y < rect.y1; ++y)
        for (int x = rect.x0; x < rect.x1; ++x)
            for (u32 c = 0; c < image->channels(); ++c) image->at<u8>(x, y, c) = u8((x * 37 + y * 101 + c * 59 + 13) & 0xFF);
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

u8 floatToU8(float v) {
    if (std::isnan(v)) return 0;
    const float scaled = std::nearbyint(v * 255.0f);  // default rounding mode: ties to even
    return static_cast<u8>(std::clamp(scaled, 0.0f, 255.0f));
}

// What a value becomes when stored as an element of the given type, as float (U8 as 0..1).
float quantise(float v, u32 type) {
    if (type == ML::U8) return floatToU8(v) / 255.0f;
    if (type == ML::F16) return float(Imath::half(v));
    return v;
}

// One element at p as float (U8 as 0..1), and the other way.
float readElement(const void* p, u32 type) {
    if (type == ML::U8) return *static_cast<const u8*>(p) / 255.0f;
    if (type == ML::F16) return float(*static_cast<const Imath::half*>(p));
    return *static_cast<const float*>(p);
}
void writeElement(void* p, u32 type, float v) {
    if (type == ML::U8) *static_cast<u8*>(p) = floatToU8(v);
    else if (type == ML::F16) *static_cast<Imath::half*>(p) = Imath::half(v);
    else *static_cast<float*>(p) = v;
}
size_t elementBytes(u32 type) { return type == ML::U8 ? 1 : type == ML::F16 ? 2 : 4; }

// Float planes: plane p (image b, channel c of C is plane b * C + c), row y, column x.
struct Planes {
    int planes = 0, height = 0, width = 0;
    std::vector<float> values;
    Planes(int p, int h, int w) : planes(p), height(h), width(w), values(static_cast<size_t>(p * h * w)) {}
    float& at(int p, int y, int x) { return values[static_cast<size_t>((p * height + y) * width + x)]; }
    float at(int p, int y, int x) const { return values[static_cast<size_t>((p * height + y) * width + x)]; }
};

// Bilinear resampling with half-pixel centres and clamped edges, no antialiasing.
Planes bilinear(const Planes& in, int height, int width) {
    Planes out(in.planes, height, width);
    struct Source {
        int i0, i1;
        float t;
    };
    auto source = [](int o, int inSize, int outSize) {
        const float s = std::clamp((float(o) + 0.5f) * float(inSize) / float(outSize) - 0.5f, 0.0f, float(inSize - 1));
        const int i0 = static_cast<int>(std::floor(s));
        return Source{i0, std::min(i0 + 1, inSize - 1), s - float(i0)};
    };
    for (int y = 0; y < height; ++y) {
        const auto [y0, y1, ty] = source(y, in.height, height);
        for (int x = 0; x < width; ++x) {
            const auto [x0, x1, tx] = source(x, in.width, width);
            for (int p = 0; p < in.planes; ++p) {
                const float top = in.at(p, y0, x0) * (1 - tx) + in.at(p, y0, x1) * tx;
                const float bottom = in.at(p, y1, x0) * (1 - tx) + in.at(p, y1, x1) * tx;
                out.at(p, y, x) = top * (1 - ty) + bottom * ty;
            }
        }
    }
    return out;
}

// One side of a conversion: a host image (converted through a view of region when that is not
// the whole image) or a tensor of the whole rectangle's size.
struct End {
    bool host;
    ML::Rect whole;
    u32 format, layout, type;
    u32 rowPadding = 0;
    ML::Rect region = {};  // empty: the whole image
    ML::Rect used() const { return region.width() > 0 ? region : whole; }
    int channels() const { return static_cast<int>(ML::shapeOfImage(1, 1, format, Image::CHW, 1)[1]); }
    ML::Ptr<Image> description() const { return describe(used().height(), used().width(), format, layout, type); }
};

struct Case {
    const char* what;
    End from, to;
    std::vector<int> channelMap;  // source channel of each target channel; -1: opaque alpha
    std::vector<std::string> conversions, resizes;
    float tolerance = 1e-6f;
    int batch = 1;
    std::vector<float> values = {};  // source values instead of the pattern
    long staging = -1;               // expected staging capacity; -1: not checked
};

// Source samples: spread over 0..1 (and a little beyond for float elements).
float pattern(int plane, int y, int x, u32 type) {
    const int v = (x * 37 + y * 101 + plane * 59 + 13) & 0xFF;
    return type == ML::U8 ? v / 255.0f : v / 200.0f - 0.1f;
}

// Index of element (plane, y, x) in a tensor of C channels.
size_t tensorIndex(const End& e, int plane, int y, int x) {
    const int c = plane % e.channels(), b = plane / e.channels(), h = e.used().height(), w = e.used().width();
    return static_cast<size_t>(e.layout == Image::HWC ? ((b * h + y) * w + x) * e.channels() + c
                                                      : ((b * e.channels() + c) * h + y) * w + x);
}

// The storage of one side: a host image, or the bytes of a tensor; every byte starts as 0xAB.
struct Side {
    const End& end;
    Owned image;
    std::shared_ptr<ML::BackendTensor> tensor;
    std::vector<u8> bytes;
    Side(const End& e, int batch, ML::ModelContext& context) : end(e) {
        if (e.host) {
            image = QHost::OwnedImage::make(e.whole, e.format, e.layout, e.type, e.rowPadding);
        } else {
            tensor = context.createTensor(ML::shapeOfImage(*e.description(), batch), e.type);
            bytes.resize(batch * e.channels() * e.used().width() * e.used().height() * elementBytes(e.type));
        }
        std::fill_n(data(), size(), 0xAB);
    }
    u8* data() { return image ? reinterpret_cast<u8*>(image->storage()) : bytes.data(); }
    size_t size() const { return image ? image->byteSize() : bytes.size(); }
    void* element(int p, int y, int x) {
        if (image) return image->element(x + end.used().x0, y + end.used().y0, static_cast<u32>(p));
        return &bytes[tensorIndex(end, p, y, x) * elementBytes(end.type)];
    }
    ML::Ptr<Image> view() {
        return end.region.width() > 0 ? ML::makeNewImageView(asImage(image), end.region) : asImage(image);
    }
};

TEST_F(Conversion, EveryPathAgainstTheReference) {
    const ML::Rect r53{0, 0, 5, 3}, r64{0, 0, 6, 4};
    const u32 R = Image::R, RGB = Image::RGB, BGR = Image::BGR, RGBA = Image::RGBA, ARGB = Image::ARGB;
    const u32 HWC = Image::HWC, CHW = Image::CHW;
    const ML::Rect r95{0, 0, 9, 5}, view{13, 24, 20, 29}, viewed{10, 20, 26, 32};
    const Case cases[] = {
        {"same format and size: bytes unchanged, no network", {true, r53, RGBA, HWC, ML::U8},
         {false, r53, RGBA, HWC, ML::U8}, {0, 1, 2, 3}, {}, {}, 0.0f, 1, {}, 0},
        {"back, same format", {false, r53, RGBA, HWC, ML::U8}, {true, r53, RGBA, HWC, ML::U8}, {0, 1, 2, 3}, {}, {},
         0.0f, 1, {}, 0},
        {"padded rows through staging", {true, r64, RGB, HWC, ML::U8, 5}, {false, r64, RGB, HWC, ML::U8}, {0, 1, 2},
         {}, {}, 0.0f, 1, {}, 6 * 4 * 3},
        {"back into padded rows", {false, r64, RGB, HWC, ML::U8}, {true, r64, RGB, HWC, ML::U8, 5}, {0, 1, 2}, {}, {},
         0.0f, 1, {}, 6 * 4 * 3},
        {"padded planar rows to float", {true, r53, RGB, CHW, ML::U8, 3}, {false, r53, RGB, CHW, ML::F32}, {0, 1, 2},
         {"CHW-U8-RGB_TO_CHW-F32-RGB"}, {}},
        {"float into padded planar rows", {false, r53, RGB, CHW, ML::F32}, {true, r53, RGB, CHW, ML::U8, 3}, {0, 1, 2},
         {"CHW-F32-RGB_TO_CHW-U8-RGB"}, {}},
        {"view away from the origin", {true, viewed, RGBA, HWC, ML::U8, 8, view}, {false, {0, 0, 7, 5}, RGBA, CHW, ML::F32},
         {0, 1, 2, 3}, {"HWC-U8-RGBA_TO_CHW-F32-RGBA"}, {}},
        {"into a view away from the origin", {false, {0, 0, 7, 5}, RGBA, CHW, ML::F32},
         {true, viewed, RGBA, HWC, ML::U8, 8, view}, {0, 1, 2, 3}, {"CHW-F32-RGBA_TO_HWC-U8-RGBA"}, {}},
        {"packed bytes to planar half, alpha dropped", {true, r95, RGBA, HWC, ML::U8}, {false, r95, RGB, CHW, ML::F16},
         {0, 1, 2}, {"HWC-U8-RGBA_TO_CHW-F16-RGB"}, {}},
        {"planar half to packed bytes, opaque alpha added", {false, r95, RGB, CHW, ML::F16}, {true, r95, RGBA, HWC, ML::U8},
         {0, 1, 2, -1}, {"CHW-F16-RGB_TO_HWC-U8-RGBA"}, {}},
        {"BGR is RGB reversed", {true, r53, RGB, HWC, ML::U8}, {false, r53, BGR, CHW, ML::U8}, {2, 1, 0},
         {"HWC-U8-RGB_TO_CHW-U8-BGR"}, {}},
        {"colour to R takes the red channel", {true, r53, ARGB, HWC, ML::U8}, {false, r53, R, HWC, ML::F32}, {1},
         {"HWC-U8-ARGB_TO_HWC-F32-R"}, {}},
        {"grey to RGBA in one layout and type, unclamped", {false, r53, R, CHW, ML::F32}, {false, r53, RGBA, CHW, ML::F32},
         {0, 0, 0, -1}, {"CHW-F32-R_TO_CHW-F32-RGBA"}, {}},
        {"float to bytes rounds half to even and clamps", {false, {0, 0, 4, 2}, R, CHW, ML::F32},
         {true, {0, 0, 4, 2}, R, HWC, ML::U8}, {0}, {"CHW-F32-R_TO_HWC-U8-R"}, {}, 0.0f, 1,
         {0.0f, 0.2f, 0.5f, 1.0f, -0.3f, 1.7f, 100.0f / 255.0f, 254.4f / 255.0f}},
        {"host to host through the device", {true, r64, RGB, HWC, ML::U8}, {true, r64, BGR, CHW, ML::F32, 12},
         {2, 1, 0}, {"HWC-U8-RGB_TO_CHW-F32-BGR"}, {}},
        {"host to host resize in one format", {true, {0, 0, 8, 6}, RGB, HWC, ML::U8, 4},
         {true, {0, 0, 4, 3}, RGB, HWC, ML::U8}, {0, 1, 2}, {}, {"resize_U8_HWC"}, 0.5f / 255.0f + 1e-5f},
        {"same format: only the resize network", {false, {0, 0, 5, 4}, RGB, CHW, ML::F32},
         {false, {0, 0, 9, 7}, RGB, CHW, ML::F32}, {0, 1, 2}, {}, {"resize_F32_CHW"}, 1e-5f},
        // Resizing first, in U8, would round to whole steps of 1/255.
        {"format and size: convert first, then resize", {false, {0, 0, 11, 7}, RGB, CHW, ML::U8},
         {false, r53, RGBA, HWC, ML::F32}, {0, 1, 2, -1}, {"CHW-U8-RGB_TO_HWC-F32-RGBA"}, {"resize_F32_HWC"}, 1e-5f},
        {"host to tensor of other size and format", {true, {0, 0, 10, 6}, RGBA, HWC, ML::U8, 4},
         {false, {0, 0, 3, 4}, RGB, CHW, ML::F16}, {0, 1, 2}, {"HWC-U8-RGBA_TO_CHW-F16-RGB"}, {"resize_F16_CHW"}, 2e-3f},
        // Non-square: the tensor's own N,H,W,C read as N,C,H,W would ask for the wrong size.
        {"packed layout sends the target shape channels first", {false, r64, RGB, HWC, ML::F32},
         {false, r53, RGB, HWC, ML::F32}, {0, 1, 2}, {}, {"resize_F32_HWC"}, 1e-5f},
        {"batch is never resampled", {false, {0, 0, 2, 2}, R, CHW, ML::F32}, {false, {0, 0, 4, 4}, R, CHW, ML::F32},
         {0}, {}, {"resize_F32_CHW"}, 1e-5f, 2},
        {"single-channel planar result into a packed host image", {false, {0, 0, 8, 8}, R, CHW, ML::F16},
         {true, {0, 0, 16, 9}, R, HWC, ML::F32}, {0}, {"CHW-F16-R_TO_HWC-F32-R"}, {"resize_F32_HWC"}, 2e-3f},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        converter = std::make_unique<ML::ImageTensorConverter>(context);
        const ML::Rect in = c.from.used(), out = c.to.used();
        Side from(c.from, c.batch, *context), to(c.to, c.batch, *context);

        // The source, and the same values as planes.
        Planes source(c.batch * c.from.channels(), in.height(), in.width());
        for (int p = 0; p < source.planes; ++p)
            for (int y = 0; y < in.height(); ++y)
                for (int x = 0; x < in.width(); ++x) {
                    const float v = c.values.empty() ? pattern(p, y + in.y0, x + in.x0, c.from.type)
                                                     : c.values[static_cast<size_t>((p * in.height() + y) * in.width() + x)];
                    writeElement(from.element(p, y, x), c.from.type, v);
                    source.at(p, y, x) = quantise(v, c.from.type);
                }
        if (from.tensor) from.tensor->upload(from.bytes.data());
        if (c.from.host && c.to.host)
            converter->hostImageToHostImage(from.view(), to.view());
        else if (c.from.host)
            converter->hostImageToTensor(from.view(), c.to.description(), to.tensor);
        else if (c.to.host)
            converter->tensorToHostImage(c.from.description(), from.tensor, to.view());
        else
            converter->tensorToTensor(c.from.description(), from.tensor, c.to.description(), to.tensor);
        if (to.tensor) to.tensor->download(to.bytes.data());

        // Reference: channels picked, converted to the target's type, then resized in it.
        Planes picked(c.batch * c.to.channels(), in.height(), in.width());
        for (int p = 0; p < picked.planes; ++p) {
            const int pick = c.channelMap[static_cast<size_t>(p % c.to.channels())];
            for (int y = 0; y < in.height(); ++y)
                for (int x = 0; x < in.width(); ++x)
                    picked.at(p, y, x) = quantise(
                        pick < 0 ? 1.0f : source.at(p / c.to.channels() * c.from.channels() + pick, y, x), c.to.type);
        }
        const Planes expected = bilinear(picked, out.height(), out.width());

        // The target's pixels against the reference; every other byte (row padding, pixels
        // outside a view) must still be 0xAB.
        std::vector<bool> written(to.size());
        int wrong = 0;
        for (int p = 0; p < expected.planes; ++p)
            for (int y = 0; y < out.height(); ++y)
                for (int x = 0; x < out.width(); ++x) {
                    const void* e = to.element(p, y, x);
                    const float got = readElement(e, c.to.type);
                    if (!(std::fabs(got - expected.at(p, y, x)) <= c.tolerance) && ++wrong <= 3)
                        ADD_FAILURE() << "at " << p << "," << y << "," << x << ": " << got << " instead of "
                                      << expected.at(p, y, x);
                    const auto at = static_cast<const u8*>(e) - to.data();
                    std::fill_n(written.begin() + at, elementBytes(c.to.type), true);
                }
        for (size_t i = 0; i < written.size(); ++i)
            if (!written[i] && to.data()[i] != 0xAB && ++wrong <= 6)
                ADD_FAILURE() << "byte " << i << " outside the target's pixels was written";
        EXPECT_EQ(wrong, 0);
        std::vector<std::string> conversions = converter->loadedConversionNetworks();
        std::sort(conversions.begin(), conversions.end());
        EXPECT_EQ(conversions, c.conversions);
        EXPECT_EQ(converter->loadedResizeNetworks(), c.resizes);
        if (c.staging >= 0) {
            EXPECT_EQ(converter->stagingCapacity(), static_cast<u64>(c.staging));
        }
    }
}

// Scratch tensors and the resizer's target shape are kept between calls and grow or change only
// when they must; networks are loaded once.
TEST_F(Conversion, ScratchTargetShapeAndNetworksAreReused) {
    for (const auto& [height, width, capacity] : {std::tuple{16, 20, 16 * 20 * 4}, {3, 5, 16 * 20 * 4},
                                                  {17, 20, 17 * 20 * 4}, {2, 2, 17 * 20 * 4}}) {
        auto t = tensor({1, 3, static_cast<u64>(height), static_cast<u64>(width)}, ML::F16);
        const Owned host = makeU8Image({0, 0, width, height}, Image::RGBA, Image::HWC);
        converter->hostImageToTensor(asImage(host), describe(height, width, Image::RGB, Image::CHW, ML::F16), t);
        EXPECT_EQ(converter->imageScratchCapacity(), static_cast<u64>(capacity)) << height << "x" << width;
        const std::vector<Imath::half> values = download<Imath::half>(*t);
        for (size_t i = 0; i < values.size(); ++i) {
            const int x = static_cast<int>(i) % width, y = static_cast<int>(i) / width % height;
            ASSERT_EQ(float(values[i]), quantise(host->at<u8>(x, y, static_cast<u32>(i) / width / height) / 255.0f,
                                                 ML::F16)) << height << "x" << width << " element " << i;
        }
    }
    const Owned host = makeU8Image({0, 0, 4, 4}, Image::RGBA, Image::HWC);
    const auto description = describe(4, 4, Image::RGB, Image::CHW, ML::F16);
    const auto first = converter->getConversionModel(*asImage(host), *description);
    EXPECT_EQ(converter->getConversionModel(*asImage(host), *description), first);
    EXPECT_EQ(converter->loadedConversionNetworks(), std::vector<std::string>{"HWC-U8-RGBA_TO_CHW-F16-RGB"});
    auto source = tensor({1, 1, 4, 4}, ML::F32);
    const std::vector<float> zeros(16, 0.0f);
    source->upload(zeros.data());
    EXPECT_EQ(converter->targetShapeUploads(), 0u);
    for (const auto& [h, w, uploads] : {std::tuple{2, 3, 1u}, {2, 3, 1u}, {3, 2, 2u}, {2, 3, 3u}}) {
        converter->resizeTensor(describe(4, 4, Image::R, Image::CHW, ML::F32), source,
                                describe(h, w, Image::R, Image::CHW, ML::F32),
                                tensor({1, 1, static_cast<u64>(h), static_cast<u64>(w)}, ML::F32));
        EXPECT_EQ(converter->targetShapeUploads(), uploads) << h << "x" << w;
    }
}

TEST_F(Conversion, RefusalsWithTheirText) {
    const auto rgbChw = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    const auto planar = describe(4, 6, Image::RGB, Image::CHW, ML::F32);
    const auto packed = describe(4, 6, Image::RGB, Image::HWC, ML::F32);
    const Owned padded = makeU8Image({0, 0, 4, 2}, Image::RGB, Image::HWC, 4);
    const auto paddedDescription = describe(2, 4, Image::RGB, Image::HWC, ML::U8);
    const auto emptyImage = asImage(makeU8Image({3, 3, 3, 7}, Image::RGB, Image::HWC));
    const auto t = [this](std::vector<u64> shape) { return tensor(shape, ML::F32); };
    const auto match = [&](const Image& description, std::vector<u64> shape) {
        ML::ImageTensorConverter::checkTensorMatchesImage(description, *t(shape));
    };
    const auto resize = [&](u32 format, u32 layout, u32 type) {
        converter->resizeTensor(rgbChw, t({1, 3, 2, 2}), describe(4, 4, format, layout, type), t({1, 3, 4, 4}));
    };
    const std::string empty = "Cannot convert an empty host image (3,3->3,7)";
    const std::string batchPadded = "TODO: support non-packed image conversion w/ batch > 1";
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { match(*rgbChw, {3, 2, 2}); }, "Expected 4D tensor for image conversion, got 3"},
        {[&] { converter->hostImageToTensor(asImage(padded), rgbChw, t({1, 1, 3, 2, 2})); },
         "Expected 4D tensor for image conversion, got 5"},
        {[&] { match(*planar, {1, 3, 5, 6}); }, "Tensor height does not match image description: got 5 , expected 4"},
        {[&] { match(*planar, {1, 3, 4, 7}); }, "Tensor width does not match image description: got 7 , expected 6"},
        // Height is checked before width.
        {[&] { match(*packed, {1, 3, 7, 3}); }, "Tensor height does not match image description: got 3 , expected 4"},
        {[&] { match(*packed, {1, 4, 9, 3}); }, "Tensor width does not match image description: got 9 , expected 6"},
        {[&] { match(RawDescription(9, Image::CHW, ML::F32), {1, 3, 2, 2}); }, "Unexpected channel format!"},
        {[&] { converter->tensorToTensor(rgbChw, t({1, 3, 2, 2}), describe(2, 2, Image::RGB, Image::HWC, ML::F32),
                                         t({2, 2, 2, 3})); },
         "Batch size for input & output tensors should match (1 vs 2)"},
        {[&] { converter->hostImageToTensor(asImage(padded), paddedDescription, tensor({2, 2, 4, 3}, ML::U8)); }, batchPadded},
        {[&] { converter->tensorToHostImage(paddedDescription, tensor({2, 2, 4, 3}, ML::U8), asImage(padded)); }, batchPadded},
        // Everything differs: layout is tested first, then channel format, then data type.
        {[&] { resize(Image::BGR, Image::HWC, ML::F16); }, "memory layouts must match!"},
        {[&] { resize(Image::BGR, Image::CHW, ML::F16); }, "channel formats must match!"},
        {[&] { resize(Image::RGB, Image::CHW, ML::F16); }, "data types must match!"},
        {[&] { converter->hostImageToTensor(emptyImage, rgbChw, t({1, 3, 2, 2})); }, empty},
        {[&] { converter->tensorToHostImage(rgbChw, t({1, 3, 2, 2}), emptyImage); }, empty},
        {[&] { converter->hostImageToHostImage(emptyImage, asImage(padded)); }, empty},
        {[&] { converter->tensorToTensor(describe(0, 2, Image::RGB, Image::CHW, ML::F32), t({1, 3, 0, 2}), rgbChw,
                                         t({1, 3, 2, 2})); },
         "Cannot convert an empty tensor description (0,0->2,0)"},
        {[] { ML::shapeOfImage(RawDescription(Image::RGB, 7, ML::F32), 1); }, "Unexpected memory layout"},
        {[] { ML::shapeOfImage(2, 2, Image::RGB, 2, 1); }, "Unexpected memory layout"},
        {[] { ML::imageFormatKey(RawDescription(Image::RGB, 7, ML::F32)); }, "Unknown layout type"},
        {[] { ML::imageFormatKey(RawDescription(Image::RGB, Image::HWC, ML::I64)); }, "Unknown pixel type"},
        {[] { ML::imageFormatKey(RawDescription(11, Image::HWC, ML::F32)); }, "Unknown channel format type"},
        {[&] { converter->tensorToTensor(rgbChw, t({1, 3, 2, 2}), rgbChw, t({1, 3, 2, 2})); }, "no change??"},
    };
    LogCapture log;
    for (const auto& [call, message] : cases) expectMessage(call, message);
    // Only nothing to do is also warned about.
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"[Quillon] [W] Copying image tensor to image tensor of identical format?"});
    EXPECT_NO_THROW(match(*planar, {1, 5, 4, 6}));  // the channel extent is not compared
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
    EXPECT_TRUE(converter->loadedResizeNetworks().empty());
    EXPECT_EQ(converter->targetShapeUploads(), 0u);

    // A refused call leaves the converter usable.
    auto good = tensor({1, 2, 4, 3}, ML::U8);
    converter->hostImageToTensor(asImage(padded), paddedDescription, good);
    EXPECT_EQ(download<u8>(*good)[5], padded->at<u8>(1, 0, 2));
}

TEST_F(Conversion, MissingHelperNetworkSurfacesAsTheLoadError) {
    TempDir empty;  // a model folder without any imgcvt network
    auto context = testpkg::cpuContext(empty.path());
    ML::ImageTensorConverter bare(context);
    std::string direct = "<no exception>";
    try {
        context->loadModel("imgcvt/HWC-U8-RGB_TO_CHW-F32-RGB");
    } catch (const ML::Exception& e) {
        direct = e.what();
    }
    Owned host = makeU8Image({0, 0, 3, 2}, Image::RGB, Image::HWC);
    try {
        bare.hostImageToTensor(asImage(host), describe(2, 3, Image::RGB, Image::CHW, ML::F32),
                               context->createTensor({1, 3, 2, 3}, ML::F32));
        ADD_FAILURE() << "no exception";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(std::string(e.what()), direct);
    }
    EXPECT_TRUE(bare.loadedConversionNetworks().empty());

    // The same converter still does what needs no network.
    auto t = context->createTensor({1, 2, 3, 3}, ML::U8);
    bare.hostImageToTensor(asImage(host), describe(2, 3, Image::RGB, Image::HWC, ML::U8), t);
    const auto* bytes = reinterpret_cast<const u8*>(host->storage());
    EXPECT_EQ(download<u8>(*t), std::vector<u8>(bytes, bytes + host->byteSize()));
}

}  // namespace
