#pragma once
// The memory of mask propagation as the host caches it: one flat byte block per sequence, a header
// of ten integers, the per-object keyframe counts, two progress counters and one block per object
// (sensory features, the slot memory, the object summary and, when an object has more keyframes
// than permanent slots, a store of all its keyframe entries). No padding anywhere, host byte order;
// floats are F16 or F32 as the header says. The views below are rebuilt from the header by walking
// the sizes, so a copy of the bytes is a complete copy of the state.
#include <cstring>
#include <string>
#include <vector>

#include "ML/Buffer.h"
#include "ML/Reference.h"
#include "ML/Types.h"

namespace ML {

struct QT_StateHeader {
    i32 h = 0, w = 0;        // execution shape
    i32 o = 0;               // objects
    i32 t = 0;               // memory slots per object
    i32 p = 0;               // permanent slots per object
    i32 memoryEvery = 0;     // frames between working entries
    i32 antiAliased = 0;     // 1: "get_masks_aa", 0: "get_masks"
    i32 startFrame = 0;
    i32 forward = 0;         // 1 when the asked frame is at or after startFrame
    i32 dataType = 0;        // F16 (8) or F32 (9)
};
static_assert(sizeof(QT_StateHeader) == 40);

namespace QT {

enum SlotType : i32 { kSlotEmpty = 0, kSlotPermanent = 1, kSlotWorking = 2 };

constexpr i64 kKeyChannels = 64, kValueChannels = 256, kSensoryChannels = 256;
constexpr i64 kSummaryElements = 16 * 257;
// Most objects, slots or keyframes per object that a state read back may claim.
constexpr i32 kMaxStateCount = 4096;

// Bytes of one float of the state; throws "Unexpected datatype for ObjectState!" for types other
// than F16 and F32.
u64 floatBytes(i32 dataType);
// (h / 16) * (w / 16): feature cells of one frame.
i64 featureCells(const QT_StateHeader& header);
// Bytes of one object's block with n keyframes, and of the whole state.
u64 objectBlockBytes(const QT_StateHeader& header, i32 n);
u64 stateBytes(const QT_StateHeader& header, const std::vector<i32>& keyCounts);
// The header read back for a state of that many bytes is usable: positive shape in multiples of 16,
// objects, slots, 0 <= p <= t, an interval, F16 or F32. Texts the first fault, empty when none.
std::string headerFault(const QT_StateHeader& header);

// Float and int32 access at byte addresses of the state, which need not be aligned.
float readFloat(const u8* base, i64 index, i32 dataType);
void writeFloat(u8* base, i64 index, float value, i32 dataType);
inline i32 readI32(const u8* base, i64 index) {
    i32 v;
    std::memcpy(&v, base + index * 4, 4);
    return v;
}
inline void writeI32(u8* base, i64 index, i32 v) { std::memcpy(base + index * 4, &v, 4); }

}  // namespace QT

// One object's block of a state buffer; every pointer is into the buffer.
struct ObjectState {
    const QT_StateHeader* header = nullptr;
    i32 n = 0;  // keyframes that gave this object a mask
    u8* sensory = nullptr;
    u8* key = nullptr;
    u8* shrinkage = nullptr;
    u8* selection = nullptr;
    u8* value = nullptr;
    u8* slotEmpty = nullptr;  // floats
    u8* slotType = nullptr;   // int32
    u8* summary = nullptr;
    u8* summaryExtra = nullptr;
    // The keyframe store, only when n > p (else null).
    u8* keyFrameNumbers = nullptr;  // int32
    u8* keySlotFree = nullptr;      // int32
    u8* keyStoreKey = nullptr;
    u8* keyStoreShrinkage = nullptr;
    u8* keyStoreSelection = nullptr;
    u8* keyStoreValue = nullptr;

    bool hasKeyStore() const { return keyFrameNumbers != nullptr; }
    i32 slotTypeAt(i32 slot) const { return QT::readI32(slotType, slot); }
    void setSlotType(i32 slot, i32 type) { QT::writeI32(slotType, slot, type); }
    float slotEmptyAt(i32 slot) const { return QT::readFloat(slotEmpty, slot, header->dataType); }
    void setSlotEmpty(i32 slot, float v) { QT::writeFloat(slotEmpty, slot, v, header->dataType); }
};

// Non-owning view of a state buffer, built by walking it from the top.
class QT_HostState {
public:
    // Throws when the buffer does not hold a state: a header fault or a size that disagrees with
    // the one the header and counts give ("Cached mask propagation state is corrupt: ...").
    explicit QT_HostState(Ptr<Buffer> buffer);
    // The same walk over plain bytes (the buffer must outlive the view).
    QT_HostState(u8* data, u64 size);

    Ptr<Buffer> buffer;
    QT_StateHeader* header = nullptr;
    i32* keyCounts = nullptr;  // unaligned only if the buffer is; buffers of the host are aligned
    u8* keyframesEncoded = nullptr;
    u8* framesProcessed = nullptr;
    std::vector<ObjectState> objects;

    i32 objectCount() const { return static_cast<i32>(objects.size()); }
    i32 keyCount(i32 object) const;
    i32 getKeyframesEncoded() const { return QT::readI32(keyframesEncoded, 0); }
    void setKeyframesEncoded(i32 v) { QT::writeI32(keyframesEncoded, 0, v); }
    i32 getFramesProcessed() const { return QT::readI32(framesProcessed, 0); }
    void setFramesProcessed(i32 v) { QT::writeI32(framesProcessed, 0, v); }

private:
    void walk(u8* data, u64 size);
};

// Zero-fills the buffer and writes a fresh state: header, counts, both counters 0, every slot
// empty; an object with more keyframes than permanent slots gets its store with all entries free
// and its first p slots typed permanent (refilled per frame from the store).
void initState(const QT_StateHeader& header, const std::vector<i32>& keyCounts, Buffer& buffer);
void initState(const QT_StateHeader& header, const std::vector<i32>& keyCounts, u8* data, u64 size);

}  // namespace ML
