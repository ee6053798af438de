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
using tiling_test::t;

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
        if (c.error) {
            EXPECT_TRUE(tiling_test::failsWith([&] { c.map(); }, c.error)) << "case " << i;
        } else {
            EXPECT_EQ(c.map(), c.expected) << "case " << i;
        }
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
        EXPECT_EQ(std::tuple(c.mapped.execW, c.mapped.execH, c.mapped.numTiles),
                  std::tuple(c.plan.execW, c.plan.execH, c.plan.numTiles));
        ASSERT_EQ(c.mapped.tiles.size(), c.plan.tiles.size());
        for (size_t i = 0; i < c.plan.tiles.size(); ++i) {
            EXPECT_EQ(tileAxisX(c.mapped.tiles[i]), c.x(tileAxisX(c.plan.tiles[i]))) << "tile " << i;
            EXPECT_EQ(tileAxisY(c.mapped.tiles[i]), c.y(tileAxisY(c.plan.tiles[i]))) << "tile " << i;
        }
    }
}

}  // namespace
