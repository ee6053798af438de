// A tracker state as the detection effect reads it back from the host's cache: MessagePack bytes
// that may be cut short or overwritten. Decoding either gives a state or throws the JSON library's
// exception (the walk then recomputes the frame); a decoded state encodes to bytes that decode to
// the same state.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/Models/YOLO7/Tracker.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using ML::YOLO7::TrackerState;
    std::shared_ptr<TrackerState> state;
    try {
        state = TrackerState::decode(data, size);
    } catch (const nlohmann::json::exception&) {
        return 0;
    }
    const std::vector<std::uint8_t> once = state->encode();
    const std::vector<std::uint8_t> twice = TrackerState::decode(once.data(), once.size())->encode();
    if (once != twice) std::abort();
    return 0;
}
