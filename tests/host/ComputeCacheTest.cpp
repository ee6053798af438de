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

TEST(ComputeCache, FailedOrThrowingFillIsNotStoredAndItsStatusComesBack) {
    const struct { ML::i32 status; const char* error; ML::i32 returned; const char* text; } cases[] = {
        {ML::STATUS_HOST, "disk gone", ML::STATUS_HOST, "disk gone"},
        {ML::STATUS_CANCELLED, "", ML::STATUS_CANCELLED, ""},
        {-1, "", ML::STATUS_OTHER, "boom"},  // throws
    };
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

TEST(ComputeCache, HitsReturnTheStoredBufferAndLeastRecentlyUsedGoFirst) {
    ComputeCache cache(300);
    FillProbe probe;
    int opaque = 0;
    for (const char* key : {"a", "b", "c"}) ASSERT_EQ(cache.compute(key, 100, &probeFill, &opaque, &probe).status, 0);
    EXPECT_EQ(probe.opaque, &opaque);
    EXPECT_EQ(cache.keys(), (std::vector<std::string>{"c", "b", "a"}));

    // A hit returns the stored buffer without a fill; using "a" makes "b" the oldest.
    probe.byte = 'y';
    const auto held = cache.compute("a", 100, &probeFill, nullptr, &probe).value;
    EXPECT_EQ(probe.calls, 3);
    EXPECT_EQ(cache.find("a").get(), held.get());
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

TEST(ComputeCache, FillMayComputeOtherKeysButNotItsOwn) {
    // The fill computes the key it is given (user) in the cache (opaque).
    struct Inner {
        const char* key;
        ML::i32 status = -1;
    };
    const auto fill = [](void* cache, void* user, ML::Ptr<ML::Buffer>) {
        auto* inner = static_cast<Inner*>(user);
        FillProbe probe;
        inner->status = static_cast<ComputeCache*>(cache)->compute(inner->key, 4, &probeFill, nullptr, &probe).status;
        return ML::Result<void>{};
    };
    ComputeCache cache;
    Inner other{"inner"}, same{"self"};
    ASSERT_EQ(cache.compute("outer", 4, fill, &cache, &other).status, 0);
    EXPECT_EQ(other.status, 0);
    ASSERT_EQ(cache.compute("self", 4, fill, &cache, &same).status, 0);
    EXPECT_EQ(same.status, ML::STATUS_OTHER);
    EXPECT_TRUE(cache.contains("inner") && cache.contains("self"));
}

TEST(ComputeCache, ConcurrentCallersOfOneKeyShareOneFill) {
    constexpr int threads = 6;
    // The fill holds on until every other thread waits for the same key.
    const auto gated = [](void* cache, void* fills, ML::Ptr<ML::Buffer>) {
        ++*static_cast<std::atomic<int>*>(fills);
        while (static_cast<ComputeCache*>(cache)->stats().waits < threads - 1) std::this_thread::yield();
        return ML::Result<void>{};
    };
    ComputeCache cache;
    std::atomic<int> fills{0};
    std::vector<ML::Buffer*> seen(threads, nullptr);
    std::vector<std::thread> pool;
    for (int i = 0; i < threads; ++i)
        pool.emplace_back([&, i] { seen[i] = cache.compute("shared", 32, gated, &cache, &fills).value.get(); });
    for (auto& t : pool) t.join();
    EXPECT_EQ(fills, 1);
    for (int i = 0; i < threads; ++i) EXPECT_EQ(seen[i], seen[0]);
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(cache.stats().hits, threads - 1u);
}
