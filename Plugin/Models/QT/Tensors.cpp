#include "Plugin/Models/QT/Tensors.h"

#include "ML/Exception.h"
#include "Plugin/ImageTensorConverter.h"

namespace ML {

namespace {

std::shared_ptr<BackendTensor> make(ModelContext& c, std::vector<u64> shape, u32 type) {
    return c.createTensor(shape, type);
}

}  // namespace

QT_ShapeTensors::QT_ShapeTensors(ModelContext& c, const QT_StateHeader& hd)
    : h(hd.h), w(hd.w), t(hd.t), o(hd.o), dataType(static_cast<u32>(hd.dataType)), dt(QT::floatBytes(hd.dataType)) {
    const u64 H = static_cast<u64>(h), W = static_cast<u64>(w), T = static_cast<u64>(t), O = static_cast<u64>(o);
    const u64 h16 = H / 16, w16 = W / 16, hw = h16 * w16;
    const u32 f = dataType;
    image = make(c, {1, 3, H, W}, f);
    posEnc = make(c, {1, h16, w16, 256}, f);
    feat8 = make(c, {1, 512, H / 8, W / 8}, f);
    feat4 = make(c, {1, 256, H / 4, W / 4}, f);
    feat16 = make(c, {1, 256, h16, w16}, f);
    queryKey = make(c, {1, h16, w16, 64}, f);
    queryShrinkage = make(c, {1, h16, w16, 1}, f);
    querySelection = make(c, {1, h16, w16, 64}, f);
    memKey = make(c, {1, T * hw, 64}, f);
    memShrinkage = make(c, {1, T * hw, 1}, f);
    memValue = make(c, {1, T * hw, 256}, f);
    memEmpty = make(c, {1, T, 1}, f);
    summaryIn = make(c, {1, 1, 16, 257}, f);
    summaryExtraIn = make(c, {1, 1, 16, 257}, f);
    allMasks = make(c, {1, O, H, W}, f);
    allOthers = make(c, {1, O, H, W}, f);
    oneMask = make(c, {1, 1, H, W}, f);
    oneOthers = make(c, {1, 1, H, W}, f);
    zeroMask16 = make(c, {1, 1, h16, w16}, f);
    zeroOthers16 = make(c, {1, 1, h16, w16}, f);
    readoutAux = make(c, {T * hw}, f);
    readout = make(c, {1, 256, h16, w16}, f);
    fused = make(c, {1, 256, h16, w16}, f);
    refined = make(c, {1, 256, h16, w16}, f);
    maskValue = make(c, {1, h16, w16, 256}, f);
    sensoryIn = make(c, {1, 256, h16, w16}, f);
    sensoryOut = make(c, {1, 256, h16, w16}, f);
    summaryOut = make(c, {1, 1, 16, 257}, f);
    logits4 = make(c, {1, 1, H / 4, W / 4}, f);
    allLogits4 = make(c, {1, O, H / 4, W / 4}, f);
    allLogits = make(c, {1, O, H, W}, f);
    rlePlain = make(c, {QT::kRleChunk}, f);
    rleCount = make(c, {1}, I32);
    rleBytes = make(c, {QT::kRleChunk}, I8);
    rleRuns = make(c, {QT::kRleChunk}, I32);
    hostMasks.resize(O * planeBytes());
    hostOthers.resize(O * planeBytes());
    hostExecLogits.resize(O * planeBytes());
    hostLogits4.resize(O * plane4Bytes());
    rleStaging.resize(QT::kRleChunkBytes);
    rlePadding.resize(QT::kRleChunk * dt);
    const std::vector<u8> zeros(hw * dt, 0);
    zeroMask16->upload(zeros.data());
    zeroOthers16->upload(zeros.data());
}

QT_TmpHostState::QT_TmpHostState(std::shared_ptr<ModelContext> c, const QT_StateHeader& hd, i32 outH, i32 outW)
    : context(std::move(c)), header(hd), outH(outH), outW(outW) {
    if (outH <= 0 || outW <= 0 || outH > QT::kMaxRegionSide || outW > QT::kMaxRegionSide || hd.o <= 0)
        ML_THROW("Mask output of " + std::to_string(outH) + "x" + std::to_string(outW) + " (HxW) for " +
                 std::to_string(hd.o) + " objects is out of range");
    const u32 f = static_cast<u32>(hd.dataType);
    planeA = context->createTensor({1, 1, static_cast<u64>(outH), static_cast<u64>(outW)}, f);
    planeB = context->createTensor({1, 1, static_cast<u64>(outH), static_cast<u64>(outW)}, f);
    outLogits.resize(static_cast<u64>(hd.o) * planeBytes());
    outMasks.resize(static_cast<u64>(hd.o) * planeBytes());
    rleChunks = (static_cast<u64>(hd.o) * static_cast<u64>(outH) * static_cast<u64>(outW) + QT::kRleChunk - 1) /
                QT::kRleChunk;
    rleStream.resize(rleChunks * QT::kRleChunkBytes);
}

u64 QT_TmpHostState::planeBytes() const {
    return static_cast<u64>(outH) * static_cast<u64>(outW) * QT::floatBytes(header.dataType);
}

void QT_TmpHostState::makeColorizerTensors() {
    if (colorIn) return;
    const u32 f = static_cast<u32>(header.dataType);
    const u64 H = static_cast<u64>(outH), W = static_cast<u64>(outW);
    colorIn = context->createTensor({1, 3, H, W}, f);
    colorOut = context->createTensor({1, 3, H, W}, f);
    colorMasks = context->createTensor({1, static_cast<u64>(header.o), H, W}, f);
}

namespace QT {

Ptr<Image> planeDescription(i32 h, i32 w, u32 channelFormat, u32 dataType) {
    return makeDescription(h, w, channelFormat, Image::CHW, dataType);
}

}  // namespace QT

}  // namespace ML
