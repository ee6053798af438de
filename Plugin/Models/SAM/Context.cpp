#include "Plugin/Models/SAM/Context.h"

#include <Imath/half.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "Plugin/CachedCompute.h"
#include "Plugin/ImageDrawUtil.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/SAM/Prompts.h"
#include "Util/ML_Util.h"

namespace ML::SAM {

namespace {

constexpr i32 kTileOverlap = 4;
constexpr float kOutsideLogit = -10.0f;

// Loads `file`, telling the host; a failure of the load is rethrown as an ML::Exception.
std::shared_ptr<BackendModel> loadWithNotice(ModelContext& context, Host* host, u64 call, const std::string& file) {
    host->setBusyLoading(call, true);
    std::shared_ptr<BackendModel> model;
    try {
        model = context.loadModel(file);
    } catch (const std::exception& e) {
        host->setBusyLoading(call, false);
        if (dynamic_cast<const ML::Exception*>(&e)) throw;
        ML_THROW(e.what());
    } catch (...) {
        host->setBusyLoading(call, false);
        ML_THROW("Loading " + file + " failed");
    }
    host->setBusyLoading(call, false);
    return model;
}

void fillLogits(std::vector<u8>& buffer, u32 dataType) {
    if (dataType == F16) {
        auto* data = reinterpret_cast<Imath::half*>(buffer.data());
        std::fill(data, data + buffer.size() / sizeof(Imath::half), Imath::half(kOutsideLogit));
    } else if (dataType == F32) {
        auto* data = reinterpret_cast<float*>(buffer.data());
        std::fill(data, data + buffer.size() / sizeof(float), kOutsideLogit);
    } else {
        ML_THROW("Unexpected internal dtype!");
    }
}

}  // namespace

std::string encodingKey(u32 frame) { return "enc:" + std::to_string(frame); }

Context::Context(std::shared_ptr<ModelContext> context, std::shared_ptr<ModelCommon> modelCommon)
    : ModelBase(std::move(context), std::move(modelCommon)),
      dataType(modelContext->getBackendName() == "coreml" ? F32 : F16) {}

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, info, prepareOnly);
    if (prepareOnly) return;

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    TempState& ts = tempState(rs);
    loadEmbedding(rs, ts);
    TempState_Host& hs = hostState(rs);

    const std::shared_ptr<BackendModel> decoder = getDecoder(host, call, info, false);
    setPointPrompts(rs, ts);
    decoder->run(ts.decoderInputs(), ts.decoderOutputs());
    if (host->isCancelled(call)) ML_THROW_CANCEL();

    logitsToMask(rs, ts, hs);
    if (rs.outputColorized) colorize(rs, hs);
}

std::shared_ptr<BackendModel> Context::getEncoder(Host* host, u64 call, const ModelInfo& modelInfo) {
    auto found = encoders.find(modelInfo.modelId);
    if (found != encoders.end()) return found->second;
    encoders.clear();
    std::shared_ptr<BackendModel> encoder = loadWithNotice(*modelContext, host, call, modelInfo.modelId + "_enc");
    encoders.emplace(modelInfo.modelId, encoder);
    return encoder;
}

std::shared_ptr<BackendModel> Context::getDecoder(Host* host, u64 call, const ModelInfo& modelInfo, bool batch) {
    const std::string file = modelInfo.modelId + "_dec_" + (batch ? "batch" : "single");
    auto found = decoders.find(file);
    if (found != decoders.end()) return found->second;
    decoders.clear();
    std::shared_ptr<BackendModel> decoder = loadWithNotice(*modelContext, host, call, file);
    decoders.emplace(file, decoder);
    return decoder;
}

TempState& Context::tempState(const RenderState& rs) {
    auto found = tempStates.find(rs.info.modelId);
    if (found != tempStates.end()) return *found->second;
    tempStates.clear();
    hostStates.clear();
    auto state = std::make_shared<TempState>(*modelContext, dataType, rs.archId, rs.execH, rs.execW, rs.outputTileExecH,
                                             rs.outputTileExecW, rs.singleMaxPoints, rs.batchSz);
    return *tempStates.emplace(rs.info.modelId, std::move(state)).first->second;
}

TempState_Host& Context::hostState(const RenderState& rs) {
    const std::string key = rs.rect.toString();
    auto found = hostStates.find(key);
    if (found != hostStates.end()) return *found->second;
    // One region at a time: a region that moves from render to render frees the last one's buffers.
    hostStates.clear();
    auto state =
        std::make_shared<TempState_Host>(*modelContext, dataType, rs.rect, rs.outputTileExecH, rs.outputTileExecW);
    return *hostStates.emplace(key, std::move(state)).first->second;
}

void Context::loadEmbedding(RenderState& rs, TempState& ts) {
    const u64 size = ts.encodedSize();
    const auto encode = [&](Buffer& buffer) {
        const std::shared_ptr<BackendModel> encoder = getEncoder(rs.host, rs.call, rs.info);
        common->hostImageToTensor(makeNewImageView(rs.inputImage, rs.rect), ts.imageDescription(), ts.image);
        const TensorList outputs = ts.encoderOutputs();
        encoder->run({ts.image}, outputs);
        u8* at = static_cast<u8*>(buffer.getData());
        for (const auto& t : outputs) {
            t->download(at);
            at += t->getByteSize();
        }
    };
    // The key names the frame alone: an embedding of another size under it is another model's
    // (another architecture, shape or type), and this model's goes under a key naming its size.
    Ptr<Buffer> encoded = computeCachedAnySize(rs.host, rs.call, encodingKey(rs.frame), size, encode);
    if (encoded->getSize() != size)
        encoded = computeCached(rs.host, rs.call, sizedCacheKey(encodingKey(rs.frame), size), size, encode);
    const u8* at = static_cast<const u8*>(encoded->getData());
    for (const auto& t : ts.embeddingTensors()) {
        t->upload(at);
        at += t->getByteSize();
    }
}

void Context::logitsToMask(RenderState& rs, TempState& ts, TempState_Host& hs) {
    const i32 rh = rs.rect.height(), rw = rs.rect.width();
    const Ptr<Image> rectPlane = makeDescription(rh, rw, Image::R, Image::CHW, dataType);
    if (rh == ts.h / 4 && rw == ts.w / 4) {
        ts.lowResLogits->download(hs.outLogits.data());  // already at the region's size
    } else {
        common->tensorToTensor(makeDescription(ts.h / 4, ts.w / 4, Image::R, Image::CHW, dataType), ts.lowResLogits,
                               rectPlane, hs.outTensor);
        hs.outTensor->download(hs.outLogits.data());
    }

    if (!tilePlans || tilePlans->sizes().front() != TiledExecution::ExecSize{ts.th, ts.tw})
        tilePlans =
            std::make_unique<TiledExecution::ExecutionPlanMap>(std::vector<TiledExecution::ExecSize>{{ts.th, ts.tw}});
    const TiledExecution::ExecutionPlan& plan = tilePlans->get(rs.rect, kTileOverlap);
    std::shared_ptr<BackendModel>& network =
        helper(logitsToMasks, std::string("imgcvt/logits_to_masks_aa_") + typeName(dataType));
    for (const TiledExecution::Tile& tile : plan.tiles) {
        if (rs.host->isCancelled(rs.call)) ML_THROW_CANCEL();
        if (tile.srcTileRect.width() < ts.tw || tile.srcTileRect.height() < ts.th) fillLogits(hs.tileBuffer, dataType);
        copySlice(hs.outLogitsImage, hs.tileImage, tile.srcRect, tile.srcTileRect);
        ts.tileLogits->upload(hs.tileBuffer.data());
        network->run({ts.tileLogits}, {ts.tileMasks});
        ts.tileMasks->download(hs.tileBuffer.data());
        copySlice(hs.tileImage, hs.outMasksImage, tile.dstTileRect, tile.dstRect);
    }
    hs.outTensor->upload(hs.outMasks.data());
    common->tensorToHostImage(rectPlane, hs.outTensor, makeNewImageView(rs.outputMask, rs.rect));
}

void Context::colorize(RenderState& rs, TempState_Host& hs) {
    const i32 rh = rs.rect.height(), rw = rs.rect.width();
    hs.makeColorizerState(*modelContext);
    const Ptr<Image> rgb = makeDescription(rh, rw, Image::RGB, Image::CHW, dataType);
    common->hostImageToTensor(makeNewImageView(rs.inputImage, rs.rect), rgb, hs.colorIn);
    common->hostImageToTensor(makeNewImageView(rs.outputMask, rs.rect),
                              makeDescription(rh, rw, Image::R, Image::CHW, dataType), hs.outTensor);
    helper(maskColorizer, "imgcvt/mask_colorizer")->run({hs.colorIn, hs.outTensor}, {hs.colorOut});
    hs.colorOut->download(hs.colorBuffer.data());
    drawPoints(dataType, hs.colorBuffer.data(), rs.positivePoints, rs.negativePoints, rs.boxes, rs.rect);
    hs.colorOut->upload(hs.colorBuffer.data());
    common->tensorToHostImage(rgb, hs.colorOut, makeNewImageView(rs.outputColorized, rs.rect));
}

std::shared_ptr<BackendModel>& Context::helper(std::shared_ptr<BackendModel>& slot, const std::string& file) {
    if (!slot) slot = modelContext->loadModel(file);
    return slot;
}

}  // namespace ML::SAM
