#include "Plugin/Models/YOLO7/Detector.h"

#include <cstring>

#include "Plugin/CachedCompute.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/PluginLogger.h"

namespace ML {
namespace YOLO7 {

DetectorTensors::DetectorTensors(ModelContext& context, u32 dataType, i32 execH, i32 execW, int keypoints) {
    const u64 h = static_cast<u64>(execH), w = static_cast<u64>(execW);
    const u64 floats = rowFloats(keypoints);
    input = context.createTensor({1, 3, h, w}, dataType);
    raw = context.createTensor({1, (w / 64) * (h / 64) * 255, floats}, F32);
    count = context.createTensor({1}, F32);
    nms = context.createTensor({static_cast<u64>(kDetectionRows), floats}, F32);
    target = makeDescription(execH, execW, Image::RGB, Image::CHW, dataType);
}

void detectorPass(ImageTensorConverter& converter, DetectorTensors& t, BackendModel& detector, BackendModel& suppression,
                  const Ptr<Image>& image, void* rows, u64 rowsBytes) {
    if (!rows) ML_THROW("NMS detections buffer nullptr??");
    if (rowsBytes != t.nms->getByteSize())
        ML_THROW("Detection buffer of " + std::to_string(rowsBytes) + " bytes, expected " +
                 std::to_string(t.nms->getByteSize()));
    converter.hostImageToTensor(image, t.target, t.input);
    detector.run({t.input}, {t.raw, t.count}, -1);
    float count = 0;
    t.count->download(&count);
    if (count >= 1.0f) {
        suppression.run({t.raw}, {t.nms}, -1);
        t.nms->download(rows);
    } else {
        std::memset(rows, 0, rowsBytes);
    }
}

std::string detectionRowsKey(u32 frame, const std::string& modelId) {
    return "nms_out_" + std::to_string(frame) + "_" + modelId;
}

Ptr<Buffer> cachedDetectionRows(Host* host, u64 call, u32 frame, const std::string& modelId, int keypoints,
                                const std::function<void(void* rows, u64 bytes)>& pass) {
    return computeCached(host, call, detectionRowsKey(frame, modelId), detectionBufferBytes(keypoints),
                         [&](Buffer& buffer) { pass(buffer.getData(), buffer.getSize()); });
}

Detector::Detector(std::shared_ptr<ModelContext> context, std::string detectorId)
    : id(std::move(detectorId)), modelContext(std::move(context)) {
    if (id != "fd0") ML_THROW("TODO: other ids..");
    H = 768;
    W = 1280;
    K = 5;
    dataType = modelContext->getPrecisionDataType();
    detectorModel = modelContext->loadModel(id + "_detector");
    nmsModel = modelContext->loadModel(id + "_nms");
    rowFloats_ = rowFloats(K);
    rowBytes_ = rowBytes(K);
    tensors = std::make_unique<DetectorTensors>(*modelContext, dataType, H, W, K);
    rows.resize(tensors->nms->getByteSize());
}

void Detector::detect(ImageTensorConverter& converter, const Ptr<Image>& image, float threshold,
                      std::vector<Detection>& out) {
    detectorPass(converter, *tensors, *detectorModel, *nmsModel, image, rows.getData(), rows.getSize());
    const Rect region = image->getRect();
    out.clear();
    decode_detections(out, K, rows.getData(), threshold, region.x0, region.y0,
                      static_cast<float>(region.width()) / static_cast<float>(W),
                      static_cast<float>(region.height()) / static_cast<float>(H));
}

}  // namespace YOLO7

void run_detector(ModelCommon& common, std::vector<Detection>& out, const std::string& id, const Ptr<Image>& image) {
    YOLO7::Detector& detector = common.getDetector(id);
    std::vector<Detection> found;
    detector.detect(common.getConverter(), image, 0.25f, found);
    logWarning("TODO: get this thresh from somewhere too!");
    out = std::move(found);
}

}  // namespace ML
