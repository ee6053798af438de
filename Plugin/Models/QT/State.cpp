#include "State.h"

#include <limits>

#include <Imath/half.h>

#include "ML/Exception.h"

namespace ML {

namespace QT {

u64 floatBytes(i32 dataType) {
    if (dataType == F16) return 2;
    if (dataType == F32) return 4;
    ML_THROW("Unexpected datatype for ObjectState!");
}

i64 featureCells(const QT_StateHeader& header) {
    return static_cast<i64>(header.h / 16) * static_cast<i64>(header.w / 16);
}

u64 objectBlockBytes(const QT_StateHeader& header, i32 n) {
    const u64 dt = floatBytes(header.dataType);
    const u64 hw = static_cast<u64>(featureCells(header));
    const u64 t = static_cast<u64>(header.t);
    u64 bytes = (385 * t * hw + 256 * hw + t + 2 * kSummaryElements) * dt + 4 * t;
    if (n > header.p) bytes += 385 * static_cast<u64>(n) * hw * dt + 8 * static_cast<u64>(n);
    return bytes;
}

u64 stateBytes(const QT_StateHeader& header, const std::vector<i32>& keyCounts) {
    u64 bytes = sizeof(QT_StateHeader) + 4 * keyCounts.size() + 8;
    for (i32 n : keyCounts) bytes += objectBlockBytes(header, n);
    return bytes;
}

std::string headerFault(const QT_StateHeader& header) {
    // Bounds keep every size computation far from overflow: at most kMaxCount objects, slots and
    // keyframes per object of at most 512 x 512 cells.
    constexpr i32 kMaxSide = 8192, kMaxCount = kMaxStateCount;
    if (header.h < 16 || header.w < 16 || header.h % 16 || header.w % 16 || header.h > kMaxSide ||
        header.w > kMaxSide)
        return "execution shape " + std::to_string(header.h) + "x" + std::to_string(header.w);
    if (header.o < 1 || header.o > kMaxCount) return "object count " + std::to_string(header.o);
    if (header.t < 1 || header.t > kMaxCount || header.p < 0 || header.p > header.t)
        return "slots " + std::to_string(header.t) + ", permanent " + std::to_string(header.p);
    if (header.memoryEvery < 1) return "memory interval " + std::to_string(header.memoryEvery);
    if (header.dataType != F16 && header.dataType != F32) return "data type " + std::to_string(header.dataType);
    return {};
}

float readFloat(const u8* base, i64 index, i32 dataType) {
    if (dataType == F32) {
        float v;
        std::memcpy(&v, base + index * 4, 4);
        return v;
    }
    if (dataType != F16) ML_THROW("Unexpected datatype for ObjectState!");
    unsigned short bits;
    std::memcpy(&bits, base + index * 2, 2);
    return static_cast<float>(Imath::half(Imath::half::FromBits, bits));
}

void writeFloat(u8* base, i64 index, float value, i32 dataType) {
    if (dataType == F32) {
        std::memcpy(base + index * 4, &value, 4);
        return;
    }
    if (dataType != F16) ML_THROW("Unexpected datatype for ObjectState!");
    const unsigned short bits = Imath::half(value).bits();
    std::memcpy(base + index * 2, &bits, 2);
}

}  // namespace QT

namespace {

[[noreturn]] void refuse(const std::string& why) { ML_THROW("Cached mask propagation state is corrupt: " + why); }

}  // namespace

QT_HostState::QT_HostState(Ptr<Buffer> buf) : buffer(std::move(buf)) {
    if (!buffer) refuse("no buffer");
    walk(static_cast<u8*>(buffer->getData()), buffer->getSize());
}

QT_HostState::QT_HostState(u8* data, u64 size) { walk(data, size); }

i32 QT_HostState::keyCount(i32 object) const { return QT::readI32(reinterpret_cast<const u8*>(keyCounts), object); }

void QT_HostState::walk(u8* data, u64 size) {
    if (!data || size < sizeof(QT_StateHeader)) refuse(std::to_string(size) + " bytes");
    header = reinterpret_cast<QT_StateHeader*>(data);
    QT_StateHeader h;
    std::memcpy(&h, data, sizeof h);
    if (const std::string fault = QT::headerFault(h); !fault.empty()) refuse(fault);
    const u64 countsEnd = sizeof(QT_StateHeader) + 4 * static_cast<u64>(h.o) + 8;
    if (size < countsEnd) refuse(std::to_string(size) + " bytes for " + std::to_string(h.o) + " objects");
    std::vector<i32> counts(static_cast<size_t>(h.o));
    for (i32 i = 0; i < h.o; ++i) {
        counts[static_cast<size_t>(i)] = QT::readI32(data + sizeof(QT_StateHeader), i);
        if (counts[static_cast<size_t>(i)] < 0 || counts[static_cast<size_t>(i)] > QT::kMaxStateCount)
            refuse("keyframe count " + std::to_string(counts[static_cast<size_t>(i)]));
    }
    const u64 expected = QT::stateBytes(h, counts);
    if (expected != size) refuse(std::to_string(size) + " bytes where the header gives " + std::to_string(expected));

    keyCounts = reinterpret_cast<i32*>(data + sizeof(QT_StateHeader));
    keyframesEncoded = data + sizeof(QT_StateHeader) + 4 * static_cast<u64>(h.o);
    framesProcessed = keyframesEncoded + 4;
    const u64 dt = QT::floatBytes(h.dataType);
    const u64 hw = static_cast<u64>(QT::featureCells(h));
    const u64 t = static_cast<u64>(h.t);
    u8* cursor = framesProcessed + 4;
    const auto take = [&cursor](u64 bytes) {
        u8* at = cursor;
        cursor += bytes;
        return at;
    };
    objects.clear();
    objects.reserve(static_cast<size_t>(h.o));
    for (i32 n : counts) {
        ObjectState s;
        s.header = header;
        s.n = n;
        s.sensory = take(QT::kSensoryChannels * hw * dt);
        s.key = take(t * hw * QT::kKeyChannels * dt);
        s.shrinkage = take(t * hw * dt);
        s.selection = take(t * hw * QT::kKeyChannels * dt);
        s.value = take(t * hw * QT::kValueChannels * dt);
        s.slotEmpty = take(t * dt);
        s.slotType = take(4 * t);
        s.summary = take(QT::kSummaryElements * dt);
        s.summaryExtra = take(QT::kSummaryElements * dt);
        if (n > h.p) {
            const u64 un = static_cast<u64>(n);
            s.keyFrameNumbers = take(4 * un);
            s.keySlotFree = take(4 * un);
            s.keyStoreKey = take(un * hw * QT::kKeyChannels * dt);
            s.keyStoreShrinkage = take(un * hw * dt);
            s.keyStoreSelection = take(un * hw * QT::kKeyChannels * dt);
            s.keyStoreValue = take(un * hw * QT::kValueChannels * dt);
        }
        objects.push_back(s);
    }
    if (cursor != data + size) refuse("object blocks end at " + std::to_string(cursor - data));
}

void initState(const QT_StateHeader& header, const std::vector<i32>& keyCounts, u8* data, u64 size) {
    if (static_cast<i32>(keyCounts.size()) != header.o)
        ML_THROW(std::to_string(keyCounts.size()) + " keyframe counts for " + std::to_string(header.o) + " objects");
    if (size != QT::stateBytes(header, keyCounts))
        ML_THROW("State buffer of " + std::to_string(size) + " bytes, expected " +
                 std::to_string(QT::stateBytes(header, keyCounts)));
    std::memset(data, 0, size);
    std::memcpy(data, &header, sizeof header);
    for (size_t i = 0; i < keyCounts.size(); ++i) QT::writeI32(data + sizeof header, static_cast<i64>(i), keyCounts[i]);
    QT_HostState state(data, size);
    for (ObjectState& s : state.objects) {
        for (i32 slot = 0; slot < header.t; ++slot) s.setSlotEmpty(slot, 1.0f);
        if (!s.hasKeyStore()) continue;
        for (i32 k = 0; k < s.n; ++k) QT::writeI32(s.keySlotFree, k, 1);
        for (i32 slot = 0; slot < header.p; ++slot) s.setSlotType(slot, QT::kSlotPermanent);
    }
}

void initState(const QT_StateHeader& header, const std::vector<i32>& keyCounts, Buffer& buffer) {
    initState(header, keyCounts, static_cast<u8*>(buffer.getData()), buffer.getSize());
}

}  // namespace ML
