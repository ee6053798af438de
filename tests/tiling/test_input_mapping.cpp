// Mapping plans made on the result's grid to the input side of resolution-changing networks.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <vector>

#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Rect;
using ML::TiledExecution::ExecutionPlan;
using ML::TiledExecution::makePlan;
using ML::TiledExecution::makeTiles1D;
using ML::TiledExecution::mapTileToScaledInput;
using ML::TiledExecution::mapTileToUpresInput;
using ML::TiledExecution::Tile1D;
using tiling_test::endsWithMessage;
using tiling_test::internalErrorOf;
using tiling_test::t;

// One tile mapped with an integer factor (scale 0) or a fractional scale (factor 0).
struct MappingCase {
    const char* what;
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
const Tile1D kNone{};

TEST(InputMapping, ExactTilesAndErrors) {
    const MappingCase cases[] = {
        // Integer factor.
        {"upres even start keeps the crop", kMiddle, 0, 500, 256, 2, 0, 0, t(96, 224, 0, 128, 224, 416, 32, 224)},
        {"upres odd start moves the crop", t(1, 257, 0, 256, 1, 225, 0, 224), 0, 501, 256, 2, 0, 0,
         t(0, 128, 0, 128, 1, 225, 1, 225)},
        {"upres crop past the tile moves to the next input pixel", t(745, 1001, 0, 256, 801, 1001, 56, 256), 0, 501,
         256, 2, 0, 0, t(373, 501, 0, 128, 801, 1001, 55, 255)},
        {"upres origin shifts the grid", t(8, 264, 0, 256, 8, 232, 0, 224), 0, 500, 256, 2, 0, 4,
         t(6, 134, 0, 128, 8, 232, 0, 224)},
        {"upres origin, odd start", t(9, 265, 0, 256, 9, 233, 0, 224), 0, 500, 256, 2, 0, 4,
         t(6, 134, 0, 128, 9, 233, 1, 225)},
        {"upres short tile widens right", t(0, 100, 0, 100, 0, 100, 0, 100), 0, 200, 256, 2, 0, 0,
         t(0, 128, 0, 128, 0, 100, 0, 100)},
        {"upres short tile widens to the input end", t(0, 100, 0, 100, 0, 100, 0, 100), 0, 60, 256, 2, 0, 0,
         t(0, 60, 0, 60, 0, 100, 0, 100)},
        {"upres short tile not at 0", t(10, 50, 0, 40, 10, 50, 0, 40), 0, 25, 256, 2, 0, 0,
         t(5, 25, 0, 20, 10, 50, 0, 40)},
        // Fractional scale.
        {"scaled at the input start", kFirst, 0, 500, 256, 0, 2.0f, 0, kFirst},
        {"scaled narrow input fills the tile start", kFirst, 0, 100, 256, 0, 2.0f, 0, t(0, 100, 0, 100, 0, 224, 0, 224)},
        {"scaled start clamped to the input", t(10, 266, 0, 256, 20, 244, 10, 234), 8, 500, 256, 0, 2.0f, 0,
         t(8, 264, 0, 256, 20, 244, 10, 234)},
        {"scaled at the input end", t(744, 1000, 0, 256, 800, 1000, 56, 256), 0, 500, 256, 0, 2.0f, 0,
         t(244, 500, 0, 256, 800, 1000, 56, 256)},
        {"scaled narrow input at the end leaves the left empty", t(700, 1000, 0, 300, 700, 1000, 0, 300), 300, 500,
         256, 0, 2.0f, 0, t(300, 500, 56, 256, 700, 1000, 0, 300)},
        {"scaled inner range centred", kMiddle, 0, 500, 256, 0, 2.0f, 0, t(32, 288, 0, 256, 224, 416, 32, 224)},
        // 500 / 2.5 = 200, ceil(756 / 2.5) = 303; the odd margin rounds toward the range.
        {"scaled fractional", t(500, 756, 0, 256, 532, 724, 32, 224), 0, 1000, 256, 0, 2.5f, 0,
         t(124, 380, 0, 256, 532, 724, 32, 224)},
        // (300 - 100) / 2 + 100 = 200 and (556 - 100) / 2 + 100 = 328.
        {"scaled origin", t(300, 556, 0, 256, 332, 524, 32, 224), 0, 1000, 256, 0, 2.0f, 100,
         t(136, 392, 0, 256, 332, 524, 32, 224)},
        {"scaled window cut at the input end", kMiddle, 0, 250, 256, 0, 2.0f, 0, t(32, 250, 0, 218, 224, 416, 32, 224)},
        // Errors.
        {"exec not a multiple", kFirst, 0, 500, 255, 2, 0, 0, kNone, "exec size out should be multiple of upres factor!"},
        {"factor 3", kFirst, 0, 500, 256, 3, 0, 0, kNone, "exec size out should be multiple of upres factor!"},
        {"factor 0", kFirst, 0, 500, 256, 0, 0, 0, kNone, "exec size out should be multiple of upres factor!"},
        // A crop that fills the tile cannot move by one pixel to the left of it.
        {"full crop moved", t(1, 257, 0, 256, 1, 257, 0, 256), 0, 500, 256, 2, 0, 0, kNone, "patch out of range?"},
        {"input start", kFirst, 1, 500, 256, 2, 0, 0, kNone, "input start out of range?"},
        {"input end", t(745, 1001, 0, 256, 801, 1001, 56, 256), 0, 500, 256, 2, 0, 0, kNone, "input end out of range?"},
        {"input longer than exec", t(0, 300, 0, 300, 0, 200, 0, 200), 0, 500, 256, 2, 0, 0, kNone, "Whaa?"},
        // Origin 4: input 7, result start 10 / 2 = 5.
        {"short tile off the input start", t(10, 50, 0, 40, 10, 50, 0, 40), 0, 500, 256, 2, 0, 4, kNone, "huh?\n"},
        {"scaled range longer than the window", kMiddle, 0, 2000, 256, 0, 0.5f, 0, kNone, "???\n"},
    };
    for (const MappingCase& c : cases) {
        if (c.error)
            EXPECT_TRUE(endsWithMessage(internalErrorOf([&] { c.map(); }), c.error)) << c.what;
        else
            EXPECT_EQ(c.map(), c.expected) << c.what;
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
            ASSERT_EQ(in.dstStart, tile.dstStart);
            ASSERT_EQ(in.dstEnd, tile.dstEnd);
            ASSERT_EQ(in.srcTileStart, 0);
            ASSERT_EQ(in.srcEnd - in.srcStart, in.srcTileEnd);
            ASSERT_LE(in.srcTileEnd, execOut / factor);
            ASSERT_GE(in.srcStart, limitStart);
            ASSERT_LE(in.srcEnd, limitEnd);
            ASSERT_GE(in.dstTileStart, 0);
            ASSERT_LE(in.dstTileEnd, in.srcTileEnd * factor);
            ASSERT_EQ(in.dstTileEnd - in.dstTileStart, in.dstEnd - in.dstStart);
            ASSERT_EQ((in.srcStart - origin) * factor + origin + in.dstTileStart, in.dstStart);
        }
    }
}

// Whole plans keep their result side and counts, and map each axis with its own size, limits and
// origin.
TEST(InputMapping, PlansMapEachAxis) {
    using ML::TiledExecution::tileAxisX;
    using ML::TiledExecution::tileAxisY;
    struct PlanCase {
        ExecutionPlan plan, mapped;
        std::function<Tile1D(const Tile1D&)> x, y;
    };
    const ExecutionPlan upres = makePlan(Rect{1, 2, 1001, 602}, 256, 128, 16);
    const ExecutionPlan scaled = makePlan(Rect{0, 0, 1000, 400}, 256, 128, 32);
    const PlanCase cases[] = {
        {upres, ML::TiledExecution::mapPlanToUpresInput(upres, Rect{0, 0, 501, 302}, 2, 1, 2),
         [](const Tile1D& a) { return mapTileToUpresInput(a, 0, 501, 256, 2, 1); },
         [](const Tile1D& a) { return mapTileToUpresInput(a, 0, 302, 128, 2, 2); }},
        {scaled, ML::TiledExecution::mapPlanToScaledInput(scaled, Rect{0, 0, 400, 160}, 2.5f, 3, 4),
         [](const Tile1D& a) { return mapTileToScaledInput(a, 0, 400, 256, 2.5f, 3); },
         [](const Tile1D& a) { return mapTileToScaledInput(a, 0, 160, 128, 2.5f, 4); }},
    };
    for (const PlanCase& c : cases) {
        EXPECT_EQ(c.mapped.rect, c.plan.rect);
        EXPECT_EQ(c.mapped.execW, c.plan.execW);
        EXPECT_EQ(c.mapped.execH, c.plan.execH);
        EXPECT_EQ(c.mapped.numTiles, c.plan.numTiles);
        ASSERT_EQ(c.mapped.tiles.size(), c.plan.tiles.size());
        for (size_t i = 0; i < c.plan.tiles.size(); ++i) {
            EXPECT_EQ(tileAxisX(c.mapped.tiles[i]), c.x(tileAxisX(c.plan.tiles[i]))) << "tile " << i;
            EXPECT_EQ(tileAxisY(c.mapped.tiles[i]), c.y(tileAxisY(c.plan.tiles[i]))) << "tile " << i;
        }
    }
}

}  // namespace
