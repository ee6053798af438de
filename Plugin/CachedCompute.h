#pragma once
// The host's keyed compute cache, from the plug-in's side: a buffer that the host keeps under a
// text key, filled by the plug-in the first time it is asked for. The fill runs inside the host's
// call; whatever it throws comes back to the host as a result (never as an exception across the
// host) and from there to the caller as an ML::Exception.
#include <exception>
#include <string>
#include <utility>

#include "ML/Host.h"

namespace ML {

// The result a fill function hands back for the exception in flight: cancellation is status 1,
// a host failure 2, anything else 4, with the exception's text (which carries its location).
Result<void> resultOfCurrentException();

// The buffer of `key`: the host's if it holds one, else a new one of `size` bytes that
// fill(Buffer&) writes. Throws the failure of the host or of fill.
template <class Fill>
Ptr<Buffer> computeCached(Host* host, u64 call, const std::string& key, u64 size, Fill&& fill) {
    struct Call {
        Fill& fill;
        static Result<void> run(void*, void* user, Ptr<Buffer> buffer) {
            try {
                static_cast<Call*>(user)->fill(*buffer);
                return {};
            } catch (...) {
                return resultOfCurrentException();
            }
        }
    } record{fill};
    return checkResult(host->computeCachedBuffer(call, &record, makeString(key), size, &Call::run));
}

}  // namespace ML
