#include "Plugin/Models/QT/Propagation.h"

#include <cstring>

#include "ML/Exception.h"
#include "Plugin/Models/QT/Memory.h"

namespace ML::QT {

namespace {

BackendModel& net(const Submodels& submodels, const char* name) { return *submodels.at(name); }

void upload(BackendTensor& t, const u8* from) { t.upload(from); }
void download(BackendTensor& t, u8* to) { t.download(to); }

// Reads the query's features and the encoded mask value into an entry of the memory.
void storeEntry(QT_ShapeTensors& ts, const MemoryEntry& e) {
    download(*ts.queryKey, e.key);
    download(*ts.queryShrinkage, e.shrinkage);
    download(*ts.querySelection, e.selection);
    download(*ts.maskValue, e.value);
}

// Runs "me" on object i's mask and the other objects' masks (planes of the host mask buffers) with
// its sensory state: its mask value into maskValue, the new sensory state into sensoryOut.
ObjectState& encodeMaskValue(QT_HostState& state, QT_ShapeTensors& ts, const Submodels& submodels, i32 i) {
    const u64 plane = ts.planeBytes();
    ObjectState& obj = state.objects[static_cast<size_t>(i)];
    upload(*ts.oneMask, ts.hostMasks.data() + static_cast<u64>(i) * plane);
    upload(*ts.oneOthers, ts.hostOthers.data() + static_cast<u64>(i) * plane);
    upload(*ts.sensoryIn, obj.sensory);
    net(submodels, "me").run({ts.image, ts.feat16, ts.sensoryIn, ts.oneMask, ts.oneOthers},
                             {ts.maskValue, ts.sensoryOut});
    return obj;
}

}  // namespace

void clearLogits(u8* data, u64 count, i32 dataType) {
    if (dataType == F16) {
        const u16 bits = 0xE3D0;
        for (u64 i = 0; i < count; ++i) std::memcpy(data + 2 * i, &bits, 2);
    } else if (dataType == F32) {
        const u32 bits = 0xC47A0000u;
        for (u64 i = 0; i < count; ++i) std::memcpy(data + 4 * i, &bits, 4);
    } else {
        ML_THROW("unexpected data type for clearLogits!");
    }
}

void encodeKeyframes(ModelCommon& common, QT_HostState& state, QT_ShapeTensors& ts, const Submodels& submodels,
                     const std::vector<Keyframe>& keyframes) {
    const QT_StateHeader& hd = *state.header;
    const u64 plane = ts.planeBytes();
    for (size_t k = 0; k < keyframes.size(); ++k) {
        const Keyframe& kf = keyframes[k];
        if (k == 0) net(submodels, "get_pos_enc").run({ts.readout}, {ts.posEnc});
        common.hostImageToTensor(kf.rgb, planeDescription(hd.h, hd.w, Image::RGB, ts.dataType), ts.image);
        net(submodels, "qe").run({ts.image}, {ts.feat8, ts.feat4, ts.feat16, ts.queryKey, ts.queryShrinkage,
                                              ts.querySelection});
        std::vector<bool> present(static_cast<size_t>(hd.o), false);
        for (i32 i = 0; i < hd.o; ++i) {
            u8* dst = ts.hostMasks.data() + static_cast<u64>(i) * plane;
            const Ptr<Image>& mask = kf.masks[static_cast<size_t>(i)];
            if (!mask) {
                std::memset(dst, 0, plane);
                continue;
            }
            common.hostImageToTensor(mask, planeDescription(hd.h, hd.w, Image::R, ts.dataType), ts.oneMask);
            download(*ts.oneMask, dst);
            present[static_cast<size_t>(i)] = true;
        }
        upload(*ts.allMasks, ts.hostMasks.data());
        net(submodels, "get_mask_others").run({ts.allMasks}, {ts.allOthers});
        download(*ts.allOthers, ts.hostOthers.data());
        for (i32 i = 0; i < hd.o; ++i) {
            if (!present[static_cast<size_t>(i)]) continue;
            ObjectState& obj = encodeMaskValue(state, ts, submodels, i);
            net(submodels, "mo").run({ts.oneMask, ts.maskValue, ts.posEnc}, {ts.summaryOut});
            storeEntry(ts, addMemoryEntry(obj, kSlotPermanent, kf.frame, 0));
            download(*ts.summaryOut, obj.summary);
        }
    }
    state.setKeyframesEncoded(1);
}

namespace {

void addWorkingMemory(ModelCommon& common, QT_HostState& state, QT_ShapeTensors& ts, const Submodels& submodels) {
    const QT_StateHeader& hd = *state.header;
    // Logits at the execution shape, one object at a time through oneMask (hostExecLogits is
    // refilled per tile of the next frame anyway).
    const u64 plane4 = ts.plane4Bytes(), planeFull = ts.planeBytes();
    for (i32 i = 0; i < hd.o; ++i) {
        upload(*ts.logits4, ts.hostLogits4.data() + static_cast<u64>(i) * plane4);
        common.tensorToTensor(planeDescription(hd.h / 4, hd.w / 4, Image::R, ts.dataType), ts.logits4,
                              planeDescription(hd.h, hd.w, Image::R, ts.dataType), ts.oneMask);
        download(*ts.oneMask, ts.hostExecLogits.data() + static_cast<u64>(i) * planeFull);
    }
    upload(*ts.allLogits, ts.hostExecLogits.data());
    net(submodels, "get_masks").run({ts.allLogits}, {ts.allMasks});
    net(submodels, "get_mask_others").run({ts.allMasks}, {ts.allOthers});
    download(*ts.allMasks, ts.hostMasks.data());
    download(*ts.allOthers, ts.hostOthers.data());
    for (i32 i = 0; i < hd.o; ++i) {
        ObjectState& obj = encodeMaskValue(state, ts, submodels, i);
        download(*ts.sensoryOut, obj.sensory);
        storeEntry(ts, addMemoryEntry(obj, kSlotWorking, 0, state.getFramesProcessed()));
    }
}

}  // namespace

void propagateFrame(ModelCommon& common, QT_HostState& state, QT_ShapeTensors& ts, QT_TmpHostState& tmp,
                    const Submodels& submodels, TiledExecution::ExecutionPlanMap& plans, i32 frame,
                    const Ptr<Image>& image) {
    const QT_StateHeader& hd = *state.header;
    common.hostImageToTensor(image, planeDescription(hd.h, hd.w, Image::RGB, ts.dataType), ts.image);
    net(submodels, "qe").run({ts.image}, {ts.feat8, ts.feat4, ts.feat16, ts.queryKey, ts.queryShrinkage,
                                          ts.querySelection});
    const u64 plane4 = ts.plane4Bytes();
    for (i32 i = 0; i < hd.o; ++i) {
        ObjectState& obj = state.objects[static_cast<size_t>(i)];
        loadClosestKeyframes(obj, frame);
        upload(*ts.memKey, obj.key);
        upload(*ts.memShrinkage, obj.shrinkage);
        upload(*ts.memValue, obj.value);
        upload(*ts.memEmpty, obj.slotEmpty);
        upload(*ts.sensoryIn, obj.sensory);
        upload(*ts.summaryIn, obj.summary);
        upload(*ts.summaryExtraIn, obj.summaryExtra);
        net(submodels, "get_readout").run({ts.memKey, ts.queryKey, ts.memShrinkage, ts.querySelection, ts.memValue,
                                           ts.memEmpty},
                                          {ts.readoutAux, ts.readout});
        net(submodels, "f").run({ts.feat16, ts.readout, ts.sensoryIn, ts.zeroMask16, ts.zeroOthers16}, {ts.fused});
        net(submodels, "ot").run({ts.fused, ts.summaryIn, ts.summaryExtraIn, ts.posEnc}, {ts.refined});
        net(submodels, "md").run({ts.feat8, ts.feat4, ts.refined, ts.sensoryIn}, {ts.logits4, ts.sensoryOut});
        download(*ts.logits4, ts.hostLogits4.data() + static_cast<u64>(i) * plane4);
        download(*ts.sensoryOut, obj.sensory);
    }
    upload(*ts.allLogits4, ts.hostLogits4.data());

    const u64 outPlane = tmp.planeBytes();
    for (i32 i = 0; i < hd.o; ++i) {
        upload(*ts.logits4, ts.hostLogits4.data() + static_cast<u64>(i) * plane4);
        common.tensorToTensor(planeDescription(hd.h / 4, hd.w / 4, Image::R, ts.dataType), ts.logits4,
                              planeDescription(tmp.outH, tmp.outW, Image::R, ts.dataType), tmp.planeB);
        download(*tmp.planeB, tmp.outLogits.data() + static_cast<u64>(i) * outPlane);
    }

    const u64 dt = ts.dt, plane = ts.planeBytes();
    const TiledExecution::ExecutionPlan& plan = plans.get(Rect{0, 0, tmp.outW, tmp.outH}, 4);
    for (const TiledExecution::Tile& tile : plan.tiles) {
        const Rect& s = tile.srcTileRect;
        if (s.x1 - s.x0 < hd.w || s.y1 - s.y0 < hd.h)
            clearLogits(ts.hostExecLogits.data(), ts.hostExecLogits.size() / dt, hd.dataType);
        for (i32 i = 0; i < hd.o; ++i) {
            const u8* from = tmp.outLogits.data() + static_cast<u64>(i) * outPlane;
            u8* to = ts.hostExecLogits.data() + static_cast<u64>(i) * plane;
            const u64 rowBytes = static_cast<u64>(tile.srcRect.x1 - tile.srcRect.x0) * dt;
            for (i32 y = 0; y < tile.srcRect.y1 - tile.srcRect.y0; ++y)
                std::memcpy(to + (static_cast<u64>(s.y0 + y) * static_cast<u64>(hd.w) + static_cast<u64>(s.x0)) * dt,
                            from + (static_cast<u64>(tile.srcRect.y0 + y) * static_cast<u64>(tmp.outW) +
                                    static_cast<u64>(tile.srcRect.x0)) * dt,
                            rowBytes);
        }
        upload(*ts.allLogits, ts.hostExecLogits.data());
        net(submodels, hd.antiAliased ? "get_masks_aa" : "get_masks").run({ts.allLogits}, {ts.allMasks});
        download(*ts.allMasks, ts.hostMasks.data());
        for (i32 i = 0; i < hd.o; ++i) {
            const u8* from = ts.hostMasks.data() + static_cast<u64>(i) * plane;
            u8* to = tmp.outMasks.data() + static_cast<u64>(i) * outPlane;
            const Rect& d = tile.dstTileRect;
            const u64 rowBytes = static_cast<u64>(d.x1 - d.x0) * dt;
            for (i32 y = 0; y < d.y1 - d.y0; ++y)
                std::memcpy(to + (static_cast<u64>(tile.dstRect.y0 + y) * static_cast<u64>(tmp.outW) +
                                  static_cast<u64>(tile.dstRect.x0)) * dt,
                            from + (static_cast<u64>(d.y0 + y) * static_cast<u64>(hd.w) + static_cast<u64>(d.x0)) * dt,
                            rowBytes);
        }
    }

    state.setFramesProcessed(state.getFramesProcessed() + 1);
    if (state.getFramesProcessed() % hd.memoryEvery == 0) addWorkingMemory(common, state, ts, submodels);
}

u64 encodeMasks(QT_ShapeTensors& ts, QT_TmpHostState& tmp, const Submodels& submodels) {
    const u64 total = tmp.outMasks.size() / ts.dt;
    u64 length = 0;
    for (u64 c = 0; c < tmp.rleChunks; ++c) {
        const u64 first = c * kRleChunk, count = std::min(kRleChunk, total - first);
        const u8* chunk = tmp.outMasks.data() + first * ts.dt;
        if (count < kRleChunk) {
            std::memset(ts.rlePadding.data(), 0, ts.rlePadding.size());
            std::memcpy(ts.rlePadding.data(), chunk, count * ts.dt);
            chunk = ts.rlePadding.data();
        }
        upload(*ts.rlePlain, chunk);
        net(submodels, "rle_encoder").run({ts.rlePlain}, {ts.rleCount, ts.rleBytes, ts.rleRuns});
        u8* staging = ts.rleStaging.data();
        download(*ts.rleCount, staging);
        i32 n;
        std::memcpy(&n, staging, 4);
        if (n < 0 || static_cast<u64>(n) > kRleChunk) ML_THROW("Run-length encoder returned " + std::to_string(n) + " runs");
        download(*ts.rleBytes, staging + 4);
        download(*ts.rleRuns, staging + 4 + n);
        const u64 bytes = 5 * static_cast<u64>(n) + 4;
        std::memcpy(tmp.rleStream.data() + length, staging, bytes);
        length += bytes;
    }
    return length;
}

void decodeMasks(QT_ShapeTensors& ts, QT_TmpHostState& tmp, const Submodels& submodels, const u8* stream,
                 u64 streamBytes) {
    // A stream of another region's size is decoded as far as it goes; what it lacks stays zero.
    streamBytes = std::min<u64>(streamBytes, tmp.rleStream.size());
    std::memset(tmp.rleStream.data(), 0, tmp.rleStream.size());
    std::memcpy(tmp.rleStream.data(), stream, streamBytes);
    std::memset(tmp.outMasks.data(), 0, tmp.outMasks.size());
    const u64 total = tmp.outMasks.size() / ts.dt;
    const u8* cursor = tmp.rleStream.data();
    const u8* end = tmp.rleStream.data() + streamBytes;
    for (u64 c = 0; c < tmp.rleChunks; ++c) {
        if (end - cursor < 4) break;
        i32 n;
        std::memcpy(&n, cursor, 4);
        if (n < 0 || static_cast<u64>(n) > kRleChunk) ML_THROW("Cached mask stream is corrupt");
        if (static_cast<u64>(end - cursor) < 4 + 5 * static_cast<u64>(n)) break;
        upload(*ts.rleCount, cursor);
        cursor += 4;
        if (n == 0) continue;
        // Every upload takes a whole tensor from the cursor; the stream is sized so that it never
        // reads past its end.
        upload(*ts.rleBytes, cursor);
        cursor += n;
        upload(*ts.rleRuns, cursor);
        cursor += 4 * static_cast<u64>(n);
        net(submodels, "rle_decoder").run({ts.rleCount, ts.rleBytes, ts.rleRuns}, {ts.rlePlain});
        const u64 first = c * kRleChunk, count = std::min(kRleChunk, total - first);
        u8* to = tmp.outMasks.data() + first * ts.dt;
        if (count == kRleChunk) {
            download(*ts.rlePlain, to);
        } else {
            download(*ts.rlePlain, ts.rlePadding.data());
            std::memcpy(to, ts.rlePadding.data(), count * ts.dt);
        }
    }
}

}  // namespace ML::QT
