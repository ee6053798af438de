#pragma once
// The host's keyed compute cache, from the plug-in's side: a buffer that the host keeps under a
// text key, filled by the plug-in the first time it is asked for. The fill runs inside the host's
// call; whatever it throws comes back to the host as a result (never as an exception across the
// host) and from there to the caller as an ML::Exception.
#include <exception>
#include <string>
#include <utility>

#include "ML/Exception.h"
#include "ML/Host.h"

namespace ML {

// The result a fill function hands back for the exception in flight: cancellation is status 1,
// a host failure 2, anything else 4, with the exception's text; texts that do not start with a
// source location get this file's.
Result<void> resultOfCurrentException();

// The buffer of `key`: the host's if it holds one (of whatever size), else a new one of `size`
// bytes that fill(Buffer&) writes. Throws the failure of the host or of fill.
template <class Fill>
Ptr<Buffer> computeCachedAnySize(Host* host, u64 call, const std::string& key, u64 size, Fill&& fill) {
    struct Call {
        Fill& fill;
        static Result<void> run(void*, void* user, Ptr<Buffer> buffer) {
            try {
                if (!buffer) ML_THROW("The host handed no buffer to fill");
                static_cast<Call*>(user)->fill(*buffer);
                return {};
            } catch (...) {
                return resultOfCurrentException();
            }
        }
    } record{fill};
    Ptr<Buffer> buffer = checkResult(host->computeCachedBuffer(call, &record, makeString(key), size, &Call::run));
    if (!buffer) ML_THROW("Cached buffer '" + key + "' has 0 bytes, expected " + std::to_string(size));
    return buffer;
}

// The key for a buffer of `size` bytes when the host holds one of another size under `key` (left
// by another model, or before the data's size changed): the host cannot resize a buffer.
inline std::string sizedCacheKey(const std::string& key, u64 size) {
    return key + "_bytes:" + std::to_string(size);
}

// As computeCachedAnySize, but a buffer of another size under the key (left by another model,
// say) is refused.
template <class Fill>
Ptr<Buffer> computeCached(Host* host, u64 call, const std::string& key, u64 size, Fill&& fill) {
    Ptr<Buffer> buffer = computeCachedAnySize(host, call, key, size, std::forward<Fill>(fill));
    if (buffer->getSize() != size)
        ML_THROW("Cached buffer '" + key + "' has " + std::to_string(buffer ? buffer->getSize() : 0) + " bytes, expected " +
                 std::to_string(size));
    return buffer;
}

}  // namespace ML
