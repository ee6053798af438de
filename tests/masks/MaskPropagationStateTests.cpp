// The mask propagation state: its byte layout against offsets written out by hand, the fresh state,
// corrupt buffers refused with a message, and which slots keyframe and working entries take,
// including the limits of permanent slots and the keyframe store.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ML/Exception.h"
#include "Plugin/Models/QT/Memory.h"
#include "Plugin/Models/QT/State.h"

using namespace ML;

namespace {

// A small execution shape: 32 x 64 gives HW = 2 x 4 = 8 feature cells.
QT_StateHeader smallHeader(i32 o, i32 t, i32 p, i32 dataType = F16) {
    QT_StateHeader h;
    h.h = 32;
    h.w = 64;
    h.o = o;
    h.t = t;
    h.p = p;
    h.memoryEvery = 5;
    h.startFrame = 10;
    h.forward = 1;
    h.dataType = dataType;
    return h;
}

std::string messageOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ML::Exception& e) {
        return e.what();
    }
    return "";
}

}  // namespace

// Offsets of every field, written out from the layout, for objects below, at and above the
// permanent slot count, in both float types.
TEST(MaskPropagationState, LayoutOfEveryField) {
    struct Row {
        i32 dataType, t, p;
        std::vector<i32> counts;
    };
    const Row rows[] = {
        {F16, 4, 2, {0}},          {F16, 4, 2, {2}},       {F16, 4, 2, {3, 0, 2}},
        {F32, 6, 3, {1, 4}},       {F32, 1, 1, {1}},       {F16, 8, 8, {9, 8, 7, 0}},
    };
    for (const Row& r : rows) {
        const QT_StateHeader h = smallHeader(static_cast<i32>(r.counts.size()), r.t, r.p, r.dataType);
        const u64 dt = r.dataType == F16 ? 2 : 4, hw = 8, t = static_cast<u64>(r.t);
        std::vector<u8> bytes(QT::stateBytes(h, r.counts));
        initState(h, r.counts, bytes.data(), bytes.size());
        const QT_HostState s(bytes.data(), bytes.size());
        u64 at = 40 + 4 * r.counts.size();
        EXPECT_EQ(s.keyframesEncoded - bytes.data(), static_cast<i64>(at));
        EXPECT_EQ(s.framesProcessed - bytes.data(), static_cast<i64>(at + 4));
        at += 8;
        ASSERT_EQ(s.objectCount(), h.o);
        for (size_t i = 0; i < r.counts.size(); ++i) {
            const ObjectState& o = s.objects[i];
            const u64 n = static_cast<u64>(r.counts[i]);
            SCOPED_TRACE("dt " + std::to_string(dt) + " t " + std::to_string(t) + " object " + std::to_string(i));
            const auto expectAt = [&](const u8* field, u64 bytesOfField, const char* name) {
                EXPECT_EQ(field - bytes.data(), static_cast<i64>(at)) << name;
                at += bytesOfField;
            };
            const u64 blockStart = at;
            expectAt(o.sensory, 256 * hw * dt, "sensory");
            expectAt(o.key, t * hw * 64 * dt, "key");
            expectAt(o.shrinkage, t * hw * dt, "shrinkage");
            expectAt(o.selection, t * hw * 64 * dt, "selection");
            expectAt(o.value, t * hw * 256 * dt, "value");
            expectAt(o.slotEmpty, t * dt, "slotEmpty");
            expectAt(o.slotType, 4 * t, "slotType");
            expectAt(o.summary, 4112 * dt, "summary");
            expectAt(o.summaryExtra, 4112 * dt, "summaryExtra");
            if (r.counts[i] > r.p) {
                expectAt(o.keyFrameNumbers, 4 * n, "keyFrameNumbers");
                expectAt(o.keySlotFree, 4 * n, "keySlotFree");
                expectAt(o.keyStoreKey, n * hw * 64 * dt, "keyStoreKey");
                expectAt(o.keyStoreShrinkage, n * hw * dt, "keyStoreShrinkage");
                expectAt(o.keyStoreSelection, n * hw * 64 * dt, "keyStoreSelection");
                expectAt(o.keyStoreValue, n * hw * 256 * dt, "keyStoreValue");
            } else {
                EXPECT_FALSE(o.hasKeyStore());
            }
            u64 formula = (385 * t * hw + 256 * hw + t + 8224) * dt + 4 * t;
            if (r.counts[i] > r.p) formula += 385 * n * hw * dt + 8 * n;
            EXPECT_EQ(at - blockStart, formula);
            EXPECT_EQ(QT::objectBlockBytes(h, r.counts[i]), formula);
        }
        EXPECT_EQ(at, bytes.size());
    }
}

// A fresh state: every slot empty, store entries free, the first p slots permanent only when the
// store exists; the old contents of the buffer are gone.
TEST(MaskPropagationState, FreshState) {
    for (i32 dataType : {F16, F32}) {
        const QT_StateHeader h = smallHeader(3, 5, 2, dataType);
        const std::vector<i32> counts{0, 2, 3};
        std::vector<u8> bytes(QT::stateBytes(h, counts), 0xAB);
        initState(h, counts, bytes.data(), bytes.size());
        const QT_HostState s(bytes.data(), bytes.size());
        EXPECT_EQ(std::memcmp(s.header, &h, sizeof h), 0);
        EXPECT_EQ(s.getKeyframesEncoded(), 0);
        EXPECT_EQ(s.getFramesProcessed(), 0);
        for (i32 i = 0; i < 3; ++i) {
            const ObjectState& o = s.objects[static_cast<size_t>(i)];
            EXPECT_EQ(s.keyCount(i), counts[static_cast<size_t>(i)]);
            for (i32 slot = 0; slot < h.t; ++slot) {
                EXPECT_EQ(o.slotEmptyAt(slot), 1.0f);
                EXPECT_EQ(o.slotTypeAt(slot), o.hasKeyStore() && slot < h.p ? QT::kSlotPermanent : QT::kSlotEmpty);
            }
            for (i32 k = 0; o.hasKeyStore() && k < o.n; ++k) EXPECT_EQ(QT::readI32(o.keySlotFree, k), 1);
            EXPECT_EQ(QT::readFloat(o.sensory, 7, dataType), 0.0f);
            EXPECT_EQ(QT::readFloat(o.summary, 4111, dataType), 0.0f);
        }
    }
}

// Bytes that are not a state are refused with a message, never read past their end.
TEST(MaskPropagationState, CorruptBuffersAreRefused) {
    const QT_StateHeader h = smallHeader(2, 4, 2);
    const std::vector<i32> counts{1, 3};
    std::vector<u8> good(QT::stateBytes(h, counts));
    initState(h, counts, good.data(), good.size());
    struct Row {
        const char* name;
        std::function<void(std::vector<u8>&)> damage;
        const char* message;
    };
    const auto setI32 = [](std::vector<u8>& b, size_t at, i32 v) { std::memcpy(b.data() + at, &v, 4); };
    const Row rows[] = {
        {"cut short", [](std::vector<u8>& b) { b.resize(b.size() - 1); }, "bytes where the header gives"},
        {"one byte more", [](std::vector<u8>& b) { b.push_back(0); }, "bytes where the header gives"},
        {"header only", [](std::vector<u8>& b) { b.resize(20); }, "20 bytes"},
        {"empty", [](std::vector<u8>& b) { b.clear(); }, "0 bytes"},
        {"data type", [&](std::vector<u8>& b) { setI32(b, 36, 1); }, "data type 1"},
        {"shape", [&](std::vector<u8>& b) { setI32(b, 0, 33); }, "execution shape 33x64"},
        {"permanent above slots", [&](std::vector<u8>& b) { setI32(b, 16, 5); }, "slots 4, permanent 5"},
        {"objects", [&](std::vector<u8>& b) { setI32(b, 8, -1); }, "object count -1"},
        {"huge object count", [&](std::vector<u8>& b) { setI32(b, 8, 5000); }, "object count"},
        {"interval", [&](std::vector<u8>& b) { setI32(b, 20, 0); }, "memory interval 0"},
        {"negative keyframes", [&](std::vector<u8>& b) { setI32(b, 40, -3); }, "keyframe count -3"},
        {"keyframe count moved", [&](std::vector<u8>& b) { setI32(b, 44, 2); }, "bytes where the header gives"},
    };
    for (const Row& r : rows) {
        std::vector<u8> bytes = good;
        r.damage(bytes);
        const std::string message = messageOf([&] { QT_HostState(bytes.data(), bytes.size()); });
        EXPECT_NE(message.find("Cached mask propagation state is corrupt: "), std::string::npos) << r.name << ": " << message;
        EXPECT_NE(message.find(r.message), std::string::npos) << r.name << ": " << message;
    }
}

// Keyframe entries: main slots in order while n <= p; with n = p + 1 the store takes them, and the
// p closest keyframes are copied into the permanent slots for each frame.
TEST(MaskPropagationMemory, KeyframeEntries) {
    const QT_StateHeader h = smallHeader(2, 4, 2, F32);
    const std::vector<i32> counts{2, 3};
    std::vector<u8> bytes(QT::stateBytes(h, counts));
    initState(h, counts, bytes.data(), bytes.size());
    QT_HostState s(bytes.data(), bytes.size());
    const QT::EntryBytes eb = QT::entryBytes(h);

    ObjectState& direct = s.objects[0];
    EXPECT_EQ(QT::addMemoryEntry(direct, QT::kSlotPermanent, 0, 0).key, QT::mainSlot(direct, 0).key);
    EXPECT_EQ(QT::addMemoryEntry(direct, QT::kSlotPermanent, 40, 0).value, QT::mainSlot(direct, 1).value);
    EXPECT_EQ(QT::permanentSlots(direct), 2);
    EXPECT_EQ(direct.slotEmptyAt(1), 0.0f);
    EXPECT_EQ(direct.slotEmptyAt(2), 1.0f);

    ObjectState& stored = s.objects[1];
    const i32 frames[] = {0, 40, 100};
    for (i32 k = 0; k < 3; ++k) {
        const QT::MemoryEntry e = QT::addMemoryEntry(stored, QT::kSlotPermanent, frames[k], 0);
        EXPECT_EQ(e.selection, QT::storeSlot(stored, k).selection);
        // Mark each stored entry with its keyframe number, in the key and the value.
        QT::writeFloat(e.key, 0, static_cast<float>(frames[k]), F32);
        QT::writeFloat(e.value, static_cast<i64>(eb.value / 4 - 1), static_cast<float>(frames[k]), F32);
    }
    EXPECT_NE(messageOf([&] { QT::addMemoryEntry(stored, QT::kSlotPermanent, 7, 0); })
                  .find("Attempting to save more keyframes than expected!"),
              std::string::npos);
    EXPECT_EQ(stored.slotEmptyAt(0), 1.0f);  // the store does not fill main slots by itself

    struct Near {
        i32 frame;
        float slot0, slot1;
    };
    for (const Near& r : {Near{10, 0, 40}, Near{65, 40, 100}, Near{90, 100, 40}, Near{-5, 0, 40}}) {
        QT::loadClosestKeyframes(stored, r.frame);
        EXPECT_EQ(QT::readFloat(QT::mainSlot(stored, 0).key, 0, F32), r.slot0) << r.frame;
        EXPECT_EQ(QT::readFloat(QT::mainSlot(stored, 1).value, static_cast<i64>(eb.value / 4 - 1), F32), r.slot1)
            << r.frame;
        EXPECT_EQ(stored.slotEmptyAt(0), 0.0f);
        EXPECT_EQ(stored.slotEmptyAt(1), 0.0f);
        EXPECT_EQ(stored.slotEmptyAt(2), 1.0f);
    }
}

// Working entries fill a ring behind the permanent slots, the first at the memoryEvery-th frame
// into slot perm + 1; a memory made only of permanent slots fails at the first working entry.
TEST(MaskPropagationMemory, WorkingEntriesRing) {
    struct Row {
        i32 t, p, keyframes;
        std::vector<i32> slots;  // slots of the entries after frames 5, 10, 15, ...
    };
    const Row rows[] = {
        {4, 2, 1, {2, 3, 1, 2, 3, 1}},   // one keyframe: perm 1, ring of 3
        {4, 2, 2, {3, 2, 3, 2}},         // perm 2, ring of 2
        {5, 2, 3, {3, 4, 2, 3}},         // store: perm p = 2, ring of 3
        {3, 3, 0, {1, 2, 0, 1, 2}},      // no keyframe: the ring is all of memory
    };
    for (const Row& r : rows) {
        const QT_StateHeader h = smallHeader(1, r.t, r.p);
        std::vector<u8> bytes(QT::stateBytes(h, {r.keyframes}));
        initState(h, {r.keyframes}, bytes.data(), bytes.size());
        QT_HostState s(bytes.data(), bytes.size());
        ObjectState& o = s.objects[0];
        for (i32 k = 0; k < r.keyframes; ++k) QT::addMemoryEntry(o, QT::kSlotPermanent, 10 * k, 0);
        for (size_t i = 0; i < r.slots.size(); ++i) {
            const i32 processed = 5 * static_cast<i32>(i + 1);
            const QT::MemoryEntry e = QT::addMemoryEntry(o, QT::kSlotWorking, 0, processed);
            EXPECT_EQ(e.shrinkage, QT::mainSlot(o, r.slots[i]).shrinkage) << "t " << r.t << " entry " << i;
            EXPECT_EQ(o.slotTypeAt(r.slots[i]), QT::kSlotWorking);
        }
        // The permanent slots never change type, whatever the ring does.
        for (i32 slot = 0; slot < QT::permanentSlots(o); ++slot) EXPECT_EQ(o.slotTypeAt(slot), QT::kSlotPermanent);
    }

    const QT_StateHeader full = smallHeader(1, 2, 2);
    std::vector<u8> bytes(QT::stateBytes(full, {2}));
    initState(full, {2}, bytes.data(), bytes.size());
    QT_HostState s(bytes.data(), bytes.size());
    QT::addMemoryEntry(s.objects[0], QT::kSlotPermanent, 0, 0);
    QT::addMemoryEntry(s.objects[0], QT::kSlotPermanent, 9, 0);
    EXPECT_NE(messageOf([&] { QT::addMemoryEntry(s.objects[0], QT::kSlotWorking, 0, 5); })
                  .find("Too many permanent memory entries, cannot add working memory!"),
              std::string::npos);
    EXPECT_NE(messageOf([&] { QT::addMemoryEntry(s.objects[0], 3, 0, 5); })
                  .find("cannot add pixel memory entry not of Permenant or Working types (yet!)"),
              std::string::npos);
}

// A long clip: however many frames go by, the state's size is fixed by its header and every
// object holds at most t used slots, p of them permanent.
TEST(MaskPropagationMemory, BoundedOverLongClips) {
    const QT_StateHeader h = smallHeader(2, 6, 3);
    const std::vector<i32> counts{2, 5};
    std::vector<u8> bytes(QT::stateBytes(h, counts));
    initState(h, counts, bytes.data(), bytes.size());
    QT_HostState s(bytes.data(), bytes.size());
    for (ObjectState& o : s.objects)
        for (i32 k = 0; k < o.n; ++k) QT::addMemoryEntry(o, QT::kSlotPermanent, 20 * k, 0);
    for (i32 frame = 1; frame <= 5000; ++frame) {
        s.setFramesProcessed(frame);
        for (ObjectState& o : s.objects) {
            QT::loadClosestKeyframes(o, frame);
            if (frame % h.memoryEvery == 0) QT::addMemoryEntry(o, QT::kSlotWorking, frame, frame);
        }
    }
    const QT_HostState after(bytes.data(), bytes.size());
    for (const ObjectState& o : after.objects) {
        i32 permanent = 0, working = 0;
        for (i32 slot = 0; slot < h.t; ++slot) {
            permanent += o.slotTypeAt(slot) == QT::kSlotPermanent;
            working += o.slotTypeAt(slot) == QT::kSlotWorking;
        }
        EXPECT_EQ(permanent, std::min(o.n, h.p));
        EXPECT_EQ(working, h.t - permanent);
    }
    EXPECT_EQ(after.getFramesProcessed(), 5000);
}
