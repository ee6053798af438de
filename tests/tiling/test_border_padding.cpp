// Filling a tile image from a source image, repeating the last column, row and corner.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Plugin/PluginLogger.h"
#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Rect;
using ML::TiledExecution::copySrcToTileWithBorderPadding;
using ML::TiledExecution::Tile;

// An HWC or CHW image over its own vector; rowPad extra elements at the end of each row.
template <class T>
struct TestImage {
    std::vector<T> pixels;
    ML::Ptr<ML::Image> image;
    Rect rect;
    int channels;
    int rowStride;  // elements
    bool planar;

    TestImage(const Rect& r, ML::u32 format, ML::u32 type, int channelCount, bool chw = false, int rowPad = 0)
        : rect(r), channels(channelCount), planar(chw) {
        rowStride = (planar ? r.width() : r.width() * channels) + rowPad;
        pixels.assign(static_cast<size_t>(rowStride) * r.height() * (planar ? channels : 1), T(-1));
        image = ML::Ptr<ML::Image>(new ML::ImageImp(r, format, planar ? ML::Image::CHW : ML::Image::HWC, type,
                                                    pixels.data(), static_cast<ML::u32>(rowStride * sizeof(T)), 0));
    }

    T& at(int x, int y, int c) {
        const size_t row = static_cast<size_t>(y - rect.y0);
        const size_t col = static_cast<size_t>(x - rect.x0);
        if (planar) return pixels[(static_cast<size_t>(c) * rect.height() + row) * rowStride + col];
        return pixels[row * rowStride + col * channels + c];
    }
};

using U8Image = TestImage<ML::u8>;
using F32Image = TestImage<float>;

ML::u8 u8Value(int x, int y, int c) { return static_cast<ML::u8>((x * 31 + y * 7 + c * 3) & 0xff); }
float f32Value(int x, int y, int c) { return static_cast<float>(x) * 1000.0f + static_cast<float>(y) + c * 0.25f; }

template <class Img, class F>
void fill(Img& img, F value) {
    for (int y = img.rect.y0; y < img.rect.y1; ++y)
        for (int x = img.rect.x0; x < img.rect.x1; ++x)
            for (int c = 0; c < img.channels; ++c) img.at(x, y, c) = value(x, y, c);
}

Tile tileOf(const Rect& src, const Rect& srcTile) { return Tile{src, srcTile, src, srcTile}; }

// Collects the lines the plug-in logs while it lives.
class LogCapture : public ML::Logger {
public:
    LogCapture() : plugin(ML::LOG_VERBOSE) {
        ML::g_hostLogger = this;
        ML::g_pluginLogger = &plugin;
    }
    ~LogCapture() override {
        ML::g_pluginLogger = nullptr;
        ML::g_hostLogger = nullptr;
    }
    ML::i32 getLogLevel() override { return ML::LOG_VERBOSE; }
    void log(ML::Ptr<ML::StringT<char>> text) override { lines.push_back(ML::toStd(text)); }

    std::vector<std::string> lines;

private:
    ML::PluginLogger plugin;
};

TEST(BorderPadding, ShortSourceRepeatsLastColumnRowAndCorner) {
    U8Image source(Rect{0, 0, 5, 4}, ML::Image::RGB, ML::U8, 3);
    fill(source, u8Value);
    U8Image tile(Rect{0, 0, 8, 6}, ML::Image::RGB, ML::U8, 3);

    LogCapture log;
    copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 5, 4}, Rect{0, 0, 5, 4}), source.image, tile.image);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(tile.at(x, y, c), u8Value(std::min(x, 4), std::min(y, 3), c)) << x << "," << y << "," << c;
    EXPECT_TRUE(log.lines.empty());
}

TEST(BorderPadding, SourceOffsetAndPaddedRowsF32) {
    // Source with its own origin and padded rows; the tile reads a part that ends on the source's edge.
    F32Image source(Rect{10, 20, 17, 26}, ML::Image::RGBA, ML::F32, 4, false, 3);
    fill(source, f32Value);
    F32Image tile(Rect{0, 0, 8, 8}, ML::Image::RGBA, ML::F32, 4, false, 5);

    copySrcToTileWithBorderPadding(tileOf(Rect{12, 21, 17, 26}, Rect{0, 0, 5, 5}), source.image, tile.image);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(tile.at(x, y, c), f32Value(12 + std::min(x, 4), 21 + std::min(y, 4), c)) << x << "," << y;
    // The row padding of the tile image stays untouched.
    EXPECT_EQ(tile.pixels[8 * 4], -1.0f);
}

TEST(BorderPadding, PlanarImages) {
    F32Image source(Rect{0, 0, 3, 2}, ML::Image::RGB, ML::F32, 3, true);
    fill(source, f32Value);
    F32Image tile(Rect{0, 0, 4, 4}, ML::Image::RGB, ML::F32, 3, true);

    copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 3, 2}, Rect{0, 0, 3, 2}), source.image, tile.image);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                ASSERT_EQ(tile.at(x, y, c), f32Value(std::min(x, 2), std::min(y, 1), c)) << x << "," << y << "," << c;
}

TEST(BorderPadding, FullTileIsAPlainCopy) {
    U8Image source(Rect{0, 0, 20, 20}, ML::Image::R, ML::U8, 1);
    fill(source, u8Value);
    U8Image tile(Rect{0, 0, 6, 4}, ML::Image::R, ML::U8, 1);

    copySrcToTileWithBorderPadding(tileOf(Rect{7, 9, 13, 13}, Rect{0, 0, 6, 4}), source.image, tile.image);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x) ASSERT_EQ(tile.at(x, y, 0), u8Value(7 + x, 9 + y, 0));
}

TEST(BorderPadding, OnlyRightOrOnlyBottomPadding) {
    U8Image source(Rect{0, 0, 3, 5}, ML::Image::RG, ML::U8, 2);
    fill(source, u8Value);

    U8Image wide(Rect{0, 0, 6, 5}, ML::Image::RG, ML::U8, 2);
    copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 3, 5}, Rect{0, 0, 3, 5}), source.image, wide.image);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) ASSERT_EQ(wide.at(x, y, 1), u8Value(std::min(x, 2), y, 1));

    U8Image tall(Rect{0, 0, 3, 9}, ML::Image::RG, ML::U8, 2);
    copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 3, 5}, Rect{0, 0, 3, 5}), source.image, tall.image);
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 3; ++x) ASSERT_EQ(tall.at(x, y, 0), u8Value(x, std::min(y, 4), 0));
}

TEST(BorderPadding, LeftAndTopAreLeftAloneWithWarnings) {
    U8Image source(Rect{0, 0, 4, 3}, ML::Image::R, ML::U8, 1);
    fill(source, u8Value);
    U8Image tile(Rect{0, 0, 8, 6}, ML::Image::R, ML::U8, 1);

    LogCapture log;
    copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 4, 3}, Rect{2, 1, 6, 4}), source.image, tile.image);
    EXPECT_EQ(log.lines, (std::vector<std::string>{"[Quillon] [W] TODO: pad left in copySrcToTileWithBorderPadding",
                                                   "[Quillon] [W] TODO: pad top in copySrcToTileWithBorderPadding"}));
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) {
            const ML::u8 expected =
                (x < 2 || y < 1) ? ML::u8(0xff) : u8Value(std::min(x - 2, 3), std::min(y - 1, 2), 0);
            ASSERT_EQ(tile.at(x, y, 0), expected) << x << "," << y;
        }
}

TEST(BorderPadding, TileImageMustStartAtTheOrigin) {
    U8Image source(Rect{0, 0, 4, 4}, ML::Image::R, ML::U8, 1);
    U8Image tile(Rect{1, 0, 9, 6}, ML::Image::R, ML::U8, 1);
    const std::string message = tiling_test::internalErrorOf([&] {
        copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 4, 4}, Rect{1, 0, 5, 4}), source.image, tile.image);
    });
    EXPECT_TRUE(tiling_test::endsWithMessage(message, "expected tile rect to start at 0?")) << message;
}

TEST(BorderPadding, MismatchedFormatsFailInTheCopy) {
    U8Image source(Rect{0, 0, 4, 4}, ML::Image::R, ML::U8, 1);
    F32Image tile(Rect{0, 0, 8, 8}, ML::Image::R, ML::F32, 1);
    const std::string message = tiling_test::internalErrorOf([&] {
        copySrcToTileWithBorderPadding(tileOf(Rect{0, 0, 4, 4}, Rect{0, 0, 4, 4}), source.image, tile.image);
    });
    EXPECT_NE(message.find("copySlice output image does not match input image format"), std::string::npos) << message;
}

}  // namespace
