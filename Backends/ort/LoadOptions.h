#pragma once
// Options of a network load, given by the plug-in as JSON text (empty for a plain load):
//   "enable_refit": bool                   never true here, since this backend has no refit
//   "free_dim_overrides": {"height": n, "width": n}
//                                          fixes the network's free dimensions of those names
//   "intra_op_threads": n                  the network gets its own pool of n threads instead of
//                                          the shared pool (1 runs it on the calling thread only)
#include <cstdint>
#include <optional>
#include <string>

namespace ML::OrtBackend {

struct LoadOptions {
    bool enableRefit = false;
    std::optional<int64_t> height;
    std::optional<int64_t> width;
    int intraOpThreads = 0;  // 0: the shared pool

    // Throws BackendError (status 4) for text that is not such an object.
    static LoadOptions parse(const std::string& text);
};

}  // namespace ML::OrtBackend
