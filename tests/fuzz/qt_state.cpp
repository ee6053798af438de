// A mask propagation state as the effect reads it back from the host's cache: bytes that may be cut
// short or overwritten. Reading either refuses them with an ML::Exception or gives a view whose
// every field lies inside the bytes; a fresh state of the same header and counts reads back to the
// same layout.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ML/Exception.h"
#include "Plugin/Models/QT/Memory.h"
#include "Plugin/Models/QT/State.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<ML::u8> bytes(data, data + size);
    try {
        ML::QT_HostState state(bytes.data(), bytes.size());
        const ML::QT_StateHeader header = *state.header;
        std::vector<ML::i32> counts;
        for (ML::i32 i = 0; i < state.objectCount(); ++i) counts.push_back(state.keyCount(i));
        std::vector<ML::u8> fresh(bytes.size());
        ML::initState(header, counts, fresh.data(), fresh.size());
        const ML::QT_HostState again(fresh.data(), fresh.size());
        for (size_t i = 0; i < state.objects.size(); ++i) {
            if (state.objects[i].value - bytes.data() != again.objects[i].value - fresh.data()) std::abort();
            // The slot bookkeeping works on whatever the slots hold, within the buffer.
            ML::ObjectState& o = state.objects[i];
            ML::QT::loadClosestKeyframes(o, 3);
            try {
                ML::QT::addMemoryEntry(o, ML::QT::kSlotWorking, 0, state.getFramesProcessed() & 0xffff);
            } catch (const ML::Exception&) {
            }
        }
    } catch (const ML::Exception&) {
    }
    return 0;
}
