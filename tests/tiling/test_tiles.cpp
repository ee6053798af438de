// Tiles of one axis and plans of a rectangle: exact layouts and coverage properties.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Rect;
using ML::TiledExecution::makePlan;
using ML::TiledExecution::makeTiles1D;
using ML::TiledExecution::Tile1D;

// srcStart, srcEnd, srcTileStart, srcTileEnd, dstStart, dstEnd, dstTileStart, dstTileEnd
Tile1D t(int a, int b, int c, int d, int e, int f, int g, int h) { return Tile1D{a, b, c, d, e, f, g, h}; }

TEST(MakeTiles1D, WorkedExample) {
    const std::vector<Tile1D> tiles = makeTiles1D(0, 1000, 256, 32);
    const std::vector<Tile1D> expected = {
        t(0, 256, 0, 256, 0, 224, 0, 224),        t(192, 448, 0, 256, 224, 416, 32, 224),
        t(384, 640, 0, 256, 416, 608, 32, 224),   t(576, 832, 0, 256, 608, 800, 32, 224),
        t(744, 1000, 0, 256, 800, 1000, 56, 256),
    };
    EXPECT_EQ(tiles, expected);
}

TEST(MakeTiles1D, ShortRegionGivesOneTileOfItsOwnLength) {
    EXPECT_EQ(makeTiles1D(10, 110, 256, 32), std::vector<Tile1D>{t(10, 110, 0, 100, 10, 110, 0, 100)});
    // Exactly the execution size is still one tile.
    EXPECT_EQ(makeTiles1D(-20, 236, 256, 32), std::vector<Tile1D>{t(-20, 236, 0, 256, -20, 236, 0, 256)});
}

TEST(MakeTiles1D, OnePixelLongerThanExecutionSize) {
    // The second tile is pushed back to end on the region's end, so its crop starts late.
    const std::vector<Tile1D> expected = {t(0, 256, 0, 256, 0, 224, 0, 224), t(1, 257, 0, 256, 224, 257, 223, 256)};
    EXPECT_EQ(makeTiles1D(0, 257, 256, 32), expected);
}

TEST(MakeTiles1D, ZeroOverlapGivesAbuttingWholeTiles) {
    const std::vector<Tile1D> expected = {
        t(0, 256, 0, 256, 0, 256, 0, 256),
        t(256, 512, 0, 256, 256, 512, 0, 256),
        t(344, 600, 0, 256, 512, 600, 168, 256),
    };
    EXPECT_EQ(makeTiles1D(0, 600, 256, 0), expected);
}

TEST(MakeTiles1D, RejectsOverlapThatLeavesNoProgress) {
    // A region that fits needs no progress, so any overlap is accepted there.
    EXPECT_EQ(makeTiles1D(0, 64, 64, 32).size(), 1u);
    EXPECT_NE(tiling_test::internalErrorOf([] { makeTiles1D(0, 100, 64, 32); }).find("twice the overlap"),
              std::string::npos);
    EXPECT_NE(tiling_test::internalErrorOf([] { makeTiles1D(0, 100, 64, -1); }).find("negative"), std::string::npos);
}

// Checks the layout rules of the tiles of [s, e) and returns a description of the first fault.
::testing::AssertionResult tilesAreValid(const std::vector<Tile1D>& tiles, int s, int e, int E, int O) {
    if (tiles.empty()) return ::testing::AssertionFailure() << "no tiles";
    const int expectedSrcLength = e - s <= E ? e - s : E;
    int covered = s;
    for (size_t i = 0; i < tiles.size(); ++i) {
        const Tile1D& tile = tiles[i];
        auto fail = [&]() {
            return ::testing::AssertionFailure()
                   << "tile " << i << " of [" << s << "," << e << ") E " << E << " O " << O << ": ";
        };
        if (tile.srcEnd - tile.srcStart != expectedSrcLength) return fail() << "source length";
        if (tile.srcStart < s || tile.srcEnd > e) return fail() << "source outside the region";
        if (tile.srcTileStart != 0 || tile.srcTileEnd != expectedSrcLength) return fail() << "input tile range";
        if (tile.dstStart != covered) return fail() << "gap or overlap of results at " << covered;
        if (tile.dstEnd <= tile.dstStart) return fail() << "empty result";
        if (tile.dstTileStart < tile.srcTileStart || tile.dstTileEnd > tile.srcTileEnd)
            return fail() << "crop outside tile";
        if (tile.dstTileEnd - tile.dstTileStart != tile.dstEnd - tile.dstStart) return fail() << "crop length";
        if (tile.srcStart + (tile.dstTileStart - tile.srcTileStart) != tile.dstStart) return fail() << "crop misplaced";
        // Seams: overlap pixels are discarded on every inner side.
        if (i > 0 && tile.dstTileStart < O) return fail() << "too little discarded on the left";
        if (i + 1 < tiles.size() && tile.dstTileEnd > tile.srcTileEnd - O)
            return fail() << "too little discarded on the right";
        covered = tile.dstEnd;
    }
    if (covered != e) return ::testing::AssertionFailure() << "results end at " << covered << " not " << e;
    return ::testing::AssertionSuccess();
}

TEST(MakeTiles1D, RandomRegionsAreCoveredExactlyOnce) {
    std::mt19937 rng(1234);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int iteration = 0; iteration < 20000; ++iteration) {
        const int O = uniform(0, 64);
        const int E = uniform(2 * O + 1, 2 * O + 400);
        const int s = uniform(-300, 300);
        const int e = s + uniform(1, 3000);
        ASSERT_TRUE(tilesAreValid(makeTiles1D(s, e, E, O), s, e, E, O));
    }
}

TEST(MakeTiles1D, SmallestProgressStillTerminatesAndCovers) {
    // E = 2 * O + 1 advances one pixel per inner tile.
    const std::vector<Tile1D> tiles = makeTiles1D(0, 40, 9, 4);
    EXPECT_TRUE(tilesAreValid(tiles, 0, 40, 9, 4));
}

TEST(MakePlan, XTilesOuterYTilesInner) {
    const Rect rect{0, 0, 600, 300};
    const auto plan = makePlan(rect, 256, 256, 32);
    const auto xs = makeTiles1D(0, 600, 256, 32);
    const auto ys = makeTiles1D(0, 300, 256, 32);
    ASSERT_EQ(xs.size(), 3u);
    ASSERT_EQ(ys.size(), 2u);
    ASSERT_EQ(plan.tiles.size(), 6u);
    EXPECT_EQ(plan.numTiles, 6);
    EXPECT_EQ(plan.execPixels, 256 * 256 * 6);
    EXPECT_EQ(plan.rect, rect);
    EXPECT_EQ(plan.overlap, 32);
    for (size_t xi = 0; xi < xs.size(); ++xi)
        for (size_t yi = 0; yi < ys.size(); ++yi) {
            const auto& tile = plan.tiles[xi * ys.size() + yi];
            EXPECT_EQ(ML::TiledExecution::tileAxisX(tile), xs[xi]);
            EXPECT_EQ(ML::TiledExecution::tileAxisY(tile), ys[yi]);
        }
}

TEST(MakePlan, WidthAndHeightGoToTheirOwnAxes) {
    const auto plan = makePlan(Rect{0, 0, 300, 100}, 512, 64, 8);
    EXPECT_EQ(plan.execW, 512);
    EXPECT_EQ(plan.execH, 64);
    // One short tile across, several tiles of 64 down.
    ASSERT_EQ(plan.numTiles, static_cast<int>(makeTiles1D(0, 100, 64, 8).size()));
    for (const auto& tile : plan.tiles) {
        EXPECT_EQ(tile.srcRect.x0, 0);
        EXPECT_EQ(tile.srcRect.x1, 300);
        EXPECT_EQ(tile.srcRect.height(), 64);
    }
    EXPECT_EQ(plan.execPixels, 512 * 64 * plan.numTiles);
}

TEST(MakePlan, TileRectanglesAreTheAxesSideBySide) {
    const ML::TiledExecution::Tile tile =
        ML::TiledExecution::makeTile(t(1, 2, 3, 4, 5, 6, 7, 8), t(11, 12, 13, 14, 15, 16, 17, 18));
    EXPECT_EQ(tile.srcRect, (Rect{1, 11, 2, 12}));
    EXPECT_EQ(tile.srcTileRect, (Rect{3, 13, 4, 14}));
    EXPECT_EQ(tile.dstRect, (Rect{5, 15, 6, 16}));
    EXPECT_EQ(tile.dstTileRect, (Rect{7, 17, 8, 18}));
}

TEST(MakePlan, RandomPlansCoverTheirRectangleExactlyOnce) {
    std::mt19937 rng(99);
    auto uniform = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    for (int iteration = 0; iteration < 300; ++iteration) {
        const int O = uniform(0, 16);
        const int execW = uniform(2 * O + 1, 2 * O + 120);
        const int execH = uniform(2 * O + 1, 2 * O + 120);
        const int x0 = uniform(-50, 50);
        const int y0 = uniform(-50, 50);
        const Rect r{x0, y0, x0 + uniform(1, 400), y0 + uniform(1, 400)};
        const auto plan = makePlan(r, execW, execH, O);
        ASSERT_EQ(plan.numTiles, static_cast<int>(plan.tiles.size()));

        std::vector<int> count(static_cast<size_t>(r.width()) * r.height(), 0);
        for (const auto& tile : plan.tiles) {
            ASSERT_TRUE(ML::covers(r, tile.dstRect)) << tile.dstRect.toString() << " outside " << r.toString();
            for (int y = tile.dstRect.y0; y < tile.dstRect.y1; ++y)
                for (int x = tile.dstRect.x0; x < tile.dstRect.x1; ++x)
                    ++count[static_cast<size_t>(y - r.y0) * r.width() + (x - r.x0)];
        }
        for (size_t i = 0; i < count.size(); ++i)
            ASSERT_EQ(count[i], 1) << "pixel " << i << " of " << r.toString() << " exec " << execW << "x" << execH
                                   << " overlap " << O;
    }
}

}  // namespace
