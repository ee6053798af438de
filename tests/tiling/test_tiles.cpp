// Tiles of one axis and plans of a rectangle: exact layouts and the coverage of random regions.
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
using tiling_test::t;

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

    EXPECT_TRUE(tiling_test::failsWith([] { makeTiles1D(0, 100, 64, 32); },
                                       "execution size 64 must be larger than twice the overlap 32"));
    EXPECT_TRUE(tiling_test::failsWith([] { makeTiles1D(0, 100, 64, -1); }, "tile overlap must not be negative: -1"));
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
    EXPECT_EQ(plan.numTiles, 3 * 4);
    EXPECT_EQ(plan.execPixels, 256 * 128 * 12);
    EXPECT_EQ(plan.rect, rect);
    EXPECT_EQ(plan.overlap, 32);
    for (size_t xi = 0; xi < xs.size(); ++xi)
        for (size_t yi = 0; yi < ys.size(); ++yi) {
            const auto& tile = plan.tiles[xi * ys.size() + yi];
            EXPECT_EQ(ML::TiledExecution::tileAxisX(tile), xs[xi]);
            EXPECT_EQ(ML::TiledExecution::tileAxisY(tile), ys[yi]);
        }
}

}  // namespace
