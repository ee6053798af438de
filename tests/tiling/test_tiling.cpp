// Tile planning of the tiled execution: tiles of one axis and plans of a rectangle, the choice
// among execution sizes and the shared cache of plans, the mapping of plans to the input side of
// resolution-changing networks, and the filling of tile images with border padding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "Host/OwnedImage.h"
#include "Plugin/TiledExecution.h"
#include "util/ExpectMessage.h"
#include "util/LogCapture.h"

namespace {

using ML::Image;
using ML::Rect;
using namespace ML::TiledExecution;

// srcStart, srcEnd, srcTileStart, srcTileEnd, dstStart, dstEnd, dstTileStart, dstTileEnd
Tile1D t(int a, int b, int c, int d, int e, int f, int g, int h) {
    return Tile1D{a, b, c, d, e, f, g, h};
}

TEST(MakeTiles1D, ExactLayouts) {
    struct Case {
        int start, end, exec, overlap;
        std::vector<Tile1D> expected;
    };
    const Case cases[] = {
        {0, 1000, 256, 32,  // worked example
         {t(0, 256, 0, 256, 0, 224, 0, 224), t(192, 448, 0, 256, 224, 416, 32, 224),
          t(384, 640, 0, 256, 416, 608, 32, 224), t(576, 832, 0, 256, 608, 800, 32, 224),
          t(744, 1000, 0, 256, 800, 1000, 56, 256)}},
        {10, 110, 256, 32, {t(10, 110, 0, 100, 10, 110, 0, 100)}},    // short region: one tile of its length
        {-20, 236, 256, 32, {t(-20, 236, 0, 256, -20, 236, 0, 256)}},  // exactly the execution size
        {0, 64, 64, 32, {t(0, 64, 0, 64, 0, 64, 0, 64)}},              // fits, so any overlap is fine
        // One pixel longer: the second tile is pushed back to end on the region's end.
        {0, 257, 256, 32, {t(0, 256, 0, 256, 0, 224, 0, 224), t(1, 257, 0, 256, 224, 257, 223, 256)}},
        {0, 600, 256, 0,  // no overlap: abutting whole tiles
         {t(0, 256, 0, 256, 0, 256, 0, 256), t(256, 512, 0, 256, 256, 512, 0, 256),
          t(344, 600, 0, 256, 512, 600, 168, 256)}},
    };
    for (const Case& c : cases)
        EXPECT_EQ(makeTiles1D(c.start, c.end, c.exec, c.overlap), c.expected)
            << c.start << ".." << c.end << " exec " << c.exec << " overlap " << c.overlap;
    expectMessage([] { makeTiles1D(0, 100, 64, 32); }, "execution size 64 must be larger than twice the overlap 32");
    expectMessage([] { makeTiles1D(0, 100, 64, -1); }, "tile overlap must not be negative: -1");
}

// Checks the layout rules of the tiles of [s, e) and returns a description of the first fault.
::testing::AssertionResult tilesAreValid(const std::vector<Tile1D>& tiles, int s, int e, int E, int O) {
    const int length = e - s <= E ? e - s : E;
    int covered = s;
    for (size_t i = 0; i < tiles.size(); ++i) {
        const Tile1D& tile = tiles[i];
        const char* fault = nullptr;
        if (tile.srcEnd - tile.srcStart != length || tile.srcTileStart != 0 || tile.srcTileEnd != length)
            fault = "source length";
        else if (tile.srcStart < s || tile.srcEnd > e)
            fault = "source outside the region";
        else if (tile.dstStart != covered || tile.dstEnd <= tile.dstStart)
            fault = "gap, overlap or empty result";
        else if (tile.dstTileStart < 0 || tile.dstTileEnd > length ||
                 tile.dstTileEnd - tile.dstTileStart != tile.dstEnd - tile.dstStart ||
                 tile.srcStart + tile.dstTileStart != tile.dstStart)
            fault = "crop misplaced";
        else if ((i > 0 && tile.dstTileStart < O) || (i + 1 < tiles.size() && tile.dstTileEnd > length - O))
            fault = "overlap not discarded at a seam";  // overlap pixels are discarded on every inner side
        if (fault)
            return ::testing::AssertionFailure()
                   << "tile " << i << " of [" << s << "," << e << ") E " << E << " O " << O << ": " << fault;
        covered = tile.dstEnd;
    }
    if (covered != e) return ::testing::AssertionFailure() << "results end at " << covered << " not " << e;
    return ::testing::AssertionSuccess();
}

TEST(MakeTiles1D, RandomRegionsAreCoveredExactlyOnce) {
    std::mt19937 rng(1234);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    ASSERT_TRUE(tilesAreValid(makeTiles1D(0, 40, 9, 4), 0, 40, 9, 4));  // smallest progress: one pixel a tile
    for (int iteration = 0; iteration < 5000; ++iteration) {
        const int O = uniform(0, 64);
        const int E = uniform(2 * O + 1, 2 * O + 400);
        const int s = uniform(-300, 300);
        const int e = s + uniform(1, 3000);
        ASSERT_TRUE(tilesAreValid(makeTiles1D(s, e, E, O), s, e, E, O));
    }
}

TEST(MakePlan, XTilesOuterYTilesInnerEachOnItsOwnAxis) {
    const Rect rect{0, 0, 600, 300};
    const auto plan = makePlan(rect, 256, 128, 32);
    const auto xs = makeTiles1D(0, 600, 256, 32);
    const auto ys = makeTiles1D(0, 300, 128, 32);
    ASSERT_EQ(plan.tiles.size(), xs.size() * ys.size());
    EXPECT_EQ(std::tuple(plan.numTiles, plan.execPixels, plan.overlap), std::tuple(3 * 4, 256 * 128 * 12, 32));
    EXPECT_EQ(plan.rect, rect);
    for (size_t xi = 0; xi < xs.size(); ++xi)
        for (size_t yi = 0; yi < ys.size(); ++yi) {
            const auto& tile = plan.tiles[xi * ys.size() + yi];
            EXPECT_EQ(tileAxisX(tile), xs[xi]);
            EXPECT_EQ(tileAxisY(tile), ys[yi]);
        }
}

TEST(ChoosePlan, CheapestSizeWinsAndTiesKeepTheEarlier) {
    const struct {
        const char* what;
        Rect rect;
        int overlap;
        std::vector<ExecSize> sizes;  // (height, width)
        ExecSize expected;
    } cases[] = {
        // 300 x 300: four 256 tiles cost 262544, one 512 tile 262244.
        {"fewer wasted pixels", {0, 0, 300, 300}, 32, {{256, 256}, {512, 512}}, {512, 512}},
        {"fewer wasted pixels, other order", {0, 0, 300, 300}, 32, {{512, 512}, {256, 256}}, {512, 512}},
        {"equal scores, tall first", {0, 0, 300, 300}, 32, {{512, 256}, {256, 512}}, {512, 256}},
        {"equal scores, wide first", {0, 0, 300, 300}, 32, {{256, 512}, {512, 256}}, {256, 512}},
        {"height then width", {0, 0, 128, 64}, 8, {{64, 128}}, {64, 128}},
        {"tile cost breaks area ties", {0, 0, 200, 100}, 0, {{100, 100}, {100, 200}}, {100, 200}},
    };
    for (const auto& c : cases) {
        const ExecutionPlan plan = choosePlan(c.rect, ExecutionPlanMap(c.sizes), c.overlap);
        EXPECT_EQ(ExecSize(plan.execH, plan.execW), c.expected) << c.what;
        EXPECT_EQ(plan.tiles, makePlan(c.rect, plan.execW, plan.execH, c.overlap).tiles) << c.what;
    }
    ExecutionPlanMap none({});
    for (int attempt = 0; attempt < 2; ++attempt)  // a failed lookup leaves the map usable
        expectMessage([&] { none.get(Rect{0, 0, 10, 10}, 0); }, "no valid available execution plan?");
}

TEST(ExecutionPlanMap, SameKeyGivesTheSameStoredPlan) {
    struct ModelTileSize {
        int execH, execW;
    };
    ExecutionPlanMap map(toExecSizes(std::vector<ModelTileSize>{{256, 512}, {512, 512}}));
    EXPECT_EQ(map.sizes(), (std::vector<ExecSize>{{256, 512}, {512, 512}}));
    const Rect rect{0, 0, 1000, 700};
    const ExecutionPlan& first = map.get(rect, 32);
    EXPECT_EQ(std::tuple(first.rect, first.overlap, &map.get(rect, 32)), std::tuple(rect, 32, &first));

    // Every part of the key counts.
    EXPECT_EQ(map.get(rect, 16).overlap, 16);
    for (const Rect& other : {Rect{1, 0, 1000, 700}, Rect{0, 1, 1000, 700}, Rect{0, 0, 999, 700}, Rect{0, 0, 1000, 699}})
        EXPECT_EQ(map.get(other, 32).rect, other);

    // Stored plans stay where they are while the map grows.
    for (int i = 0; i < 500; ++i) map.get(Rect{0, 0, 300 + i, 300}, 32);
    EXPECT_EQ(&map.get(rect, 32), &first);
    EXPECT_EQ(first.rect, rect);
}

TEST(ExecutionPlanMap, ThreadsShareOnePlanPerKey) {
    ExecutionPlanMap map({{256, 256}, {512, 512}});
    const std::vector<Rect> rects = {{0, 0, 1920, 1080}, {0, 0, 300, 300}, {10, 20, 777, 555}, {-8, -8, 64, 64}};
    std::vector<std::set<const ExecutionPlan*>> seen(8 * rects.size());  // [thread * keys + key]: plans it got
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 200; ++round)
                for (size_t i = 0; i < rects.size(); ++i) {
                    const size_t k = (i + t) % rects.size();  // threads start on different keys
                    seen[t * rects.size() + k].insert(&map.get(rects[k], 32));
                }
        });
    for (auto& thread : threads) thread.join();
    for (size_t i = 0; i < seen.size(); ++i) {
        const ExecutionPlan* expected = &map.get(rects[i % rects.size()], 32);
        EXPECT_EQ(expected->rect, rects[i % rects.size()]);
        EXPECT_EQ(seen[i], std::set<const ExecutionPlan*>{expected})
            << "thread " << i / rects.size() << " key " << i % rects.size();
    }
}

// One tile mapped with an integer factor (scale 0) or a fractional scale (factor 0).
struct MappingCase {
    Tile1D tile;
    int limitStart, limitEnd, exec, factor;
    float scale;
    int origin;
    Tile1D expected;  // unused when `error` is set
    const char* error = nullptr;
    Tile1D map() const {
        return scale > 0.0f ? mapTileToScaledInput(tile, limitStart, limitEnd, exec, scale, origin)
                            : mapTileToUpresInput(tile, limitStart, limitEnd, exec, factor, origin);
    }
};

const Tile1D kMiddle = t(192, 448, 0, 256, 224, 416, 32, 224);  // middle tile of the worked example
const Tile1D kFirst = t(0, 256, 0, 256, 0, 224, 0, 224);

TEST(InputMapping, ExactTilesAndErrors) {
    const Tile1D kLast = t(745, 1001, 0, 256, 801, 1001, 56, 256);  // last tile of 1..1001
    const Tile1D kShort = t(0, 100, 0, 100, 0, 100, 0, 100);
    const MappingCase cases[] = {
        // Integer factor: an even start keeps the crop, an odd one moves it; a crop moved past
        // the tile moves to the next input pixel.
        {kMiddle, 0, 500, 256, 2, 0, 0, t(96, 224, 0, 128, 224, 416, 32, 224)},
        {t(1, 257, 0, 256, 1, 225, 0, 224), 0, 501, 256, 2, 0, 0, t(0, 128, 0, 128, 1, 225, 1, 225)},
        {kLast, 0, 501, 256, 2, 0, 0, t(373, 501, 0, 128, 801, 1001, 55, 255)},
        // The origin shifts the grid: input 6 lands on output 8.
        {t(8, 264, 0, 256, 8, 232, 0, 224), 0, 500, 256, 2, 0, 4, t(6, 134, 0, 128, 8, 232, 0, 224)},
        {t(9, 265, 0, 256, 9, 233, 0, 224), 0, 500, 256, 2, 0, 4, t(6, 134, 0, 128, 9, 233, 1, 225)},
        // A short tile widens to the right as far as the input allows.
        {kShort, 0, 200, 256, 2, 0, 0, t(0, 128, 0, 128, 0, 100, 0, 100)},
        {kShort, 0, 60, 256, 2, 0, 0, t(0, 60, 0, 60, 0, 100, 0, 100)},
        {t(10, 50, 0, 40, 10, 50, 0, 40), 0, 25, 256, 2, 0, 0, t(5, 25, 0, 20, 10, 50, 0, 40)},
        // Fractional scale: a range at the input's start starts the tile (clamped to the input);
        // one at its end sits at the tile's end, a narrow input leaving the left part empty.
        {kFirst, 0, 500, 256, 0, 2.0f, 0, kFirst},
        {kFirst, 0, 100, 256, 0, 2.0f, 0, t(0, 100, 0, 100, 0, 224, 0, 224)},
        {t(10, 266, 0, 256, 20, 244, 10, 234), 8, 500, 256, 0, 2.0f, 0, t(8, 264, 0, 256, 20, 244, 10, 234)},
        {t(744, 1000, 0, 256, 800, 1000, 56, 256), 0, 500, 256, 0, 2.0f, 0, t(244, 500, 0, 256, 800, 1000, 56, 256)},
        {t(700, 1000, 0, 300, 700, 1000, 0, 300), 300, 500, 256, 0, 2.0f, 0, t(300, 500, 56, 256, 700, 1000, 0, 300)},
        // An inner range is centred, the odd margin rounding toward the range (500 / 2.5 = 200,
        // ceil(756 / 2.5) = 303); origin 100: (300 - 100) / 2 + 100 = 200, (556 - 100) / 2 + 100
        // = 328; a window cut at the input's end.
        {kMiddle, 0, 500, 256, 0, 2.0f, 0, t(32, 288, 0, 256, 224, 416, 32, 224)},
        {t(500, 756, 0, 256, 532, 724, 32, 224), 0, 1000, 256, 0, 2.5f, 0, t(124, 380, 0, 256, 532, 724, 32, 224)},
        {t(300, 556, 0, 256, 332, 524, 32, 224), 0, 1000, 256, 0, 2.0f, 100, t(136, 392, 0, 256, 332, 524, 32, 224)},
        {kMiddle, 0, 250, 256, 0, 2.0f, 0, t(32, 250, 0, 218, 224, 416, 32, 224)},
        // Errors.
        {kFirst, 0, 500, 255, 2, 0, 0, {}, "exec size out should be multiple of upres factor!"},
        {kFirst, 0, 500, 256, 3, 0, 0, {}, "exec size out should be multiple of upres factor!"},
        {kFirst, 0, 500, 256, 0, 0, 0, {}, "exec size out should be multiple of upres factor!"},
        // A crop that fills the tile cannot move by one pixel to the left of it.
        {t(1, 257, 0, 256, 1, 257, 0, 256), 0, 500, 256, 2, 0, 0, {}, "patch out of range?"},
        {kFirst, 1, 500, 256, 2, 0, 0, {}, "input start out of range?"},
        {kLast, 0, 500, 256, 2, 0, 0, {}, "input end out of range?"},
        {t(0, 300, 0, 300, 0, 200, 0, 200), 0, 500, 256, 2, 0, 0, {}, "Whaa?"},
        // A short tile whose result start is off the input start (origin 4: input 7, 10 / 2 = 5).
        {t(10, 50, 0, 40, 10, 50, 0, 40), 0, 500, 256, 2, 0, 4, {}, "huh?\n"},
        {kMiddle, 0, 2000, 256, 0, 0.5f, 0, {}, "???\n"},  // a range longer than the window
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const MappingCase& c = cases[i];
        SCOPED_TRACE(i);
        if (c.error) expectMessage([&] { c.map(); }, c.error);
        else EXPECT_EQ(c.map(), c.expected);
    }

    // A degenerate scale stays inside the input.
    for (const float scale : {1e-20f, 1e20f}) {
        const Tile1D in = mapTileToScaledInput(kMiddle, 10, 500, 256, scale, 0);
        EXPECT_GE(in.srcStart, 10) << scale;
        EXPECT_LE(in.srcEnd, 500) << scale;
        EXPECT_EQ(in.srcEnd - in.srcStart, in.srcTileEnd - in.srcTileStart) << scale;
    }
}

// Every mapped tile must put each result pixel at the output position its input pixels produce.
TEST(InputMapping, RandomUpresPlansStayConsistent) {
    std::mt19937 rng(7);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int iteration = 0; iteration < 3000; ++iteration) {
        const int factor = uniform(1, 4);
        const int execOut = factor * uniform(8, 64);
        // Off-grid starts move crops by up to factor - 1 pixels, which the overlap must absorb.
        const int overlap = uniform(factor - 1, (execOut - 1) / 2);
        int origin = uniform(0, 3);
        int length = uniform(1, 1000);
        if (length <= execOut) {
            // A short region is expected on the grid of origin 0, with room for its moved crop.
            origin = 0;
            length = std::min(length, execOut - factor);
            if (length < 1) continue;
        }
        const int s = origin + uniform(0, 40);
        const int e = s + length;
        const int limitStart = (s - origin) / factor + origin;
        const int limitEnd = (e - origin + factor - 1) / factor + origin;
        SCOPED_TRACE(::testing::Message() << "factor " << factor << " exec " << execOut << " overlap " << overlap
                                          << " origin " << origin << " region " << s << ".." << e);
        for (const Tile1D& tile : makeTiles1D(s, e, execOut, overlap)) {
            Tile1D in;
            ASSERT_NO_THROW(in = mapTileToUpresInput(tile, limitStart, limitEnd, execOut, factor, origin));
            ASSERT_EQ(std::tuple(in.dstStart, in.dstEnd, in.srcTileStart), std::tuple(tile.dstStart, tile.dstEnd, 0));
            ASSERT_EQ(in.srcEnd - in.srcStart, in.srcTileEnd);
            ASSERT_TRUE(in.srcTileEnd <= execOut / factor && in.srcStart >= limitStart && in.srcEnd <= limitEnd);
            ASSERT_TRUE(in.dstTileStart >= 0 && in.dstTileEnd <= in.srcTileEnd * factor);
            ASSERT_EQ(in.dstTileEnd - in.dstTileStart, in.dstEnd - in.dstStart);
            ASSERT_EQ((in.srcStart - origin) * factor + origin + in.dstTileStart, in.dstStart);
        }
    }
}

// Whole plans keep their result side and counts, and map each axis with its own size, limits and
// origin.
TEST(InputMapping, PlansMapEachAxis) {
    struct PlanCase {
        ExecutionPlan plan, mapped;
        std::function<Tile1D(const Tile1D&)> x, y;
    };
    const ExecutionPlan upres = makePlan(Rect{1, 2, 1001, 602}, 256, 128, 16);
    const ExecutionPlan scaled = makePlan(Rect{0, 0, 1000, 400}, 256, 128, 32);
    const PlanCase cases[] = {
        {upres, mapPlanToUpresInput(upres, Rect{0, 0, 501, 302}, 2, 1, 2),
         [](const Tile1D& a) { return mapTileToUpresInput(a, 0, 501, 256, 2, 1); },
         [](const Tile1D& a) { return mapTileToUpresInput(a, 0, 302, 128, 2, 2); }},
        {scaled, mapPlanToScaledInput(scaled, Rect{0, 0, 400, 160}, 2.5f, 3, 4),
         [](const Tile1D& a) { return mapTileToScaledInput(a, 0, 400, 256, 2.5f, 3); },
         [](const Tile1D& a) { return mapTileToScaledInput(a, 0, 160, 128, 2.5f, 4); }},
    };
    for (const PlanCase& c : cases) {
        EXPECT_EQ(c.mapped.rect, c.plan.rect);
        EXPECT_EQ(std::tuple(c.mapped.execW, c.mapped.execH, c.mapped.numTiles),
                  std::tuple(c.plan.execW, c.plan.execH, c.plan.numTiles));
        ASSERT_EQ(c.mapped.tiles.size(), c.plan.tiles.size());
        for (size_t i = 0; i < c.plan.tiles.size(); ++i) {
            EXPECT_EQ(tileAxisX(c.mapped.tiles[i]), c.x(tileAxisX(c.plan.tiles[i]))) << "tile " << i;
            EXPECT_EQ(tileAxisY(c.mapped.tiles[i]), c.y(tileAxisY(c.plan.tiles[i]))) << "tile " << i;
        }
    }
}

using Owned = ML::Ptr<QHost::OwnedImage>;

// Source samples, distinct per pixel and channel; every byte of a tile image starts as 0xff,
// which reads as -1 (NaN in F32, 255 in U8): left alone.
float sourceValue(int x, int y, int c) { return static_cast<float>((x * 31 + y * 7 + c * 3) & 0x7f); }

Owned filled(const Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, ML::u32 rowPadding, bool pattern) {
    Owned image = QHost::OwnedImage::make(rect, format, layout, type, rowPadding);
    std::fill(image->storage(), image->storage() + image->byteSize(), std::byte{0xff});  // padding too
    for (int y = rect.y0; y < rect.y1 && pattern; ++y)
        for (int x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c) {
                if (type == ML::U8) image->at<ML::u8>(x, y, c) = static_cast<ML::u8>(sourceValue(x, y, int(c)));
                else image->at<float>(x, y, c) = sourceValue(x, y, int(c));
            }
    return image;
}

float sampleOf(const QHost::OwnedImage& image, int x, int y, ML::u32 c) {
    const float v = image.getDataType() == ML::U8 ? image.at<ML::u8>(x, y, c) : image.at<float>(x, y, c);
    return std::isnan(v) || v == 255 ? -1.0f : v;
}

TEST(BorderPadding, RepeatsLastColumnRowAndCorner) {
    const struct {
        ML::u32 format, layout, type;
        Rect sourceImage, tileImage;
        ML::u32 rowPadding;
        Rect src, srcTile;   // the tile's source rectangle and where it lands in the tile image
        bool leftTopWarned;  // left and top padding are not done, only warned about
    } cases[] = {
        // Short source: the last column, row and corner are repeated.
        {Image::RGB, Image::HWC, ML::U8, {0, 0, 5, 4}, {0, 0, 8, 6}, 0, {0, 0, 5, 4}, {0, 0, 5, 4}, false},
        // Source with its own origin and padded rows.
        {Image::RGBA, Image::HWC, ML::F32, {10, 20, 17, 26}, {0, 0, 8, 8}, 12, {12, 21, 17, 26}, {0, 0, 5, 5}, false},
        {Image::RGB, Image::CHW, ML::F32, {0, 0, 3, 2}, {0, 0, 4, 4}, 4, {0, 0, 3, 2}, {0, 0, 3, 2}, false},  // planar
        // A full tile is a plain copy; padding only on the right or only at the bottom.
        {Image::R, Image::HWC, ML::U8, {0, 0, 20, 20}, {0, 0, 6, 4}, 0, {7, 9, 13, 13}, {0, 0, 6, 4}, false},
        {Image::RG, Image::HWC, ML::U8, {0, 0, 3, 5}, {0, 0, 6, 5}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {Image::RG, Image::HWC, ML::U8, {0, 0, 3, 5}, {0, 0, 3, 9}, 0, {0, 0, 3, 5}, {0, 0, 3, 5}, false},
        {Image::R, Image::HWC, ML::U8, {0, 0, 4, 3}, {0, 0, 8, 6}, 0, {0, 0, 4, 3}, {1, 1, 5, 4}, true},
    };
    const std::vector<std::string> warnings = {"[Quillon] [W] TODO: pad left in copySrcToTileWithBorderPadding",
                                               "[Quillon] [W] TODO: pad top in copySrcToTileWithBorderPadding"};
    for (size_t i = 0; i < std::size(cases); ++i) {
        const auto& c = cases[i];
        Owned source = filled(c.sourceImage, c.format, c.layout, c.type, c.rowPadding, true);
        Owned tile = filled(c.tileImage, c.format, c.layout, c.type, c.rowPadding, false);
        {
            LogCapture log;
            copySrcToTileWithBorderPadding(Tile{c.src, c.srcTile, c.src, c.srcTile}, source, tile);
            EXPECT_EQ(log.lines(), c.leftTopWarned ? warnings : std::vector<std::string>{}) << "case " << i;
        }

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
                    ASSERT_EQ(sampleOf(*tile, x, y, ch), expected) << "case " << i << " at " << x << "," << y << "," << ch;
                }
        // The row padding stays untouched.
        const auto* bytes = reinterpret_cast<const ML::u8*>(tile->storage());
        for (ML::u64 row = 0; row < tile->byteSize() / tile->getRowBytes(); ++row)
            for (ML::u32 b = tile->getRowBytes() - c.rowPadding; b < tile->getRowBytes(); ++b)
                ASSERT_EQ(bytes[row * tile->getRowBytes() + b], 0xff) << "case " << i << " row " << row;
    }
}

TEST(BorderPadding, TileImageMustStartAtTheOrigin) {
    Owned source = QHost::OwnedImage::make(Rect{0, 0, 4, 4}, Image::R, Image::HWC, ML::U8);
    Owned offTile = QHost::OwnedImage::make(Rect{1, 0, 9, 6}, Image::R, Image::HWC, ML::U8);
    expectMessage([&] { copySrcToTileWithBorderPadding(Tile{Rect{0, 0, 4, 4}, Rect{1, 0, 5, 4}, {}, {}}, source, offTile); },
                  "expected tile rect to start at 0?");
}

}  // namespace
