// Mapping plans made on the result's grid to the input side of resolution-changing networks.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Rect;
using ML::TiledExecution::ExecutionPlan;
using ML::TiledExecution::makePlan;
using ML::TiledExecution::makeTiles1D;
using ML::TiledExecution::mapPlanToScaledInput;
using ML::TiledExecution::mapPlanToUpresInput;
using ML::TiledExecution::mapTileToScaledInput;
using ML::TiledExecution::mapTileToUpresInput;
using ML::TiledExecution::Tile1D;
using tiling_test::endsWithMessage;
using tiling_test::internalErrorOf;

// srcStart, srcEnd, srcTileStart, srcTileEnd, dstStart, dstEnd, dstTileStart, dstTileEnd
Tile1D t(int a, int b, int c, int d, int e, int f, int g, int h) { return Tile1D{a, b, c, d, e, f, g, h}; }

// ---- integer factor ----

TEST(UpresMapping, EvenStartKeepsTheCrop) {
    // Middle tile of the worked example, factor 2: input 96..224 feeds output 192..448.
    EXPECT_EQ(mapTileToUpresInput(t(192, 448, 0, 256, 224, 416, 32, 224), 0, 500, 256, 2, 0),
              t(96, 224, 0, 128, 224, 416, 32, 224));
}

TEST(UpresMapping, OddStartMovesTheCropByOne) {
    // First tile of the region 1..1001: input 0 lands on output 0, one before the source start.
    EXPECT_EQ(mapTileToUpresInput(t(1, 257, 0, 256, 1, 225, 0, 224), 0, 501, 256, 2, 0),
              t(0, 128, 0, 128, 1, 225, 1, 225));
}

TEST(UpresMapping, CropPastTheTileMovesToTheNextInputPixel) {
    // Last tile of 1..1001: the moved crop would end at 257, so the input starts one pixel later.
    EXPECT_EQ(mapTileToUpresInput(t(745, 1001, 0, 256, 801, 1001, 56, 256), 0, 501, 256, 2, 0),
              t(373, 501, 0, 128, 801, 1001, 55, 255));
}

TEST(UpresMapping, OriginShiftsTheGrid) {
    // o = (i - 4) * 2 + 4: input 6 lands on output 8.
    EXPECT_EQ(mapTileToUpresInput(t(8, 264, 0, 256, 8, 232, 0, 224), 0, 500, 256, 2, 4),
              t(6, 134, 0, 128, 8, 232, 0, 224));
    EXPECT_EQ(mapTileToUpresInput(t(9, 265, 0, 256, 9, 233, 0, 224), 0, 500, 256, 2, 4),
              t(6, 134, 0, 128, 9, 233, 1, 225));
}

TEST(UpresMapping, ShortTileWidensToTheRightAsFarAsTheInputAllows) {
    EXPECT_EQ(mapTileToUpresInput(t(0, 100, 0, 100, 0, 100, 0, 100), 0, 200, 256, 2, 0),
              t(0, 128, 0, 128, 0, 100, 0, 100));
    EXPECT_EQ(mapTileToUpresInput(t(0, 100, 0, 100, 0, 100, 0, 100), 0, 60, 256, 2, 0),
              t(0, 60, 0, 60, 0, 100, 0, 100));
    EXPECT_EQ(mapTileToUpresInput(t(10, 50, 0, 40, 10, 50, 0, 40), 0, 25, 256, 2, 0), t(5, 25, 0, 20, 10, 50, 0, 40));
}

TEST(UpresMapping, Errors) {
    auto fails = [](const Tile1D& tile, int limitStart, int limitEnd, int execOut, int factor, int origin,
                    const std::string& message) {
        return endsWithMessage(
            internalErrorOf([&] { mapTileToUpresInput(tile, limitStart, limitEnd, execOut, factor, origin); }),
            message);
    };
    const Tile1D first = t(0, 256, 0, 256, 0, 224, 0, 224);
    EXPECT_TRUE(fails(first, 0, 500, 255, 2, 0, "exec size out should be multiple of upres factor!"));
    EXPECT_TRUE(fails(first, 0, 500, 256, 3, 0, "exec size out should be multiple of upres factor!"));
    EXPECT_TRUE(fails(first, 0, 500, 256, 0, 0, "exec size out should be multiple of upres factor!"));
    // A crop that fills the tile cannot move by one pixel to the left of it.
    EXPECT_TRUE(fails(t(1, 257, 0, 256, 1, 257, 0, 256), 0, 500, 256, 2, 0, "patch out of range?"));
    EXPECT_TRUE(fails(first, 1, 500, 256, 2, 0, "input start out of range?"));
    EXPECT_TRUE(fails(t(745, 1001, 0, 256, 801, 1001, 56, 256), 0, 500, 256, 2, 0, "input end out of range?"));
    EXPECT_TRUE(fails(t(0, 300, 0, 300, 0, 200, 0, 200), 0, 500, 256, 2, 0, "Whaa?"));
    // A short tile whose result start is off the input start (origin 4: input 7, result start 10 / 2 = 5).
    EXPECT_TRUE(fails(t(10, 50, 0, 40, 10, 50, 0, 40), 0, 500, 256, 2, 4, "huh?\n"));
}

// Every mapped tile must put each result pixel at the output position its input pixels produce.
TEST(UpresMapping, RandomPlansStayConsistent) {
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
        const int execIn = execOut / factor;
        SCOPED_TRACE(::testing::Message() << "factor " << factor << " exec " << execOut << " overlap " << overlap
                                          << " origin " << origin << " region " << s << ".." << e);
        for (const Tile1D& tile : makeTiles1D(s, e, execOut, overlap)) {
            Tile1D in;
            ASSERT_NO_THROW(in = mapTileToUpresInput(tile, limitStart, limitEnd, execOut, factor, origin));
            ASSERT_EQ(in.dstStart, tile.dstStart);
            ASSERT_EQ(in.dstEnd, tile.dstEnd);
            ASSERT_EQ(in.srcTileStart, 0);
            ASSERT_EQ(in.srcEnd - in.srcStart, in.srcTileEnd);
            ASSERT_LE(in.srcTileEnd, execIn);
            ASSERT_GE(in.srcStart, limitStart);
            ASSERT_LE(in.srcEnd, limitEnd);
            ASSERT_GE(in.dstTileStart, 0);
            ASSERT_LE(in.dstTileEnd, in.srcTileEnd * factor);
            ASSERT_EQ(in.dstTileEnd - in.dstTileStart, in.dstEnd - in.dstStart);
            ASSERT_EQ((in.srcStart - origin) * factor + origin + in.dstTileStart, in.dstStart);
        }
    }
}

TEST(UpresMapping, PlanKeepsItsCountsAndMapsEachAxis) {
    const ExecutionPlan plan = makePlan(Rect{1, 0, 1001, 600}, 256, 128, 16);
    const Rect input{0, 0, 501, 300};
    const ExecutionPlan mapped = mapPlanToUpresInput(plan, input, 2, 0, 0);
    EXPECT_EQ(mapped.rect, plan.rect);
    EXPECT_EQ(mapped.execW, 256);
    EXPECT_EQ(mapped.execH, 128);
    EXPECT_EQ(mapped.overlap, 16);
    EXPECT_EQ(mapped.numTiles, plan.numTiles);
    EXPECT_EQ(mapped.execPixels, plan.execPixels);
    ASSERT_EQ(mapped.tiles.size(), plan.tiles.size());
    for (size_t i = 0; i < plan.tiles.size(); ++i) {
        using ML::TiledExecution::tileAxisX;
        using ML::TiledExecution::tileAxisY;
        EXPECT_EQ(tileAxisX(mapped.tiles[i]), mapTileToUpresInput(tileAxisX(plan.tiles[i]), 0, 501, 256, 2, 0));
        EXPECT_EQ(tileAxisY(mapped.tiles[i]), mapTileToUpresInput(tileAxisY(plan.tiles[i]), 0, 300, 128, 2, 0));
        EXPECT_EQ(mapped.tiles[i].dstRect, plan.tiles[i].dstRect);
    }
}

TEST(UpresMapping, PlanErrorsComeFromTheAxisThatFails) {
    const ExecutionPlan plan = makePlan(Rect{0, 0, 1000, 600}, 256, 256, 32);
    EXPECT_TRUE(endsWithMessage(internalErrorOf([&] {
                                    mapPlanToUpresInput(plan, Rect{0, 0, 500, 250}, 2, 0, 0);
                                }),
                                "input end out of range?"));
}

// ---- fractional scale ----

TEST(ScaledMapping, RangeAtTheInputStartStartsTheTile) {
    EXPECT_EQ(mapTileToScaledInput(t(0, 256, 0, 256, 0, 224, 0, 224), 0, 500, 256, 2.0f, 0),
              t(0, 256, 0, 256, 0, 224, 0, 224));
    // A narrow input fills only the start of the tile.
    EXPECT_EQ(mapTileToScaledInput(t(0, 256, 0, 256, 0, 224, 0, 224), 0, 100, 256, 2.0f, 0),
              t(0, 100, 0, 100, 0, 224, 0, 224));
    // A start before the input is clamped to it.
    EXPECT_EQ(mapTileToScaledInput(t(10, 266, 0, 256, 20, 244, 10, 234), 8, 500, 256, 2.0f, 0),
              t(8, 264, 0, 256, 20, 244, 10, 234));
}

TEST(ScaledMapping, RangeAtTheInputEndSitsAtTheTileEnd) {
    EXPECT_EQ(mapTileToScaledInput(t(744, 1000, 0, 256, 800, 1000, 56, 256), 0, 500, 256, 2.0f, 0),
              t(244, 500, 0, 256, 800, 1000, 56, 256));
    // An input narrower than the tile leaves the left part of the tile empty.
    EXPECT_EQ(mapTileToScaledInput(t(700, 1000, 0, 300, 700, 1000, 0, 300), 300, 500, 256, 2.0f, 0),
              t(300, 500, 56, 256, 700, 1000, 0, 300));
}

TEST(ScaledMapping, InnerRangeIsCentred) {
    // 96..224 in a window of 256: 64 pixels on either side.
    EXPECT_EQ(mapTileToScaledInput(t(192, 448, 0, 256, 224, 416, 32, 224), 0, 500, 256, 2.0f, 0),
              t(32, 288, 0, 256, 224, 416, 32, 224));
    // Fractional scale: 500 / 2.5 = 200, ceil(756 / 2.5) = 303; the odd margin rounds toward the range.
    EXPECT_EQ(mapTileToScaledInput(t(500, 756, 0, 256, 532, 724, 32, 224), 0, 1000, 256, 2.5f, 0),
              t(124, 380, 0, 256, 532, 724, 32, 224));
    // Origin: (300 - 100) / 2 + 100 = 200 and (556 - 100) / 2 + 100 = 328.
    EXPECT_EQ(mapTileToScaledInput(t(300, 556, 0, 256, 332, 524, 32, 224), 0, 1000, 256, 2.0f, 100),
              t(136, 392, 0, 256, 332, 524, 32, 224));
    // Window cut at the input's end.
    EXPECT_EQ(mapTileToScaledInput(t(192, 448, 0, 256, 224, 416, 32, 224), 0, 250, 256, 2.0f, 0),
              t(32, 250, 0, 218, 224, 416, 32, 224));
}

TEST(ScaledMapping, RangeLongerThanTheWindowIsAnError) {
    EXPECT_TRUE(endsWithMessage(
        internalErrorOf([] { mapTileToScaledInput(t(192, 448, 0, 256, 224, 416, 32, 224), 0, 2000, 256, 0.5f, 0); }),
        "???\n"));
}

TEST(ScaledMapping, DegenerateScaleStaysInsideTheInput) {
    for (const float scale : {1e-20f, 1e20f}) {
        const Tile1D in = mapTileToScaledInput(t(192, 448, 0, 256, 224, 416, 32, 224), 10, 500, 256, scale, 0);
        EXPECT_GE(in.srcStart, 10) << scale;
        EXPECT_LE(in.srcEnd, 500) << scale;
        EXPECT_EQ(in.srcEnd - in.srcStart, in.srcTileEnd - in.srcTileStart) << scale;
    }
}

TEST(ScaledMapping, PlanKeepsResultSideAndMapsEachAxis) {
    const ExecutionPlan plan = makePlan(Rect{0, 0, 1000, 400}, 256, 128, 32);
    const Rect input{0, 0, 400, 160};
    const ExecutionPlan mapped = mapPlanToScaledInput(plan, input, 2.5f, 0, 0);
    EXPECT_EQ(mapped.rect, plan.rect);
    EXPECT_EQ(mapped.execW, plan.execW);
    EXPECT_EQ(mapped.execH, plan.execH);
    EXPECT_EQ(mapped.overlap, plan.overlap);
    EXPECT_EQ(mapped.numTiles, plan.numTiles);
    EXPECT_EQ(mapped.execPixels, plan.execPixels);
    ASSERT_EQ(mapped.tiles.size(), plan.tiles.size());
    for (size_t i = 0; i < plan.tiles.size(); ++i) {
        using ML::TiledExecution::tileAxisX;
        using ML::TiledExecution::tileAxisY;
        EXPECT_EQ(mapped.tiles[i].dstRect, plan.tiles[i].dstRect);
        EXPECT_EQ(mapped.tiles[i].dstTileRect, plan.tiles[i].dstTileRect);
        EXPECT_EQ(tileAxisX(mapped.tiles[i]), mapTileToScaledInput(tileAxisX(plan.tiles[i]), 0, 400, 256, 2.5f, 0));
        EXPECT_EQ(tileAxisY(mapped.tiles[i]), mapTileToScaledInput(tileAxisY(plan.tiles[i]), 0, 160, 128, 2.5f, 0));
        EXPECT_TRUE(ML::covers(input, mapped.tiles[i].srcRect));
        EXPECT_EQ(mapped.tiles[i].srcRect.width(), mapped.tiles[i].srcTileRect.width());
        EXPECT_EQ(mapped.tiles[i].srcRect.height(), mapped.tiles[i].srcTileRect.height());
    }
}

}  // namespace
