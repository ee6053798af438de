#include "Plugin/Models/YOLO7/Context.h"

#include <algorithm>

#include "Plugin/ModelCommon.h"
#include "Plugin/JsonBuffer.h"
#include "Plugin/Models/YOLO7/TrackerWalk.h"
#include "Plugin/Models/YOLO7/Util_.h"
#include "Plugin/Smoothing.h"
#include "Util/ML_Util.h"

namespace ML::YOLO7 {

Context::Context(std::shared_ptr<ModelContext> context, std::shared_ptr<ModelCommon> modelCommon)
    : ModelBase(std::move(context), std::move(modelCommon)), dataType(modelContext->getPrecisionDataType()) {
    objectTypes = makeObjectTypes();
}

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    std::lock_guard<std::mutex> renderLock(renderMutex);
    RenderState rs = readRenderState(host, call, info, objectTypes);
    if (prepareOnly) return;
    std::lock_guard<std::mutex> computeLock(modelContext->computeMutex);

    nlohmann::json result;
    if (rs.trackerConfig.tracking_mode != TRACKING_NONE) result = renderTracked(rs);
    else if (rs.trackerConfig.smoothing_mode == SMOOTHING_GAUSSIAN) result = renderSmoothed(rs);
    else result = rs.objectType->render_detections(rs, detectionsOf(rs, static_cast<int>(rs.frame)));

    if (rs.segmentationBuffer) segment_objects(rs, segmentationState(rs), *common, result);
    if (rs.jsonBuffer) writeJsonBuffer(*rs.jsonBuffer, result);
    if (rs.colorizedImage) colorize_output(rs);
}

nlohmann::json Context::renderTracked(RenderState& rs) {
    TrackerWalkHooks hooks;
    hooks.readings = [&](int frame) { return readingsOf(rs, frame); };
    hooks.kalman = [&] {
        if (!kalman) kalman = std::make_shared<KalmanFilterBackendResources>(modelContext, rs.trackerConfig.kalman_name);
        return kalman;
    };
    const std::shared_ptr<TrackerState> state =
        run_tracker_walk(rs.host, rs.call, rs.trackerConfig, rs.info->modelId, rs.walk, hooks);
    std::vector<std::shared_ptr<TrackedObject>> shown;
    for (const auto& object : state->tracked_objects)
        if (!object->is_initializing && object->hit_counter > 0) shown.push_back(object);
    return rs.objectType->render_tracked(rs, shown);
}

std::vector<TrackedObjectReading> Context::readingsOf(RenderState& rs, int frame) {
    const std::vector<Detection> detections = detectionsOf(rs, frame);
    std::vector<TrackedObjectReading> readings;
    readings.reserve(detections.size());
    for (const Detection& d : detections) readings.push_back(rs.objectType->make_reading(rs, d));
    if (rs.trackerConfig.tracking_mode == TRACKING_ADVANCED) {
        if (!reid) reid = std::make_shared<ReIdBackendResources>(modelContext, rs.trackerConfig.reid_name, dataType);
        const auto image = rs.input_images.find(frame);
        if (image == rs.input_images.end()) ML_THROW("Input image is required for frame " + std::to_string(frame));
        computeEmbeddings(*reid, common->getConverter(), image->second, detections, readings,
                          rs.trackerConfig.reid_execH, rs.trackerConfig.reid_execW);
    }
    return readings;
}

nlohmann::json Context::renderSmoothed(RenderState& rs) {
    const int window = gaussianWindow(rs.trackerConfig.smoothing_level);
    const int first = static_cast<int>(rs.frame) - window / 2;
    std::vector<std::vector<Detection>> frames;
    for (int i = 0; i < window; ++i) frames.push_back(detectionsOf(rs, first + i));
    return rs.objectType->render_smoothed(rs, link_detections(frames));
}

std::vector<Detection> Context::detectionsOf(RenderState& rs, int frame) {
    Ptr<Buffer> rows;
    if (auto found = rs.cached_detections.find(frame); found != rs.cached_detections.end()) {
        rows = found->second;
    } else {
        rows = cachedDetectionRows(rs.host, rs.call, static_cast<u32>(frame), rs.info->modelId,
                                   rs.objectType->keypointCount,
                                   [&](void* data, u64 bytes) { detectInto(rs, frame, data, bytes); });
    }
    if (!rows) ML_THROW("NMS detections buffer nullptr??");
    if (rows->getSize() != rs.detectionBufferBytes)
        ML_THROW("Detection buffer of " + std::to_string(rows->getSize()) + " bytes, expected " +
                 std::to_string(rs.detectionBufferBytes));
    std::vector<Detection> out;
    decode_detections(out, rs.objectType->keypointCount, rows->getData(), rs.objectType->threshold, rs.roi.x0,
                      rs.roi.y0, static_cast<float>(rs.roi.width()) / static_cast<float>(rs.execW),
                      static_cast<float>(rs.roi.height()) / static_cast<float>(rs.execH));
    return out;
}

void Context::detectInto(RenderState& rs, int frame, void* rows, u64 bytes) {
    TempState& ts = tempState(rs);
    NetworkPair& pair = networks(rs.host, rs.call, rs.info->modelId);
    const Ptr<Image> view = makeNewImageView(rs.input_images.at(frame), rs.roi);
    detectorPass(common->getConverter(), ts.detector, *pair.first, *pair.second, view, rows, bytes);
}

TempState& Context::tempState(const RenderState& rs) {
    const int k = rs.objectType->keypointCount;
    const std::string key = std::to_string(rs.execH) + "x" + std::to_string(rs.execW) + "-" + std::to_string(k);
    auto& state = tempStates[key];
    if (!state) {
        if (rs.execH % 64 != 0 || rs.execW % 64 != 0)
            ML_THROW("invalid exec shape for face detection model: " + std::to_string(rs.execW) + "x" +
                     std::to_string(rs.execH) + " - both dimensions must be divisible by 64!");
        state = std::make_shared<TempState>(*modelContext, dataType, rs.execH, rs.execW, k);
    }
    return *state;
}

Context::NetworkPair& Context::networks(Host* host, u64 call, const std::string& modelId) {
    auto found = networkPairs.find(modelId);
    if (found != networkPairs.end()) return found->second;
    host->setBusyLoading(call, true);
    NetworkPair pair;
    try {
        pair.first = modelContext->loadModel(modelId + "_detector");
        pair.second = modelContext->loadModel(modelId + "_nms");
    } catch (...) {
        host->setBusyLoading(call, false);
        throw;
    }
    host->setBusyLoading(call, false);
    return networkPairs.emplace(modelId, std::move(pair)).first->second;
}

SegmentationTempState& Context::segmentationState(const RenderState& rs) {
    const std::string key = rs.segModelId + "-" + std::to_string(rs.segExecH) + "x" + std::to_string(rs.segExecW);
    auto found = segmentationStates.find(key);
    if (found != segmentationStates.end()) return *found->second;
    segmentationStates.clear();  // one parsing model at a time
    auto state = std::make_shared<SegmentationTempState>(modelContext, dataType, rs.segExecH, rs.segExecW,
                                                         rs.segModelId, rs.segClassNames);
    return *segmentationStates.emplace(key, std::move(state)).first->second;
}

void Context::colorize_output(RenderState& rs) {
    TempState& ts = tempState(rs);
    const Ptr<Image> input = makeNewImageView(rs.input_images.at(static_cast<int>(rs.frame)), rs.roi);
    const Ptr<Image> mask = makeNewImageView(rs.maskImage, rs.roi);
    const Ptr<Image> output = makeNewImageView(rs.colorizedImage, rs.roi);
    const std::string hostKey = std::string(formatName(input->getChannelFormat())) + "/" +
                                typeName(input->getDataType()) + "-" + formatName(mask->getChannelFormat()) + "/" +
                                typeName(mask->getDataType()) + "-" + std::to_string(rs.execH) + "x" +
                                std::to_string(rs.execW);
    auto& hs = hostStates[hostKey];
    if (!hs) hs = std::make_shared<TempState_Host>(rs.execH, rs.execW, *input, *mask);
    auto& planMap = planMaps[rs.info->modelId];
    if (!planMap)
        planMap = std::make_unique<TiledExecution::ExecutionPlanMap>(TiledExecution::toExecSizes(rs.info->availableTileSizes));
    const int padding = rs.info->params.is_object() ? rs.info->params.value("padding", 0) : 0;
    const TiledExecution::ExecutionPlan plan = TiledExecution::choosePlan(rs.roi, *planMap, padding);
    if (!maskBlur) maskBlur = modelContext->loadModel("mask_blur");
    for (const TiledExecution::Tile& tile : plan.tiles) {
        if (rs.host->isCancelled(rs.call)) ML_THROW_CANCEL();
        // The buffers need clearing only where the copy leaves part of the tile uncovered.
        const bool partial = !(tile.srcTileRect == hs->colorTile->getRect());
        if (partial) std::fill(hs->colorBytes.begin(), hs->colorBytes.end(), u8(0));
        copySlice(input, hs->colorTile, tile.srcRect, tile.srcTileRect);
        common->hostImageToTensor(hs->colorTile, ts.rgb, ts.detector.input);
        if (partial) std::fill(hs->maskBytes.begin(), hs->maskBytes.end(), u8(0));
        copySlice(mask, hs->maskTile, tile.srcRect, tile.srcTileRect);
        common->hostImageToTensor(hs->maskTile, ts.r, ts.mask);
        maskBlur->run({ts.detector.input, ts.mask}, {ts.color}, -1);
        common->tensorToHostImage(ts.rgb, ts.color, hs->colorTile);
        copySlice(hs->colorTile, output, tile.dstTileRect, tile.dstRect);
    }
}

}  // namespace ML::YOLO7
