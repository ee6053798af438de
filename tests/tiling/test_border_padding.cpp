// Filling a tile image from a source image, repeating the last column, row and corner.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
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

// Source sample values: distinct per pixel and channel.
template <class T>
T valueAt(int x, int y, int c) {
    if constexpr (std::is_same_v<T, ML::u8>) return static_cast<ML::u8>((x * 31 + y * 7 + c * 3) & 0xff);
    return static_cast<float>(x) * 1000.0f + static_cast<float>(y) + c * 0.25f;
}

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

struct PaddingCase {
    const char* what;
    bool f32, planar;
    ML::u32 format;
    int channels;
    Rect sourceImage;
    int sourceRowPad;
    Rect tileImage;
    int tileRowPad;
    Rect src, srcTile;  // the tile's source rectangle and where it lands in the tile image
    bool leftTopWarned;  // left and top padding are not done, only warned about
};

// Fills the tile image from a filled source image and checks every sample: inside the tile's
// source rectangle a copy, right and below it the last column, row and corner repeated, left and
// above it untouched.
template <class T>
void checkPadding(const PaddingCase& c) {
    TestImage<T> source(c.sourceImage, c.format, c.f32 ? ML::F32 : ML::U8, c.channels, c.planar, c.sourceRowPad);
    for (int y = c.sourceImage.y0; y < c.sourceImage.y1; ++y)
        for (int x = c.sourceImage.x0; x < c.sourceImage.x1; ++x)
            for (int ch = 0; ch < c.channels; ++ch) source.at(x, y, ch) = valueAt<T>(x, y, ch);
    TestImage<T> tile(c.tileImage, c.format, c.f32 ? ML::F32 : ML::U8, c.channels, c.planar, c.tileRowPad);

    LogCapture log;
    copySrcToTileWithBorderPadding(Tile{c.src, c.srcTile, c.src, c.srcTile}, source.image, tile.image);
    const std::vector<std::string> warnings = {"[Quillon] [W] TODO: pad left in copySrcToTileWithBorderPadding",
                                               "[Quillon] [W] TODO: pad top in copySrcToTileWithBorderPadding"};
    EXPECT_EQ(log.lines, c.leftTopWarned ? warnings : std::vector<std::string>{}) << c.what;
    for (int y = 0; y < c.tileImage.y1; ++y)
        for (int x = 0; x < c.tileImage.x1; ++x)
            for (int ch = 0; ch < c.channels; ++ch) {
                const T expected = x < c.srcTile.x0 || y < c.srcTile.y0
                                       ? T(-1)
                                       : valueAt<T>(c.src.x0 + std::min(x - c.srcTile.x0, c.src.width() - 1),
                                                    c.src.y0 + std::min(y - c.srcTile.y0, c.src.height() - 1), ch);
                ASSERT_EQ(tile.at(x, y, ch), expected) << c.what << " at " << x << "," << y << "," << ch;
            }
    // The row padding of the tile image stays untouched.
    if (c.tileRowPad > 0 && !c.planar) {
        EXPECT_EQ(tile.pixels[c.tileImage.width() * c.channels], T(-1)) << c.what;
    }
}

TEST(BorderPadding, RepeatsLastColumnRowAndCorner) {
    const PaddingCase cases[] = {
        {"short source, both sides", false, false, ML::Image::RGB, 3, {0, 0, 5, 4}, 0, {0, 0, 8, 6}, 0,
         {0, 0, 5, 4}, {0, 0, 5, 4}, false},
        {"source origin and padded rows", true, false, ML::Image::RGBA, 4, {10, 20, 17, 26}, 3, {0, 0, 8, 8}, 5,
         {12, 21, 17, 26}, {0, 0, 5, 5}, false},
        {"planar", true, true, ML::Image::RGB, 3, {0, 0, 3, 2}, 0, {0, 0, 4, 4}, 0, {0, 0, 3, 2}, {0, 0, 3, 2}, false},
        {"full tile is a plain copy", false, false, ML::Image::R, 1, {0, 0, 20, 20}, 0, {0, 0, 6, 4}, 0,
         {7, 9, 13, 13}, {0, 0, 6, 4}, false},
        {"only right", false, false, ML::Image::RG, 2, {0, 0, 3, 5}, 0, {0, 0, 6, 5}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {"only bottom", false, false, ML::Image::RG, 2, {0, 0, 3, 5}, 0, {0, 0, 3, 9}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {"left and top left alone", false, false, ML::Image::R, 1, {0, 0, 4, 3}, 0, {0, 0, 8, 6}, 0, {0, 0, 4, 3},
         {1, 1, 5, 4}, true},
    };
    for (const PaddingCase& c : cases) {
        if (c.f32)
            checkPadding<float>(c);
        else
            checkPadding<ML::u8>(c);
    }
}

TEST(BorderPadding, Errors) {
    TestImage<ML::u8> source(Rect{0, 0, 4, 4}, ML::Image::R, ML::U8, 1);
    TestImage<ML::u8> offTile(Rect{1, 0, 9, 6}, ML::Image::R, ML::U8, 1);
    std::string message = tiling_test::internalErrorOf([&] {
        copySrcToTileWithBorderPadding(Tile{Rect{0, 0, 4, 4}, Rect{1, 0, 5, 4}, {}, {}}, source.image, offTile.image);
    });
    EXPECT_TRUE(tiling_test::endsWithMessage(message, "expected tile rect to start at 0?")) << message;

    TestImage<float> floatTile(Rect{0, 0, 8, 8}, ML::Image::R, ML::F32, 1);
    message = tiling_test::internalErrorOf([&] {
        copySrcToTileWithBorderPadding(Tile{Rect{0, 0, 4, 4}, Rect{0, 0, 4, 4}, {}, {}}, source.image, floatTile.image);
    });
    EXPECT_NE(message.find("copySlice output image does not match input image format"), std::string::npos) << message;
}

}  // namespace
