#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Host/BufferText.h"
#include "Host/ComputeCache.h"

using QHost::ComputeCache;

namespace {

// What a fill sees and does, passed as its user pointer.
struct FillProbe {
    std::atomic<int> calls{0};
    void* opaque = nullptr;
    ML::u64 size = 0;
    char byte = 'x';
    ML::i32 status = 0;
    std::string error;
};

ML::Result<void> probeFill(void* opaque, void* user, ML::Ptr<ML::Buffer> buffer) {
    auto* probe = static_cast<FillProbe*>(user);
    ++probe->calls;
    probe->opaque = opaque;
    probe->size = buffer->getSize();
    if (buffer->getSize()) std::memset(buffer->getData(), probe->byte, buffer->getSize());
    ML::Result<void> result;
    result.status = probe->status;
    if (!probe->error.empty()) result.error = ML::makeString(probe->error);
    return result;
}

ML::Result<void> throwingFill(void*, void*, ML::Ptr<ML::Buffer>) { throw std::runtime_error("boom"); }

ML::Ptr<ML::Buffer> bytes(ML::u64 size) { return ML::Ptr<ML::Buffer>(new ML::BufferImp(size)); }

}  // namespace

TEST(ComputeCache, MissFillsOnceThenHitReturnsStoredBuffer) {
    ComputeCache cache;
    FillProbe probe;
    int opaque = 0;
    const auto first = cache.compute("k", 16, &probeFill, &opaque, &probe);
    ASSERT_EQ(first.status, 0);
    ASSERT_TRUE(first.value);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(probe.opaque, &opaque);
    EXPECT_EQ(probe.size, 16u);

    probe.byte = 'y';
    const auto second = cache.compute("k", 16, &probeFill, &opaque, &probe);
    ASSERT_EQ(second.status, 0);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(second.value.get(), first.value.get());
    EXPECT_EQ(QHost::bufferBytes(second.value), std::string(16, 'x'));

    const auto stats = cache.stats();
    EXPECT_EQ(stats.hits, 1u);
    EXPECT_EQ(stats.misses, 1u);
    EXPECT_EQ(stats.fills, 1u);
    EXPECT_EQ(cache.bytes(), 16u);
}

TEST(ComputeCache, FailedFillIsNotStoredAndItsStatusComesBack) {
    ComputeCache cache;
    FillProbe probe;
    probe.status = ML::STATUS_HOST;
    probe.error = "disk gone";
    const auto failed = cache.compute("k", 8, &probeFill, nullptr, &probe);
    EXPECT_EQ(failed.status, ML::STATUS_HOST);
    EXPECT_EQ(ML::toStd(failed.error), "disk gone");
    EXPECT_FALSE(failed.value);
    EXPECT_FALSE(cache.contains("k"));
    EXPECT_FALSE(cache.find("k"));

    probe.status = ML::STATUS_CANCELLED;
    probe.error.clear();
    EXPECT_EQ(cache.compute("k", 8, &probeFill, nullptr, &probe).status, ML::STATUS_CANCELLED);

    probe.status = 0;
    const auto good = cache.compute("k", 8, &probeFill, nullptr, &probe);
    EXPECT_EQ(good.status, 0);
    EXPECT_TRUE(good.value);
    EXPECT_EQ(probe.calls, 3);
    EXPECT_EQ(cache.stats().failedFills, 2u);
    EXPECT_TRUE(cache.contains("k"));
}

TEST(ComputeCache, ThrowingFillIsAFailureAndReleasesItsKey) {
    ComputeCache cache;
    const auto thrown = cache.compute("k", 4, &throwingFill, nullptr, nullptr);
    EXPECT_EQ(thrown.status, ML::STATUS_OTHER);
    EXPECT_NE(ML::toStd(thrown.error).find("boom"), std::string::npos);
    FillProbe probe;
    EXPECT_EQ(cache.compute("k", 4, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(probe.calls, 1);
}

TEST(ComputeCache, EvictsLeastRecentlyUsedToStayWithinBudget) {
    ComputeCache cache(300);
    FillProbe probe;
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(cache.compute(key, 100, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"c", "b", "a"}));

    // Using "a" makes "b" the oldest.
    EXPECT_TRUE(cache.find("a"));
    ASSERT_EQ(cache.compute("d", 100, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"d", "a", "c"}));
    EXPECT_EQ(cache.stats().evictions, 1u);

    // A big entry pushes out as many old ones as needed.
    ASSERT_EQ(cache.compute("e", 250, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"e"}));
    EXPECT_EQ(cache.bytes(), 250u);
    EXPECT_EQ(cache.stats().evictions, 4u);
}

TEST(ComputeCache, BufferLargerThanBudgetIsHandedBackButNotStored) {
    ComputeCache cache(100);
    FillProbe probe;
    ASSERT_EQ(cache.compute("small", 50, &probeFill, nullptr, &probe).status, 0);
    const auto big = cache.compute("big", 101, &probeFill, nullptr, &probe);
    ASSERT_EQ(big.status, 0);
    EXPECT_EQ(big.value->getSize(), 101u);
    EXPECT_FALSE(cache.contains("big"));
    EXPECT_TRUE(cache.contains("small"));
    EXPECT_EQ(cache.stats().rejected, 1u);
}

TEST(ComputeCache, EvictClearAndSmallerBudget) {
    ComputeCache cache;
    for (const char* key : {"a", "b", "c"}) ASSERT_TRUE(cache.store(key, bytes(10)));
    EXPECT_TRUE(cache.evict("b"));
    EXPECT_FALSE(cache.evict("b"));
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"c", "a"}));
    EXPECT_EQ(cache.bytes(), 20u);

    cache.setBudget(10);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"c"}));

    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
    EXPECT_EQ(cache.bytes(), 0u);
    FillProbe probe;
    ASSERT_EQ(cache.compute("c", 10, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(probe.calls, 1);
}

TEST(ComputeCache, EvictedBufferStaysValidForItsHolder) {
    ComputeCache cache;
    FillProbe probe;
    const auto held = cache.compute("k", 8, &probeFill, nullptr, &probe).value;
    cache.evict("k");
    ASSERT_TRUE(held);
    EXPECT_EQ(QHost::bufferBytes(held), std::string(8, 'x'));
}

namespace {
struct Nested {
    ComputeCache* cache;
    std::string key;
    ML::i32 innerStatus = -1;
};

ML::Result<void> nestedFill(void*, void* user, ML::Ptr<ML::Buffer>) {
    auto* nested = static_cast<Nested*>(user);
    FillProbe probe;
    nested->innerStatus = nested->cache->compute(nested->key, 4, &probeFill, nullptr, &probe).status;
    return {};
}
}  // namespace

TEST(ComputeCache, FillMayComputeOtherKeysButNotItsOwn) {
    ComputeCache cache;
    Nested other{&cache, "inner"};
    ASSERT_EQ(cache.compute("outer", 4, &nestedFill, nullptr, &other).status, 0);
    EXPECT_EQ(other.innerStatus, 0);
    EXPECT_TRUE(cache.contains("inner"));

    Nested same{&cache, "self"};
    ASSERT_EQ(cache.compute("self", 4, &nestedFill, nullptr, &same).status, 0);
    EXPECT_EQ(same.innerStatus, ML::STATUS_OTHER);
    EXPECT_TRUE(cache.contains("self"));
}

namespace {
struct Gate {
    ComputeCache* cache;
    ML::u64 waiters;
    std::atomic<int> fills{0};
};

// Holds its fill open until every other thread waits for the same key.
ML::Result<void> gatedFill(void*, void* user, ML::Ptr<ML::Buffer> buffer) {
    auto* gate = static_cast<Gate*>(user);
    ++gate->fills;
    while (gate->cache->stats().waits < gate->waiters) std::this_thread::yield();
    std::memset(buffer->getData(), 7, buffer->getSize());
    return {};
}
}  // namespace

TEST(ComputeCache, ConcurrentCallersOfOneKeyShareOneFill) {
    ComputeCache cache;
    constexpr int threads = 6;
    Gate gate{&cache, threads - 1};
    std::vector<ML::Buffer*> seen(threads, nullptr);
    std::vector<ML::i32> status(threads, -1);
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i)
        pool.emplace_back([&, i] {
            const auto result = cache.compute("shared", 32, &gatedFill, nullptr, &gate);
            status[i] = result.status;
            seen[i] = result.value.get();
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(gate.fills, 1);
    for (int i = 0; i < threads; ++i) {
        EXPECT_EQ(status[i], 0);
        EXPECT_EQ(seen[i], seen[0]);
    }
    EXPECT_EQ(cache.stats().hits, threads - 1u);
}

TEST(ComputeCache, ConcurrentFillsOfManyKeysStayConsistent) {
    ComputeCache cache(64 * 40);
    std::vector<std::thread> pool;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        pool.emplace_back([&, t] {
            FillProbe probe;
            probe.byte = static_cast<char>('a' + t);
            for (int i = 0; i < 200; ++i) {
                const std::string key = "k" + std::to_string((i * 7 + t) % 60);
                const auto result = cache.compute(key, 64, &probeFill, nullptr, &probe);
                if (result.status != 0 || !result.value || result.value->getSize() != 64) ++failures;
                if (i % 3 == 0) cache.find(key);
                if (i % 17 == 0) cache.evict(key);
            }
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_LE(cache.bytes(), 64u * 40);
    EXPECT_EQ(cache.bytes(), cache.size() * 64);
}
