#pragma once
// Which slot of an object's memory an entry goes to, and when: permanent entries of keyframes
// (into the main slots while they fit, else into the keyframe store, from which the closest
// keyframes are copied into the permanent slots for every frame), working entries of propagated
// frames in a ring behind the permanent slots. Only the slot bookkeeping is here; the caller
// reads the features into the four fields of the returned entry.
#include "State.h"

namespace ML::QT {

// The four feature fields of one memory entry: HW*64 key, HW shrinkage, HW*64 selection and
// HW*256 value floats.
struct MemoryEntry {
    u8* key = nullptr;
    u8* shrinkage = nullptr;
    u8* selection = nullptr;
    u8* value = nullptr;
};

// Bytes of the four fields of one entry.
struct EntryBytes {
    u64 key = 0, shrinkage = 0, selection = 0, value = 0;
};
EntryBytes entryBytes(const QT_StateHeader& header);

MemoryEntry mainSlot(const ObjectState& object, i32 slot);
MemoryEntry storeSlot(const ObjectState& object, i32 index);

// Length of the leading run of permanent slots, at most t.
i32 permanentSlots(const ObjectState& object);

// Takes the slot of a new entry of `type` and marks it used. Permanent (keyframe `frame`): the
// first non-permanent main slot while n <= p, else the first free store entry ("Attempting to save
// more keyframes than expected!" when none). Working: slot perm + (framesProcessed / memoryEvery)
// mod (t - perm) ("Too many permanent memory entries, cannot add working memory!" when t == perm).
// Any other type: "cannot add pixel memory entry not of Permenant or Working types (yet!)".
MemoryEntry addMemoryEntry(ObjectState& object, i32 type, i32 frame, i32 framesProcessed);

// For an object with more keyframes than permanent slots: copies the p store entries closest in
// frames to `frame` into main slots 0 .. p-1 and marks them used. Nothing otherwise.
void loadClosestKeyframes(ObjectState& object, i32 frame);

}  // namespace ML::QT
