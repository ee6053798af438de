#include "Host/ComputeCache.h"

#include "Host/Results.h"

namespace QHost {

using Lock = std::lock_guard<std::mutex>;
using BufferResult = ML::Result<ML::Ptr<ML::Buffer>>;

ComputeCache::ComputeCache(ML::u64 budgetBytes) : budget_(budgetBytes) {}

ML::Ptr<ML::Buffer> ComputeCache::takeLocked(const std::string& key) {
    const auto it = entries_.find(key);
    if (it == entries_.end()) return nullptr;
    uses_.splice(uses_.begin(), uses_, it->second.use);
    return it->second.buffer;
}

void ComputeCache::removeLocked(std::unordered_map<std::string, Entry>::iterator it) {
    bytes_ -= it->second.bytes;
    uses_.erase(it->second.use);
    entries_.erase(it);
}

void ComputeCache::trimLocked() {
    while (bytes_ > budget_ && !uses_.empty()) {
        removeLocked(entries_.find(uses_.back()));
        ++stats_.evictions;
    }
}

bool ComputeCache::storeLocked(const std::string& key, ML::Ptr<ML::Buffer> buffer) {
    if (const auto it = entries_.find(key); it != entries_.end()) removeLocked(it);
    const ML::u64 size = buffer ? buffer->getSize() : 0;
    if (size > budget_) {
        ++stats_.rejected;
        return false;
    }
    uses_.push_front(key);
    entries_.emplace(key, Entry{std::move(buffer), size, uses_.begin()});
    bytes_ += size;
    // The new entry is the most recent and fits alone, so trimming stops before it.
    trimLocked();
    return true;
}

void ComputeCache::setLookupHook(LookupHook hook) {
    Lock lock(mutex_);
    lookupHook_ = hook ? std::make_shared<LookupHook>(std::move(hook)) : nullptr;
}

void ComputeCache::beforeLookup(const std::string& key, Lookup lookup) {
    std::shared_ptr<LookupHook> hook;
    {
        Lock lock(mutex_);
        hook = lookupHook_;
    }
    if (hook) (*hook)(key, lookup);
}

ML::Result<ML::Ptr<ML::Buffer>> ComputeCache::compute(const std::string& key, ML::u64 size, ML::FillFunction fill,
                                                      void* opaque, void* user) {
    beforeLookup(key, Lookup::Compute);
    const auto self = std::this_thread::get_id();
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            if (ML::Ptr<ML::Buffer> buffer = takeLocked(key)) {
                ++stats_.hits;
                return resultOk(std::move(buffer));
            }
            const auto filling = filling_.find(key);
            if (filling == filling_.end()) break;
            if (filling->second == self)
                return resultFailure<ML::Ptr<ML::Buffer>>(
                    ML::STATUS_OTHER, "Cache key asked for inside its own fill: " + key);
            ++stats_.waits;
            fillDone_.wait(lock);
        }
        ++stats_.misses;
        if (!fill) return resultFailure<ML::Ptr<ML::Buffer>>(ML::STATUS_OTHER, "No fill function for cache key " + key);
        ++stats_.fills;
        filling_.emplace(key, self);
    }

    // The fill runs without the lock; whatever happens, the key is released afterwards.
    ML::Ptr<ML::Buffer> buffer;
    ML::Result<void> filled;
    try {
        buffer = ML::Ptr<ML::Buffer>(new ML::BufferImp(size));
        if (size && !buffer->getData())
            filled = resultFailure<void>(ML::STATUS_OTHER, "Could not allocate " + std::to_string(size) +
                                                               " bytes for cache key " + key);
        else
            filled = fill(opaque, user, buffer);
    } catch (const std::exception& e) {
        filled = resultFailure<void>(ML::STATUS_OTHER, std::string("Cache fill threw: ") + e.what());
    } catch (...) {
        filled = resultFailure<void>(ML::STATUS_OTHER, "Cache fill threw an unknown exception");
    }
    if (filled.status == ML::STATUS_OK) filled.error.reset();

    {
        Lock lock(mutex_);
        filling_.erase(key);
        if (filled.status == ML::STATUS_OK)
            storeLocked(key, buffer);
        else
            ++stats_.failedFills;
    }
    fillDone_.notify_all();

    if (filled.status != ML::STATUS_OK) {
        BufferResult failed;
        failed.status = filled.status;
        failed.error = std::move(filled.error);
        return failed;
    }
    return resultOk(std::move(buffer));
}

ML::Ptr<ML::Buffer> ComputeCache::find(const std::string& key) {
    beforeLookup(key, Lookup::Find);
    Lock lock(mutex_);
    ML::Ptr<ML::Buffer> buffer = takeLocked(key);
    ++(buffer ? stats_.hits : stats_.misses);
    return buffer;
}

bool ComputeCache::store(const std::string& key, ML::Ptr<ML::Buffer> buffer) {
    Lock lock(mutex_);
    return storeLocked(key, std::move(buffer));
}

bool ComputeCache::evict(const std::string& key) {
    Lock lock(mutex_);
    const auto it = entries_.find(key);
    if (it == entries_.end()) return false;
    removeLocked(it);
    return true;
}

void ComputeCache::clear() {
    Lock lock(mutex_);
    entries_.clear();
    uses_.clear();
    bytes_ = 0;
}

void ComputeCache::setBudget(ML::u64 budgetBytes) {
    Lock lock(mutex_);
    budget_ = budgetBytes;
    trimLocked();
}

ML::u64 ComputeCache::budget() const { Lock lock(mutex_); return budget_; }
bool ComputeCache::contains(const std::string& key) const { Lock lock(mutex_); return entries_.count(key) != 0; }
ML::u64 ComputeCache::size() const { Lock lock(mutex_); return entries_.size(); }
ML::u64 ComputeCache::bytes() const { Lock lock(mutex_); return bytes_; }
std::vector<std::string> ComputeCache::keys() const {
    Lock lock(mutex_);
    return std::vector<std::string>(uses_.begin(), uses_.end());
}
ComputeCache::Stats ComputeCache::stats() const { Lock lock(mutex_); return stats_; }
void ComputeCache::resetStats() { Lock lock(mutex_); stats_ = Stats{}; }

}  // namespace QHost
