#pragma once
// Device tensors and host scratch of mask propagation: those of one execution shape, memory size
// and object count (QT_ShapeTensors), and those of one output size (QT_TmpHostState). Both live
// in QT_Context between renders and are used only under the ModelContext's mutex.
#include <memory>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/QT/State.h"

namespace ML {

struct QT_ShapeTensors {
    QT_ShapeTensors(ModelContext& context, const QT_StateHeader& header);

    i32 h, w, t, o;
    u32 dataType;
    u64 dt;
    std::shared_ptr<BackendTensor> image, posEnc, feat8, feat4, feat16, queryKey, queryShrinkage, querySelection;
    std::shared_ptr<BackendTensor> memKey, memShrinkage, memValue, memEmpty, summaryIn, summaryExtraIn;
    std::shared_ptr<BackendTensor> allMasks, allOthers, oneMask, oneOthers, zeroMask16, zeroOthers16;
    std::shared_ptr<BackendTensor> readoutAux, readout, fused, refined, maskValue, sensoryIn, sensoryOut, summaryOut;
    std::shared_ptr<BackendTensor> logits4, allLogits4, allLogits;
    std::shared_ptr<BackendTensor> rlePlain, rleCount, rleBytes, rleRuns;
    std::vector<u8> hostMasks, hostOthers, hostExecLogits, hostLogits4, rleStaging, rlePadding;

    // Bytes of one object's plane of hostMasks (h * w floats) and of hostLogits4.
    u64 planeBytes() const { return static_cast<u64>(h) * static_cast<u64>(w) * dt; }
    u64 plane4Bytes() const { return static_cast<u64>(h / 4) * static_cast<u64>(w / 4) * dt; }
};

struct QT_TmpHostState {
    QT_TmpHostState(std::shared_ptr<ModelContext> context, const QT_StateHeader& header, i32 outH, i32 outW);

    // The three tensors of the colourised output, made at first use.
    void makeColorizerTensors();

    std::shared_ptr<ModelContext> context;
    QT_StateHeader header;
    i32 outH, outW;
    std::shared_ptr<BackendTensor> planeA, planeB;
    std::vector<u8> outLogits, outMasks;
    u64 rleChunks;
    std::vector<u8> rleStream;
    std::shared_ptr<BackendTensor> colorIn, colorOut, colorMasks;

    u64 planeBytes() const;
};

namespace QT {

constexpr u64 kRleChunk = 2100000;
constexpr u64 kRleChunkBytes = 4 + kRleChunk + 4 * kRleChunk;  // 10500004
// The largest side of a mask region, in pixels.
constexpr i64 kMaxRegionSide = 1 << 15;

// An image description of a plane of the internal type.
Ptr<Image> planeDescription(i32 h, i32 w, u32 channelFormat, u32 dataType);

}  // namespace QT

}  // namespace ML
