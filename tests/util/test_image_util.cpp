// The shared image helpers and image descriptions: clear, slices, views and refusals.
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Util/ML_Util.h"

namespace {

using ML::Image;
using ML::ImageImp;
using ML::Ptr;
using ML::Rect;

Ptr<Image> makeImage(const Rect& r, ML::u32 format, ML::u32 layout, ML::u32 type, void* data, ML::u32 rowBytes = 0,
                     ML::u32 channelBytes = 0) {
    return Ptr<Image>(new ImageImp(r, format, layout, type, data, rowBytes, channelBytes));
}

TEST(ImageHelpers, FailuresNameTheirCause) {
    // Helpers raise ML::Exception "PLUGIN/INTERNAL: Util/ML_Util:<line>: <text>"; image objects
    // raise plain std::runtime_error.
    float a[64] = {}, b[64] = {};
    const Rect r{0, 0, 2, 2};
    auto rgb = makeImage(r, Image::RGB, Image::HWC, ML::F32, a);
    auto r4 = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::F32, a);
    auto r4out = makeImage(Rect{10, 10, 13, 13}, Image::R, Image::HWC, ML::F32, b);
    const struct { bool helper; std::function<void()> body; std::string text; } cases[] = {
        {false, [&] { ImageImp(r, Image::RGB, Image::HWC, ML::U16); }, "Unsupported image data type"},
        {true, [] { ML::channelCount(6); }, "Unexpected channel format!"},
        {true, [&] { ML::clearImage(makeImage(r, Image::RGB, Image::CHW, ML::F32, a)); },
         "clearImage only supports HWC images for now"},
        {true, [&] { ML::copySlice(rgb, makeImage(r, Image::RGBA, Image::CHW, ML::F16, b), r, r); },
         "copySlice output image does not match input image format: (F32-RGB-HWC vs F16-RGBA-CHW)"},
        {true, [&] { ML::copySlice(r4, r4out, Rect{0, 0, 2, 2}, Rect{10, 10, 13, 12}); },
         "copySlice input and output rectangles must have same shape: (0,0->2,2) vs (10,10->13,12)"},
        {true, [&] { ML::copySlice(r4, r4out, Rect{2, 2, 5, 4}, Rect{10, 10, 13, 12}); },
         "copySlice slice out of bounds in input image. input rect: (0,0->4,4), slice rect: (2,2->5,4)"},
        {true, [&] { ML::copySlice(r4, r4out, Rect{0, 0, 2, 2}, Rect{9, 10, 11, 12}); },
         "copySlice slice out of bounds in output image. output rect: (10,10->13,13), slice rect: (9,10->11,12)"},
        {false, [&] { ML::makeNewImageView(r4, Rect{1, 1, 5, 3}); },
         "new rectangle for image view must be smaller than original rectangle!"},
        {false, [&] { ML::makeNewImageView(makeImage(r, Image::R, Image::CHW, ML::F32, a), Rect{0, 0, 1, 1}); },
         "TODO: implement makeNewImageView for CHW image!"},
    };
    for (const auto& c : cases) {
        try {
            c.body();
            ADD_FAILURE() << "no failure: " << c.text;
        } catch (const ML::Exception& e) {
            EXPECT_TRUE(c.helper) << e.what();
            const std::string text = e.what(), prefix = "PLUGIN/INTERNAL: Util/ML_Util:";
            EXPECT_EQ(text.rfind(prefix, 0), 0u) << text;
            EXPECT_EQ(text.substr(text.find(": ", prefix.size()) + 2), c.text);
        } catch (const std::runtime_error& e) {
            EXPECT_FALSE(c.helper) << e.what();
            EXPECT_EQ(e.what(), c.text);
        }
    }
    EXPECT_THROW(ML::bytesPerElement(11), std::out_of_range);
}

TEST(ClearImage, ClearsOnlyThePixelsNotPaddingOrNeighbours) {
    // 3 RGB U8 pixels = 9 bytes per row, stored 16 apart.
    std::vector<ML::u8> bytes(16 * 4, 0xAB);
    ML::clearImage(makeImage(Rect{0, 0, 3, 4}, Image::RGB, Image::HWC, ML::U8, bytes.data(), 16));
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 16; ++x) EXPECT_EQ(bytes[y * 16 + x], x < 9 ? 0 : 0xAB) << y << "," << x;

    std::vector<ML::u8> grey(4 * 4, 9);
    auto parent = makeImage(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::U8, grey.data());
    ML::clearImage(ML::makeNewImageView(parent, Rect{1, 1, 3, 3}));
    EXPECT_EQ(grey, (std::vector<ML::u8>{9, 9, 9, 9, 9, 0, 0, 9, 9, 0, 0, 9, 9, 9, 9, 9}));
}

// Pixel value that encodes absolute position and channel.
float code(int x, int y, int c) { return static_cast<float>(y * 1000 + x * 10 + c); }

TEST(CopySlice, InterleavedUsesEachImagesOriginAndStride) {
    // Source covers (10,20)-(16,25), RGB F32, each row padded by 5 floats.
    const int srcStride = 6 * 3 + 5;  // floats per row
    std::vector<float> src(srcStride * 5, -1.0f);
    for (int y = 20; y < 25; ++y)
        for (int x = 10; x < 16; ++x)
            for (int c = 0; c < 3; ++c) src[(y - 20) * srcStride + (x - 10) * 3 + c] = code(x, y, c);
    auto in = makeImage(Rect{10, 20, 16, 25}, Image::RGB, Image::HWC, ML::F32, src.data(), srcStride * 4);
    std::vector<float> dst(4 * 4 * 3, -5.0f);
    auto out = makeImage(Rect{-2, -1, 2, 3}, Image::RGB, Image::HWC, ML::F32, dst.data());
    ML::copySlice(in, out, Rect{12, 21, 15, 23}, Rect{-1, 0, 2, 2});
    for (int y = -1; y < 3; ++y)
        for (int x = -2; x < 2; ++x)
            for (int c = 0; c < 3; ++c) {
                const bool inside = x >= -1 && y >= 0 && y < 2;
                EXPECT_EQ(dst[((y + 1) * 4 + (x + 2)) * 3 + c], inside ? code(x + 13, y + 21, c) : -5.0f)
                    << x << "," << y << "," << c;
            }
}

TEST(CopySlice, PlanarCopiesEveryChannelPlane) {
    // Source 4x3 RG U8 planes with row bytes 6; destination 2x2 packed planes.
    const int srcRow = 6;
    std::vector<ML::u8> src(2 * 3 * srcRow, 0);
    for (int c = 0; c < 2; ++c)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) src[c * 3 * srcRow + y * srcRow + x] = static_cast<ML::u8>(100 * c + 10 * y + x);
    auto in = makeImage(Rect{0, 0, 4, 3}, Image::RG, Image::CHW, ML::U8, src.data(), srcRow, 3 * srcRow);
    std::vector<ML::u8> dst(2 * 2 * 2, 255);
    auto out = makeImage(Rect{5, 5, 7, 7}, Image::RG, Image::CHW, ML::U8, dst.data(), 0, 4);
    ML::copySlice(in, out, Rect{1, 1, 3, 3}, Rect{5, 5, 7, 7});
    EXPECT_EQ(dst, (std::vector<ML::u8>{11, 12, 21, 22, 111, 112, 121, 122}));
}

TEST(ImageView, ViewPointsIntoTheSourceWithItsStride) {
    std::vector<ML::u8> bytes(100 * 10);
    auto image = makeImage(Rect{-5, 10, 20, 20}, Image::RGBA, Image::HWC, ML::U8, bytes.data(), 100);
    EXPECT_EQ(ML::makeNewImageView(image, Rect{-5, 10, 20, 20}).get(), image.get());  // the same rectangle
    auto view = ML::makeNewImageView(image, Rect{-3, 12, 1, 15});
    EXPECT_EQ(view->getRect(), (Rect{-3, 12, 1, 15}));
    EXPECT_EQ(view->getData(), bytes.data() + 2 * 100 + 2 * 4);
    EXPECT_EQ(view->getRowBytes(), 100u);

    // A view of a packed image keeps the parent's row stride, not its own packed width.
    auto packed = makeImage(Rect{0, 0, 8, 4}, Image::R, Image::HWC, ML::F32, bytes.data());
    auto sub = ML::makeNewImageView(packed, Rect{2, 1, 4, 3});
    EXPECT_EQ(sub->getRowBytes(), 32u);
    EXPECT_EQ(ML::makeNewImageView(sub, Rect{3, 2, 4, 3})->getData(), bytes.data() + 2 * 32 + 3 * 4);
}

}  // namespace
