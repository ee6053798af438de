#pragma once
// Small least-recently-used cache for host-sized states. Not thread-safe: used under the
// owner's mutex.
#include <list>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace ML {

template <class K, class V>
class LruCache {
public:
    explicit LruCache(size_t capacity) : capacity(capacity) {}

    // Moves the entry to the front; "There is no such key in cache" when absent.
    std::shared_ptr<V> get(const K& key) {
        auto found = index.find(key);
        if (found == index.end()) throw std::range_error("There is no such key in cache");
        entries.splice(entries.begin(), entries, found->second);
        return found->second->second;
    }

    bool contains(const K& key) const { return index.count(key) != 0; }

    void put(const K& key, std::shared_ptr<V> value) {
        auto found = index.find(key);
        if (found != index.end()) {
            found->second->second = std::move(value);
            entries.splice(entries.begin(), entries, found->second);
            return;
        }
        entries.emplace_front(key, std::move(value));
        index[key] = entries.begin();
        while (entries.size() > capacity) {
            index.erase(entries.back().first);
            entries.pop_back();
        }
    }

    size_t size() const { return entries.size(); }

private:
    size_t capacity;
    std::list<std::pair<K, std::shared_ptr<V>>> entries;
    std::unordered_map<K, typename std::list<std::pair<K, std::shared_ptr<V>>>::iterator> index;
};

}  // namespace ML
