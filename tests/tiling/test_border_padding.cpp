// Filling a tile image from a source image, repeating the last column, row and corner.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Host/CollectingLogger.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginLogger.h"
#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Image;
using ML::Rect;
using ML::TiledExecution::copySrcToTileWithBorderPadding;
using ML::TiledExecution::Tile;
using Owned = ML::Ptr<QHost::OwnedImage>;

// Source samples, distinct per pixel and channel; -1 (255 in U8) marks samples left alone.
float sourceValue(int x, int y, int c) { return static_cast<float>((x * 31 + y * 7 + c * 3) & 0x7f); }

Owned filled(const Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, ML::u32 rowPadding, bool pattern) {
    Owned image = QHost::OwnedImage::make(rect, format, layout, type, rowPadding);
    std::fill(image->storage(), image->storage() + image->byteSize(), std::byte{0xff});  // padding too
    for (int y = rect.y0; y < rect.y1; ++y)
        for (int x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c) {
                const float v = pattern ? sourceValue(x, y, static_cast<int>(c)) : -1.0f;
                if (type == ML::U8)
                    image->at<ML::u8>(x, y, c) = static_cast<ML::u8>(v);
                else
                    image->at<float>(x, y, c) = v;
            }
    return image;
}

float sampleOf(const QHost::OwnedImage& image, int x, int y, ML::u32 c) {
    if (image.getDataType() != ML::U8) return image.at<float>(x, y, c);
    const ML::u8 v = image.at<ML::u8>(x, y, c);
    return v == 255 ? -1.0f : v;
}

TEST(BorderPadding, RepeatsLastColumnRowAndCorner) {
    struct Case {
        const char* what;
        ML::u32 format, layout, type;
        Rect sourceImage, tileImage;
        ML::u32 rowPadding;
        Rect src, srcTile;   // the tile's source rectangle and where it lands in the tile image
        bool leftTopWarned;  // left and top padding are not done, only warned about
    };
    const Case cases[] = {
        {"short source, both sides", Image::RGB, Image::HWC, ML::U8, {0, 0, 5, 4}, {0, 0, 8, 6}, 0, {0, 0, 5, 4},
         {0, 0, 5, 4}, false},
        {"source origin and padded rows", Image::RGBA, Image::HWC, ML::F32, {10, 20, 17, 26}, {0, 0, 8, 8}, 12,
         {12, 21, 17, 26}, {0, 0, 5, 5}, false},
        {"planar", Image::RGB, Image::CHW, ML::F32, {0, 0, 3, 2}, {0, 0, 4, 4}, 4, {0, 0, 3, 2}, {0, 0, 3, 2}, false},
        {"full tile is a plain copy", Image::R, Image::HWC, ML::U8, {0, 0, 20, 20}, {0, 0, 6, 4}, 0, {7, 9, 13, 13},
         {0, 0, 6, 4}, false},
        {"only right", Image::RG, Image::HWC, ML::U8, {0, 0, 3, 5}, {0, 0, 6, 5}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {"only bottom", Image::RG, Image::HWC, ML::U8, {0, 0, 3, 5}, {0, 0, 3, 9}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {"left and top left alone", Image::R, Image::HWC, ML::U8, {0, 0, 4, 3}, {0, 0, 8, 6}, 0, {0, 0, 4, 3},
         {1, 1, 5, 4}, true},
    };
    const std::vector<std::string> warnings = {"[Quillon] [W] TODO: pad left in copySrcToTileWithBorderPadding",
                                               "[Quillon] [W] TODO: pad top in copySrcToTileWithBorderPadding"};
    for (const Case& c : cases) {
        Owned source = filled(c.sourceImage, c.format, c.layout, c.type, c.rowPadding, true);
        Owned tile = filled(c.tileImage, c.format, c.layout, c.type, c.rowPadding, false);
        QHost::CollectingLogger log;
        ML::PluginLogger plugin(ML::LOG_VERBOSE);
        ML::g_hostLogger = &log;
        ML::g_pluginLogger = &plugin;
        copySrcToTileWithBorderPadding(Tile{c.src, c.srcTile, c.src, c.srcTile}, source, tile);
        ML::g_pluginLogger = nullptr;
        ML::g_hostLogger = nullptr;
        EXPECT_EQ(log.lines(), c.leftTopWarned ? warnings : std::vector<std::string>{}) << c.what;

        // Inside the tile's source rectangle a copy, right of and below it the last column, row
        // and corner repeated, left of and above it untouched.
        for (int y = 0; y < c.tileImage.y1; ++y)
            for (int x = 0; x < c.tileImage.x1; ++x)
                for (ML::u32 ch = 0; ch < tile->channels(); ++ch) {
                    const float expected =
                        x < c.srcTile.x0 || y < c.srcTile.y0
                            ? -1.0f
                            : sourceValue(c.src.x0 + std::min(x - c.srcTile.x0, c.src.width() - 1),
                                          c.src.y0 + std::min(y - c.srcTile.y0, c.src.height() - 1), int(ch));
                    ASSERT_EQ(sampleOf(*tile, x, y, ch), expected) << c.what << " at " << x << "," << y << "," << ch;
                }
        // The row padding stays untouched.
        const auto* bytes = reinterpret_cast<const ML::u8*>(tile->storage());
        for (ML::u64 row = 0; row < tile->byteSize() / tile->getRowBytes(); ++row)
            for (ML::u32 b = tile->getRowBytes() - c.rowPadding; b < tile->getRowBytes(); ++b)
                ASSERT_EQ(bytes[row * tile->getRowBytes() + b], 0xff) << c.what << " row " << row;
    }
}

TEST(BorderPadding, TileImageMustStartAtTheOrigin) {
    Owned source = QHost::OwnedImage::make(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::U8);
    Owned offTile = QHost::OwnedImage::make(Rect{1, 0, 9, 6}, Image::R, Image::HWC, ML::U8);
    EXPECT_TRUE(tiling_test::failsWith(
        [&] { copySrcToTileWithBorderPadding(Tile{Rect{0, 0, 4, 4}, Rect{1, 0, 5, 4}, {}, {}}, source, offTile); },
        "expected tile rect to start at 0?"));
}

}  // namespace
