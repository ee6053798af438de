// Choice among execution sizes and the shared cache of plans.
#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

#include "Plugin/TiledExecution.h"
#include "TilingTestUtil.h"

namespace {

using ML::Rect;
using ML::TiledExecution::choosePlan;
using ML::TiledExecution::ExecSize;
using ML::TiledExecution::ExecutionPlan;
using ML::TiledExecution::ExecutionPlanMap;

float scoreOf(const ExecutionPlan& plan) { return static_cast<float>(plan.numTiles * 100.0 + plan.execPixels); }

TEST(ChoosePlan, FewerWastedPixelsWinInEitherOrder) {
    const Rect rect{0, 0, 300, 300};
    const ExecutionPlan small = ML::TiledExecution::makePlan(rect, 256, 256, 32);
    const ExecutionPlan large = ML::TiledExecution::makePlan(rect, 512, 512, 32);
    EXPECT_EQ(small.numTiles, 4);
    EXPECT_EQ(large.numTiles, 1);
    EXPECT_EQ(scoreOf(small), 262544.0f);
    EXPECT_EQ(scoreOf(large), 262244.0f);

    for (const auto& sizes :
         {std::vector<ExecSize>{{256, 256}, {512, 512}}, std::vector<ExecSize>{{512, 512}, {256, 256}}}) {
        const ExecutionPlanMap map(sizes);
        const ExecutionPlan chosen = choosePlan(rect, map, 32);
        EXPECT_EQ(chosen.execW, 512);
        EXPECT_EQ(chosen.execH, 512);
        EXPECT_EQ(chosen.numTiles, 1);
        EXPECT_EQ(chosen.tiles, large.tiles);
    }
}

TEST(ChoosePlan, EqualScoresKeepTheEarlierSize) {
    // (height 256, width 512) and (height 512, width 256) cost the same on a square.
    const Rect rect{0, 0, 300, 300};
    const ExecutionPlanMap tallFirst({{512, 256}, {256, 512}});
    const ExecutionPlan a = choosePlan(rect, tallFirst, 32);
    EXPECT_EQ(a.execH, 512);
    EXPECT_EQ(a.execW, 256);

    const ExecutionPlanMap wideFirst({{256, 512}, {512, 256}});
    const ExecutionPlan b = choosePlan(rect, wideFirst, 32);
    EXPECT_EQ(b.execH, 256);
    EXPECT_EQ(b.execW, 512);
    EXPECT_EQ(scoreOf(a), scoreOf(b));
}

TEST(ChoosePlan, PairIsHeightThenWidth) {
    const ExecutionPlanMap map({{64, 128}});
    const ExecutionPlan plan = choosePlan(Rect{0, 0, 128, 64}, map, 8);
    EXPECT_EQ(plan.execH, 64);
    EXPECT_EQ(plan.execW, 128);
    EXPECT_EQ(plan.numTiles, 1);
}

TEST(ChoosePlan, TileCostBreaksAreaTies) {
    // 200 x 100 wastes nothing with either a 200-wide tile or two 100-wide ones; fewer tiles win.
    const ExecutionPlanMap map({{100, 100}, {100, 200}});
    const ExecutionPlan plan = choosePlan(Rect{0, 0, 200, 100}, map, 0);
    EXPECT_EQ(plan.execW, 200);
    EXPECT_EQ(plan.numTiles, 1);
}

TEST(ChoosePlan, NoSizesIsAnError) {
    ExecutionPlanMap map({});
    const std::string message = "no valid available execution plan?";
    EXPECT_TRUE(tiling_test::endsWithMessage(tiling_test::internalErrorOf([&] {
                                                 choosePlan(Rect{0, 0, 10, 10}, map, 0);
                                             }),
                                             message));
    EXPECT_TRUE(tiling_test::endsWithMessage(tiling_test::internalErrorOf([&] {
                                                 map.get(Rect{0, 0, 10, 10}, 0);
                                             }),
                                             message));
    // A failed lookup leaves the map usable.
    EXPECT_TRUE(tiling_test::endsWithMessage(tiling_test::internalErrorOf([&] {
                                                 map.get(Rect{0, 0, 10, 10}, 0);
                                             }),
                                             message));
}

TEST(ExecutionPlanMap, SameKeyGivesTheSameStoredPlan) {
    ExecutionPlanMap map({{256, 256}});
    const Rect rect{0, 0, 1000, 700};
    const ExecutionPlan& first = map.get(rect, 32);
    EXPECT_EQ(first.rect, rect);
    EXPECT_EQ(first.overlap, 32);
    EXPECT_EQ(&map.get(rect, 32), &first);

    // Every part of the key counts.
    EXPECT_NE(&map.get(rect, 16), &first);
    EXPECT_EQ(map.get(rect, 16).overlap, 16);
    EXPECT_NE(&map.get(Rect{1, 0, 1000, 700}, 32), &first);
    EXPECT_NE(&map.get(Rect{0, 1, 1000, 700}, 32), &first);
    EXPECT_NE(&map.get(Rect{0, 0, 999, 700}, 32), &first);
    EXPECT_NE(&map.get(Rect{0, 0, 1000, 699}, 32), &first);

    // Stored plans stay where they are while the map grows.
    for (int i = 0; i < 500; ++i) map.get(Rect{0, 0, 300 + i, 300}, 32);
    EXPECT_EQ(&map.get(rect, 32), &first);
    EXPECT_EQ(first.rect, rect);
}

TEST(ExecutionPlanMap, ThreadsShareOnePlanPerKey) {
    ExecutionPlanMap map({{256, 256}, {512, 512}});
    const std::vector<Rect> rects = {{0, 0, 1920, 1080}, {0, 0, 300, 300}, {10, 20, 777, 555}, {-8, -8, 64, 64}};
    constexpr int kThreads = 8;
    // seen[thread][key]: every plan address that thread got for that key.
    std::vector<std::vector<std::set<const ExecutionPlan*>>> seen(
        kThreads, std::vector<std::set<const ExecutionPlan*>>(rects.size()));
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 200; ++round)
                for (size_t i = 0; i < rects.size(); ++i) {
                    const size_t k = (i + static_cast<size_t>(t)) % rects.size();  // threads start on different keys
                    seen[t][k].insert(&map.get(rects[k], 32));
                }
        });
    for (auto& thread : threads) thread.join();

    for (size_t k = 0; k < rects.size(); ++k) {
        const ExecutionPlan* expected = &map.get(rects[k], 32);
        EXPECT_EQ(expected->rect, rects[k]);
        for (int t = 0; t < kThreads; ++t)
            EXPECT_EQ(seen[t][k], std::set<const ExecutionPlan*>{expected})
                << "thread " << t << " rect " << rects[k].toString();
    }
}

struct ModelTileSize {
    int execH;
    int execW;
};

TEST(ExecutionPlanMap, SizesFromModelTileSizes) {
    const std::vector<ModelTileSize> tileSizes = {{128, 256}, {512, 512}};
    const ExecutionPlanMap map(ML::TiledExecution::toExecSizes(tileSizes));
    EXPECT_EQ(map.sizes(), (std::vector<ExecSize>{{128, 256}, {512, 512}}));
}

}  // namespace
