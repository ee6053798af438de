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
        EXPECT_EQ(plan.tiles, ML::TiledExecution::makePlan(c.rect, plan.execW, plan.execH, c.overlap).tiles) << c.what;
    }

    ExecutionPlanMap none({});
    for (int attempt = 0; attempt < 2; ++attempt)  // a failed lookup leaves the map usable
        EXPECT_TRUE(tiling_test::failsWith([&] { none.get(Rect{0, 0, 10, 10}, 0); }, "no valid available execution plan?"));
}

TEST(ExecutionPlanMap, SameKeyGivesTheSameStoredPlan) {
    struct ModelTileSize {
        int execH, execW;
    };
    ExecutionPlanMap map(ML::TiledExecution::toExecSizes(std::vector<ModelTileSize>{{256, 512}, {512, 512}}));
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

}  // namespace
