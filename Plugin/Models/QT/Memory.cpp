#include "Memory.h"

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "ML/Exception.h"

namespace ML::QT {

EntryBytes entryBytes(const QT_StateHeader& header) {
    const u64 dt = floatBytes(header.dataType);
    const u64 hw = static_cast<u64>(featureCells(header));
    return {hw * kKeyChannels * dt, hw * dt, hw * kKeyChannels * dt, hw * kValueChannels * dt};
}

MemoryEntry mainSlot(const ObjectState& object, i32 slot) {
    const EntryBytes b = entryBytes(*object.header);
    const u64 s = static_cast<u64>(slot);
    return {object.key + s * b.key, object.shrinkage + s * b.shrinkage, object.selection + s * b.selection,
            object.value + s * b.value};
}

MemoryEntry storeSlot(const ObjectState& object, i32 index) {
    const EntryBytes b = entryBytes(*object.header);
    const u64 s = static_cast<u64>(index);
    return {object.keyStoreKey + s * b.key, object.keyStoreShrinkage + s * b.shrinkage,
            object.keyStoreSelection + s * b.selection, object.keyStoreValue + s * b.value};
}

i32 permanentSlots(const ObjectState& object) {
    i32 perm = 0;
    while (perm < object.header->t && object.slotTypeAt(perm) == kSlotPermanent) ++perm;
    return perm;
}

MemoryEntry addMemoryEntry(ObjectState& object, i32 type, i32 frame, i32 framesProcessed) {
    const QT_StateHeader& header = *object.header;
    if (type == kSlotPermanent) {
        if (!object.hasKeyStore()) {
            const i32 slot = permanentSlots(object);
            if (slot >= header.t) ML_THROW("Attempting to save more keyframes than expected!");
            object.setSlotEmpty(slot, 0.0f);
            object.setSlotType(slot, kSlotPermanent);
            return mainSlot(object, slot);
        }
        for (i32 k = 0; k < object.n; ++k) {
            if (readI32(object.keySlotFree, k) == 0) continue;
            writeI32(object.keySlotFree, k, 0);
            writeI32(object.keyFrameNumbers, k, frame);
            return storeSlot(object, k);
        }
        ML_THROW("Attempting to save more keyframes than expected!");
    }
    if (type == kSlotWorking) {
        const i32 perm = permanentSlots(object);
        if (header.t - perm < 1) ML_THROW("Too many permanent memory entries, cannot add working memory!");
        const i32 slot = perm + (framesProcessed / header.memoryEvery) % (header.t - perm);
        object.setSlotEmpty(slot, 0.0f);
        object.setSlotType(slot, kSlotWorking);
        return mainSlot(object, slot);
    }
    ML_THROW("cannot add pixel memory entry not of Permenant or Working types (yet!)");
}

void loadClosestKeyframes(ObjectState& object, i32 frame) {
    if (!object.hasKeyStore()) return;
    std::vector<i32> order(static_cast<size_t>(object.n));
    std::iota(order.begin(), order.end(), 0);
    const auto distance = [&](i32 k) { return std::llabs(static_cast<i64>(readI32(object.keyFrameNumbers, k)) - frame); };
    std::stable_sort(order.begin(), order.end(), [&](i32 a, i32 b) { return distance(a) < distance(b); });
    const EntryBytes b = entryBytes(*object.header);
    for (i32 k = 0; k < object.header->p; ++k) {
        const MemoryEntry from = storeSlot(object, order[static_cast<size_t>(k)]);
        const MemoryEntry to = mainSlot(object, k);
        std::memcpy(to.key, from.key, b.key);
        std::memcpy(to.shrinkage, from.shrinkage, b.shrinkage);
        std::memcpy(to.selection, from.selection, b.selection);
        std::memcpy(to.value, from.value, b.value);
        object.setSlotEmpty(k, 0.0f);
    }
}

}  // namespace ML::QT
