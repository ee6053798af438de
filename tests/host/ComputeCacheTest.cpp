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
    char byte = 'x';
    ML::i32 status = 0;
    std::string error;
};

ML::Result<void> probeFill(void* opaque, void* user, ML::Ptr<ML::Buffer> buffer) {
    auto* probe = static_cast<FillProbe*>(user);
    ++probe->calls;
    probe->opaque = opaque;
    std::memset(buffer->getData(), probe->byte, buffer->getSize());
    if (probe->status == -1) throw std::runtime_error("boom");
    return {probe->status, probe->error.empty() ? nullptr : ML::makeString(probe->error)};
}

}  // namespace

TEST(ComputeCache, MissFillsOnceThenHitReturnsStoredBuffer) {
    ComputeCache cache;
    FillProbe probe;
    int opaque = 0;
    const auto first = cache.compute("k", 16, &probeFill, &opaque, &probe);
    ASSERT_EQ(first.status, 0);
    EXPECT_EQ(probe.opaque, &opaque);
    probe.byte = 'y';
    const auto second = cache.compute("k", 16, &probeFill, &opaque, &probe);
    EXPECT_EQ(probe.calls, 1);
    EXPECT_EQ(second.value.get(), first.value.get());
    EXPECT_EQ(QHost::bufferBytes(second.value), std::string(16, 'x'));
    EXPECT_EQ(cache.stats().hits, 1u);
    EXPECT_EQ(cache.stats().misses, 1u);
    EXPECT_EQ(cache.bytes(), 16u);
}

TEST(ComputeCache, FailedOrThrowingFillIsNotStoredAndItsStatusComesBack) {
    const struct {
        ML::i32 status;
        const char* error;
        ML::i32 returned;
        const char* text;
    } cases[] = {{ML::STATUS_HOST, "disk gone", ML::STATUS_HOST, "disk gone"},
                 {ML::STATUS_CANCELLED, "", ML::STATUS_CANCELLED, ""},
                 {-1, "", ML::STATUS_OTHER, "boom"}};  // throws
    ComputeCache cache;
    FillProbe probe;
    for (const auto& c : cases) {
        probe.status = c.status;
        probe.error = c.error;
        const auto failed = cache.compute("k", 8, &probeFill, nullptr, &probe);
        EXPECT_EQ(failed.status, c.returned);
        EXPECT_NE(ML::toStd(failed.error).find(c.text), std::string::npos) << ML::toStd(failed.error);
        EXPECT_FALSE(failed.value);
        EXPECT_FALSE(cache.find("k"));
    }
    // The key is free again for a fill that succeeds.
    probe.status = 0;
    EXPECT_EQ(cache.compute("k", 8, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(probe.calls, 4);
    EXPECT_EQ(cache.stats().failedFills, 3u);
    EXPECT_TRUE(cache.contains("k"));
}

TEST(ComputeCache, EvictsLeastRecentlyUsedToStayWithinBudget) {
    ComputeCache cache(300);
    FillProbe probe;
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(cache.compute(key, 100, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"c", "b", "a"}));

    // Using "a" makes "b" the oldest.
    const auto held = cache.find("a");
    ASSERT_EQ(cache.compute("d", 100, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"d", "a", "c"}));

    // A big entry pushes out as many old ones as needed; a buffer beyond the budget is handed
    // back but not stored.
    ASSERT_EQ(cache.compute("e", 250, &probeFill, nullptr, &probe).status, 0);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"e"}));
    EXPECT_EQ(cache.stats().evictions, 4u);
    const auto big = cache.compute("big", 301, &probeFill, nullptr, &probe);
    EXPECT_EQ(big.value->getSize(), 301u);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"e"}));
    EXPECT_EQ(cache.stats().rejected, 1u);

    // An evicted buffer stays valid for its holder.
    EXPECT_EQ(QHost::bufferBytes(held), std::string(100, 'x'));

    // Entries go one by one, for a smaller budget, or all at once.
    for (const char* key : {"a", "b"}) ASSERT_TRUE(cache.store(key, ML::Ptr<ML::Buffer>(new ML::BufferImp(10))));
    EXPECT_TRUE(cache.evict("e"));
    EXPECT_FALSE(cache.evict("e"));
    EXPECT_EQ(cache.bytes(), 20u);
    cache.setBudget(10);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"b"}));
    cache.clear();
    EXPECT_EQ(cache.bytes(), 0u);
}

namespace {
// A fill that computes another key of the same cache.
struct Nested {
    ComputeCache* cache;
    std::string key;
    ML::i32 innerStatus = -1;
    static ML::Result<void> fill(void*, void* user, ML::Ptr<ML::Buffer>) {
        auto* nested = static_cast<Nested*>(user);
        FillProbe probe;
        nested->innerStatus = nested->cache->compute(nested->key, 4, &probeFill, nullptr, &probe).status;
        return {};
    }
};

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

TEST(ComputeCache, FillMayComputeOtherKeysButNotItsOwn) {
    ComputeCache cache;
    Nested other{&cache, "inner"};
    ASSERT_EQ(cache.compute("outer", 4, &Nested::fill, nullptr, &other).status, 0);
    EXPECT_EQ(other.innerStatus, 0);
    EXPECT_TRUE(cache.contains("inner"));

    Nested same{&cache, "self"};
    ASSERT_EQ(cache.compute("self", 4, &Nested::fill, nullptr, &same).status, 0);
    EXPECT_EQ(same.innerStatus, ML::STATUS_OTHER);
    EXPECT_TRUE(cache.contains("self"));
}

TEST(ComputeCache, ConcurrentCallersOfOneKeyShareOneFill) {
    ComputeCache cache;
    constexpr int threads = 6;
    Gate gate{&cache, threads - 1};
    std::vector<ML::Buffer*> seen(threads, nullptr);
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i)
        pool.emplace_back([&, i] {
            const auto result = cache.compute("shared", 32, &gatedFill, nullptr, &gate);
            seen[i] = result.status == 0 ? result.value.get() : nullptr;
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(gate.fills, 1);
    for (int i = 0; i < threads; ++i) EXPECT_EQ(seen[i], seen[0]);
    EXPECT_NE(seen[0], nullptr);
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
