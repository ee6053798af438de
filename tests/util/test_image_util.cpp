// Image description and the shared image helpers: strides, names, clear, slices and views.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "Util/ML_Util.h"

namespace {

using ML::Image;
using ML::ImageImp;
using ML::Ptr;
using ML::Rect;

template <class F>
std::string runtimeMessage(F f) {
    try {
        f();
    } catch (const ML::Exception&) {
        return "<ML::Exception>";
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

// The message of an ML::Exception without "PLUGIN/INTERNAL: file:line: ".
template <class F>
std::string helperMessage(F f) {
    try {
        f();
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.source(), ML::Exception::PLUGIN);
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        const std::string text = e.what();
        const std::string prefix = "PLUGIN/INTERNAL: Util/ML_Util:";
        EXPECT_EQ(text.rfind(prefix, 0), 0u) << text;
        const auto colon = text.find(": ", prefix.size());
        return colon == std::string::npos ? text : text.substr(colon + 2);
    }
    return "<no exception>";
}

Ptr<Image> makeImage(const Rect& r, ML::u32 format, ML::u32 layout, ML::u32 type, void* data, ML::u32 rowBytes = 0,
                     ML::u32 channelBytes = 0) {
    return Ptr<Image>(new ImageImp(r, format, layout, type, data, rowBytes, channelBytes));
}

TEST(ImageStrides, RowBytesComputedOrStored) {
    float pixels[64] = {};
    const Rect r{0, 0, 5, 2};
    EXPECT_EQ(ImageImp(r, Image::RGBA, Image::HWC, ML::F32, pixels, 0, 0).getRowBytes(), 80u);
    EXPECT_EQ(ImageImp(r, Image::RGBA, Image::CHW, ML::F32, pixels, 0, 0).getRowBytes(), 20u);
    EXPECT_EQ(ImageImp(r, Image::RGBA, Image::HWC, ML::F32, pixels, 128, 0).getRowBytes(), 128u);
    EXPECT_EQ(ImageImp(r, Image::RGBA, Image::CHW, ML::F32, pixels, 128, 0).getRowBytes(), 128u);
    EXPECT_EQ(ImageImp(r, Image::RG, Image::HWC, ML::F16, pixels, 0, 0).getRowBytes(), 20u);
    EXPECT_EQ(ImageImp(Rect{3, 0, 10, 1}, Image::BGR, Image::HWC, ML::U8, pixels, 0, 0).getRowBytes(), 21u);
}

TEST(ImageStrides, FailuresAreStandardRuntimeErrors) {
    float pixels[16] = {};
    const Rect r{0, 0, 2, 2};
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::HWC, ML::F32).getRowBytes(); }),
              "getRowBytes should not be called on image that does not have a data pointer");
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::CHW, ML::F32).getChannelBytes(); }),
              "getChannelBytes should not be called on image that does not have a data pointer");
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::HWC, ML::F32, pixels, 0, 16).getChannelBytes(); }),
              "getChannelBytes should only be called on planar (CHW) image");
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::CHW, ML::F32, pixels, 0, 0).getChannelBytes(); }),
              "not implemented! get packed channel bytes for CHW image!\n");
    EXPECT_EQ(ImageImp(r, Image::RGB, Image::CHW, ML::F32, pixels, 0, 16).getChannelBytes(), 16u);
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::HWC, ML::U16); }), "Unsupported image data type");
    EXPECT_EQ(runtimeMessage([&] { ImageImp(r, Image::RGB, Image::HWC, ML::I8, pixels, 0, 0); }),
              "Unsupported image data type");
}

TEST(ElementTable, BytesPerElementForEveryTypeAndOutOfRangeBeyond) {
    const ML::u32 expected[] = {1, 1, 2, 2, 4, 4, 8, 8, 2, 4, 8};
    for (ML::u32 t = 0; t <= 10; ++t) EXPECT_EQ(ML::bytesPerElement(t), expected[t]) << "type " << t;
    EXPECT_THROW(ML::bytesPerElement(11), std::out_of_range);
    EXPECT_THROW(ML::bytesPerElement(0xFFFFFFFFu), std::out_of_range);
}

TEST(Names, TextFormsAndFailures) {
    EXPECT_STREQ(ML::formatName(Image::ARGB), "ARGB");
    EXPECT_STREQ(ML::formatName(Image::BGR), "BGR");
    EXPECT_STREQ(ML::layoutName(Image::CHW), "CHW");
    EXPECT_STREQ(ML::typeName(ML::U16), "U16");
    EXPECT_STREQ(ML::typeName(ML::SIZE_T), "U64");
    EXPECT_STREQ(ML::pixelTypeName(ML::F16), "F16");
    EXPECT_EQ(ML::channelCount(Image::ARGB), 4u);
    EXPECT_EQ(ML::channelCount(Image::RG), 2u);

    EXPECT_EQ(helperMessage([] { ML::channelCount(6); }), "Unexpected channel format!");
    EXPECT_EQ(helperMessage([] { ML::formatName(6); }), "Unknown channel format type");
    EXPECT_EQ(helperMessage([] { ML::layoutName(2); }), "Unknown layout type");
    EXPECT_EQ(helperMessage([] { ML::typeName(11); }), "Unknown data type");
    EXPECT_EQ(helperMessage([] { ML::pixelTypeName(ML::U16); }), "Unknown pixel type");
    EXPECT_EQ(helperMessage([] { ML::pixelTypeName(ML::I8); }), "Unknown pixel type");
}

TEST(ClearImage, PaddedRowsKeepTheirPadding) {
    // 3 RGB U8 pixels = 9 bytes per row, stored 16 apart.
    std::vector<ML::u8> bytes(16 * 4, 0xAB);
    ML::clearImage(makeImage(Rect{0, 0, 3, 4}, Image::RGB, Image::HWC, ML::U8, bytes.data(), 16));
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 16; ++x) EXPECT_EQ(bytes[y * 16 + x], x < 9 ? 0 : 0xAB) << y << "," << x;
}

TEST(ClearImage, PackedImageIsClearedWholeAndNothingBeyond) {
    std::vector<float> pixels(2 * 3 * 4 + 4, 7.0f);
    ML::clearImage(makeImage(Rect{10, 20, 13, 22}, Image::RGBA, Image::HWC, ML::F32, pixels.data()));
    for (size_t i = 0; i < pixels.size(); ++i) EXPECT_EQ(pixels[i], i < 24 ? 0.0f : 7.0f) << i;
}

TEST(ClearImage, ViewClearsOnlyItsPart) {
    std::vector<ML::u8> bytes(4 * 4, 9);
    auto parent = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::U8, bytes.data());
    ML::clearImage(ML::makeNewImageView(parent, Rect{1, 1, 3, 3}));
    const std::vector<ML::u8> expected = {9, 9, 9, 9, 9, 0, 0, 9, 9, 0, 0, 9, 9, 9, 9, 9};
    EXPECT_EQ(bytes, expected);
}

TEST(ClearImage, PlanarImageIsRefused) {
    float pixels[12] = {};
    EXPECT_EQ(helperMessage([&] {
                  ML::clearImage(makeImage(Rect{0, 0, 2, 2}, Image::RGB, Image::CHW, ML::F32, pixels));
              }),
              "clearImage only supports HWC images for now");
}

// Pixel value that encodes absolute position and channel.
float code(int x, int y, int c) { return static_cast<float>(y * 1000 + x * 10 + c); }

TEST(CopySlice, InterleavedUsesEachImagesOriginAndStride) {
    // Source covers (10,20)-(16,25), RGB F32, each row padded by 5 floats.
    const Rect srcRect{10, 20, 16, 25};
    const int srcStride = 6 * 3 + 5;  // floats per row
    std::vector<float> src(srcStride * 5, -1.0f);
    for (int y = 20; y < 25; ++y)
        for (int x = 10; x < 16; ++x)
            for (int c = 0; c < 3; ++c) src[(y - 20) * srcStride + (x - 10) * 3 + c] = code(x, y, c);
    auto in = makeImage(srcRect, Image::RGB, Image::HWC, ML::F32, src.data(), srcStride * 4);

    const Rect dstRect{-2, -1, 2, 3};
    std::vector<float> dst(4 * 4 * 3, -5.0f);
    auto out = makeImage(dstRect, Image::RGB, Image::HWC, ML::F32, dst.data());

    ML::copySlice(in, out, Rect{12, 21, 15, 23}, Rect{-1, 0, 2, 2});
    for (int y = -1; y < 3; ++y)
        for (int x = -2; x < 2; ++x)
            for (int c = 0; c < 3; ++c) {
                const float v = dst[((y + 1) * 4 + (x + 2)) * 3 + c];
                const bool inside = x >= -1 && y >= 0 && y < 2;
                EXPECT_EQ(v, inside ? code(x + 13, y + 21, c) : -5.0f) << x << "," << y << "," << c;
            }
}

TEST(CopySlice, PlanarCopiesEveryChannelPlane) {
    // Source 4x3 RG U8 planes with row bytes 6; destination 2x2 packed planes.
    const int srcRow = 6;
    std::vector<ML::u8> src(2 * 3 * srcRow, 0);
    for (int c = 0; c < 2; ++c)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                src[c * 3 * srcRow + y * srcRow + x] = static_cast<ML::u8>(100 * c + 10 * y + x);
    auto in = makeImage(Rect{0, 0, 4, 3}, Image::RG, Image::CHW, ML::U8, src.data(), srcRow, 3 * srcRow);
    std::vector<ML::u8> dst(2 * 2 * 2, 255);
    auto out = makeImage(Rect{5, 5, 7, 7}, Image::RG, Image::CHW, ML::U8, dst.data(), 0, 4);

    ML::copySlice(in, out, Rect{1, 1, 3, 3}, Rect{5, 5, 7, 7});
    const std::vector<ML::u8> expected = {11, 12, 21, 22, 111, 112, 121, 122};
    EXPECT_EQ(dst, expected);
}

TEST(CopySlice, EmptySliceCopiesNothing) {
    std::vector<ML::u8> a(4, 1), b(4, 2);
    auto in = makeImage(Rect{0, 0, 2, 2}, Image::R, Image::HWC, ML::U8, a.data());
    auto out = makeImage(Rect{0, 0, 2, 2}, Image::R, Image::HWC, ML::U8, b.data());
    ML::copySlice(in, out, Rect{1, 1, 1, 2}, Rect{0, 0, 0, 1});
    EXPECT_EQ(b, std::vector<ML::u8>(4, 2));
}

TEST(CopySlice, FormatMismatchReportsBothImages) {
    float a[16] = {}, b[16] = {};
    auto in = makeImage(Rect{0, 0, 2, 2}, Image::RGB, Image::HWC, ML::F32, a);
    auto out = makeImage(Rect{0, 0, 2, 2}, Image::RGBA, Image::HWC, ML::F32, b);
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, out, Rect{0, 0, 1, 1}, Rect{0, 0, 1, 1}); }),
              "copySlice output image does not match input image format: (F32-RGB-HWC vs F32-RGBA-HWC)");
    auto planarHalf = makeImage(Rect{0, 0, 2, 2}, Image::RGB, Image::CHW, ML::F16, b);
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, planarHalf, Rect{0, 0, 1, 1}, Rect{0, 0, 1, 1}); }),
              "copySlice output image does not match input image format: (F32-RGB-HWC vs F16-RGB-CHW)");
}

TEST(CopySlice, ShapeAndBoundsFailures) {
    float a[64] = {}, b[64] = {};
    auto in = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::F32, a);
    auto out = makeImage(Rect{10, 10, 13, 13}, Image::R, Image::HWC, ML::F32, b);
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, out, Rect{0, 0, 2, 2}, Rect{10, 10, 13, 12}); }),
              "copySlice input and output rectangles must have same shape: (0,0->2,2) vs (10,10->13,12)");
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, out, Rect{2, 2, 5, 4}, Rect{10, 10, 13, 12}); }),
              "copySlice slice out of bounds in input image. input rect: (0,0->4,4), slice rect: (2,2->5,4)");
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, out, Rect{0, 0, 2, 2}, Rect{9, 10, 11, 12}); }),
              "copySlice slice out of bounds in output image. output rect: (10,10->13,13), slice rect: (9,10->11,12)");
}

TEST(CopySlice, UnknownLayoutIsRefused) {
    float a[16] = {}, b[16] = {};
    auto in = makeImage(Rect{0, 0, 2, 2}, Image::R, 2, ML::F32, a);
    auto out = makeImage(Rect{0, 0, 2, 2}, Image::R, 2, ML::F32, b);
    EXPECT_EQ(helperMessage([&] { ML::copySlice(in, out, Rect{0, 0, 1, 1}, Rect{0, 0, 1, 1}); }),
              "copySlice not implemented for unknown memoty layout! (not CHW or HWC)");
}

TEST(ImageView, EqualRectangleGivesTheSameObject) {
    float a[16] = {};
    auto image = makeImage(Rect{0, 0, 2, 2}, Image::RGBA, Image::HWC, ML::F32, a);
    auto view = ML::makeNewImageView(image, Rect{0, 0, 2, 2});
    EXPECT_EQ(view.get(), image.get());
}

TEST(ImageView, ViewPointsIntoTheSourceWithItsStride) {
    std::vector<ML::u8> bytes(100 * 10);
    auto image = makeImage(Rect{-5, 10, 20, 20}, Image::RGBA, Image::HWC, ML::U8, bytes.data(), 100);
    auto view = ML::makeNewImageView(image, Rect{-3, 12, 1, 15});
    EXPECT_EQ(view->getRect(), (Rect{-3, 12, 1, 15}));
    EXPECT_EQ(view->getData(), bytes.data() + 2 * 100 + 2 * 4);
    EXPECT_EQ(view->getRowBytes(), 100u);
    EXPECT_EQ(view->getChannelFormat(), static_cast<ML::u32>(Image::RGBA));
    EXPECT_EQ(view->getDataType(), static_cast<ML::u32>(ML::U8));

    // A view of a packed image keeps the parent's row stride, not its own packed width.
    auto packed = makeImage(Rect{0, 0, 8, 4}, Image::R, Image::HWC, ML::F32, bytes.data());
    auto sub = ML::makeNewImageView(packed, Rect{2, 1, 4, 3});
    EXPECT_EQ(sub->getRowBytes(), 32u);
    auto subSub = ML::makeNewImageView(sub, Rect{3, 2, 4, 3});
    EXPECT_EQ(subSub->getData(), bytes.data() + 2 * 32 + 3 * 4);
}

TEST(ImageView, FailuresAreRuntimeErrors) {
    float a[64] = {};
    auto image = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::F32, a);
    EXPECT_EQ(runtimeMessage([&] { ML::makeNewImageView(image, Rect{1, 1, 5, 3}); }),
              "new rectangle for image view must be smaller than original rectangle!");
    auto planar = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::CHW, ML::F32, a);
    EXPECT_EQ(runtimeMessage([&] { ML::makeNewImageView(planar, Rect{1, 1, 3, 3}); }),
              "TODO: implement makeNewImageView for CHW image!");
}

TEST(RectText, FormAndSize) {
    const Rect r{1, 2, 3, 4};
    EXPECT_EQ(ML::rectToString(r), "(1,2->3,4)");
    EXPECT_EQ(ML::rectWidth(r), 2);
    EXPECT_EQ(ML::rectHeight(r), 2);
}

}  // namespace
