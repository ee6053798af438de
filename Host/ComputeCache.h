#pragma once
// The host's compute cache: buffers kept under text keys between render calls, within a byte
// budget, least recently used first out.
//
// compute(key, size, fill, ...):
//   - key present: the stored buffer is returned (a hit) and fill is not called;
//   - key absent: a buffer of size bytes is allocated, fill(opaque, user, buffer) is called once,
//     and the buffer is stored under key only when fill reports status 0; otherwise the fill's
//     failure (status and text) is returned and nothing is stored. A fill that throws, against
//     its contract, counts as a failure with status 4.
// find(key) returns the stored buffer or null; both count as hits and misses.
//
// Budget: after a store, least recently used entries are evicted until the stored bytes fit the
// budget again. A buffer larger than the whole budget is handed back but not stored (a budget of
// 0 stores nothing). Sizes are taken when a buffer is stored. Eviction only drops the cache's
// reference: a buffer still held by the plug-in stays valid.
//
// Threads: every member is thread-safe. A fill runs on the calling thread without the cache's
// lock, so fills of different keys run side by side and a fill may use the cache for other keys.
// Fills of one key never overlap: a caller that finds its key being filled by another thread
// waits for that fill and then takes its buffer (or, if that fill failed or its buffer did not
// stay, fills itself). A fill that asks for its own key on the same thread gets a failure
// (status 4) instead of a deadlock. Waiting for another thread's fill of the same key is no
// stronger than the single lock that a host may hold around every fill.
//
// Lookup hook: a function called before every look-up (find or compute) with its key, on the
// calling thread and without the cache's lock, so that it may change the cache; tests use it to
// act at an exact point of a plug-in's use of the cache.
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ML/Host.h"

namespace QHost {

class ComputeCache {
public:
    struct Stats {
        ML::u64 hits = 0;         // lookups (compute or find) that found their key
        ML::u64 misses = 0;       // lookups that did not
        ML::u64 fills = 0;        // fill calls
        ML::u64 failedFills = 0;  // fill calls that reported a failure (nothing stored)
        ML::u64 evictions = 0;    // entries dropped to keep within the budget
        ML::u64 rejected = 0;     // buffers not stored because they alone exceed the budget
        ML::u64 waits = 0;        // times a caller waited for another thread's fill of its key
    };

    static constexpr ML::u64 DEFAULT_BUDGET = ML::u64(4) << 30;  // 4 GiB

    enum class Lookup { Find, Compute };
    using LookupHook = std::function<void(const std::string& key, Lookup lookup)>;

    explicit ComputeCache(ML::u64 budgetBytes = DEFAULT_BUDGET);
    ComputeCache(const ComputeCache&) = delete;
    ComputeCache& operator=(const ComputeCache&) = delete;

    // opaque is passed to fill as its first argument, user as its second.
    ML::Result<ML::Ptr<ML::Buffer>> compute(const std::string& key, ML::u64 size, ML::FillFunction fill, void* opaque,
                                            void* user);
    ML::Ptr<ML::Buffer> find(const std::string& key);

    // Stores a buffer as if a fill had made it (replacing an entry of the same key), within the
    // budget as above. Returns whether it was stored.
    bool store(const std::string& key, ML::Ptr<ML::Buffer> buffer);
    // Drops one entry; returns whether it was there. Not counted as an eviction.
    bool evict(const std::string& key);
    // Drops every entry; statistics stay.
    void clear();

    // Sets the lookup hook (null: none).
    void setLookupHook(LookupHook hook);

    // Changes the budget, evicting least recently used entries down to it.
    void setBudget(ML::u64 budgetBytes);
    ML::u64 budget() const;

    bool contains(const std::string& key) const;  // does not count as a lookup nor touch the entry
    ML::u64 size() const;                         // entries stored
    ML::u64 bytes() const;                        // bytes stored
    std::vector<std::string> keys() const;        // most recently used first
    Stats stats() const;
    void resetStats();

private:
    struct Entry {
        ML::Ptr<ML::Buffer> buffer;
        ML::u64 bytes;
        std::list<std::string>::iterator use;
    };

    // All with mutex_ held.
    ML::Ptr<ML::Buffer> takeLocked(const std::string& key);
    bool storeLocked(const std::string& key, ML::Ptr<ML::Buffer> buffer);
    void removeLocked(std::unordered_map<std::string, Entry>::iterator it);
    void trimLocked();
    void beforeLookup(const std::string& key, Lookup lookup);

    mutable std::mutex mutex_;
    std::condition_variable fillDone_;
    std::unordered_map<std::string, Entry> entries_;
    std::list<std::string> uses_;  // most recently used first
    std::unordered_map<std::string, std::thread::id> filling_;
    std::shared_ptr<LookupHook> lookupHook_;  // one object, whatever state it keeps
    ML::u64 budget_;
    ML::u64 bytes_ = 0;
    Stats stats_;
};

}  // namespace QHost
