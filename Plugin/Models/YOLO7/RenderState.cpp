#include "Plugin/Models/YOLO7/RenderState.h"

#include "Plugin/CachedCompute.h"
#include "Plugin/ModelBase.h"
#include "Plugin/Models/YOLO7/Detector.h"
#include "Plugin/Models/YOLO7/ObjectTypeBase.h"
#include "Plugin/Models/YOLO7/Util_.h"
#include "Plugin/Smoothing.h"

namespace ML::YOLO7 {

namespace {

Ptr<Buffer> findCached(Host* host, u64 call, const std::string& key) {
    return checkResult(host->findCachedBuffer(call, makeString(key)));
}

std::string detectionsKey(int frame, const std::string& modelId) {
    return detectionRowsKey(static_cast<u32>(frame), modelId);
}

}  // namespace

// Every host request of a render happens here, before any network runs, so that a render with
// prepareOnly tells the host all that the render will need.
RenderState readRenderState(Host* host, u64 call, const ModelInfo& info, const ObjectTypeMap& types) {
    RenderState rs;
    rs.host = host;
    rs.call = call;
    rs.info = &info;
    const auto fetchInputImage = [&](int f) {
        Ptr<Image> image = checkResult(host->getInputImage(call, static_cast<u32>(f), &rs.roi, ResourceId{0, -1}));
        if (!image) ML_THROW("Input image is required for frame " + std::to_string(f));
        if (!covers(image->getRect(), rs.roi)) ML_THROW("Input rect must fully cover output rect");
        rs.input_images[f] = image;
    };
    rs.frame = host->getFrame(call);
    rs.roi = readROI(host, call, rs.frame);
    rs.jsonBuffer = checkResult(host->getOutputBuffer(call, rs.frame, ResourceId{234, -1}));
    rs.maskImage = checkResult(host->getOutputImage(call, rs.frame, ResourceId{0, -1}));
    if (rs.maskImage) {
        if (!covers(rs.maskImage->getRect(), rs.roi))
            ML_THROW("Face detection output image should fully cover output rect retured by getROI");
        if (rs.maskImage->getChannelFormat() != Image::R)
            ML_THROW("Face detection output image should be single channel mask! (ML::Image::ChannelFormat::R)");
    }
    rs.colorizedImage = checkResult(host->getOutputImage(call, rs.frame, ResourceId{1, -1}));
    if (rs.colorizedImage) {
        if (!rs.maskImage) ML_THROW("Output mask is required to render colorized output!");
        if (!covers(rs.colorizedImage->getRect(), rs.roi))
            ML_THROW("Face detection output colorized image should fully cover output rect retured by getROI");
    }

    const std::string typeName =
        info.params.is_object() ? info.params.value("object_type", std::string()) : std::string();
    const auto type = types.find(typeName);
    if (type == types.end()) ML_THROW("unknown object detection type: " + typeName);
    rs.objectType = type->second;

    if (typeName == "face" && info.params.contains("faceseg_config")) {
        rs.segmentationBuffer = checkResult(host->getOutputBuffer(call, rs.frame, ResourceId{235, -1}));
        if (rs.segmentationBuffer) {
            if (!rs.jsonBuffer)
                ML_THROW("JSON output is required for segmentation output: information about how to interpret "
                         "segmentation results buffer will be part of the JSON buffer");
            const nlohmann::json& seg = info.params.at("faceseg_config");
            rs.segExecH = seg.at("execH").get<int>();
            rs.segExecW = seg.at("execW").get<int>();
            rs.segModelId = seg.at("modelId").get<std::string>();
            rs.segClassNames = seg.at("classes").get<std::vector<std::string>>();
            rs.paddingFactor = 1.75f;
        }
    }

    rs.scaleX = host->getFloatParam(call, 500, 0);
    if (!(rs.scaleX > 0.0f)) ML_THROW("scaleX must be > 0");
    rs.scaleY = host->getFloatParam(call, 501, 0);
    if (!(rs.scaleY > 0.0f)) ML_THROW("scaleY must be > 0");
    rs.trackerConfig.smoothing_mode = host->getIntParam(call, 503, 0);
    if (rs.trackerConfig.smoothing_mode < 0)
        ML_THROW("Invalid smoothing mode returned: " + std::to_string(rs.trackerConfig.smoothing_mode));
    rs.trackerConfig.tracking_mode = host->getIntParam(call, 502, 0);
    if (rs.trackerConfig.tracking_mode < 0)
        ML_THROW("Invalid tracking mode returned: " + std::to_string(rs.trackerConfig.tracking_mode));

    const std::string modelId = info.modelId;
    // Rows of another size under the key are not the detector's: the frame is detected again.
    const u64 rowsBytes = detectionBufferBytes(rs.objectType->keypointCount);
    const auto cachedRows = [&](int f) {
        Ptr<Buffer> rows = findCached(host, call, detectionsKey(f, modelId));
        return rows && rows->getSize() == rowsBytes ? rows : Ptr<Buffer>();
    };
    const auto requireDetections = [&](int f) {
        if (Ptr<Buffer> rows = cachedRows(f)) rs.cached_detections[f] = rows;
        else fetchInputImage(f);
    };

    if (rs.trackerConfig.tracking_mode != TRACKING_NONE) {
        if (typeName != "face") ML_THROW("Advanced/motion only supported for face detection!");
        if (rs.trackerConfig.smoothing_mode == SMOOTHING_GAUSSIAN)
            ML_THROW("Gaussian smoothing not supported for 'motion' or 'advanced' tracking modes (yet)");
        const nlohmann::json& tc = info.params.at("tracking_config");
        rs.trackerConfig.kalman_name = tc.at("kalman_name").get<std::string>();
        rs.trackerConfig.reid_execH = tc.at("reid_execH").get<int>();
        rs.trackerConfig.reid_execW = tc.at("reid_execW").get<int>();
        rs.trackerConfig.reid_name = tc.at("reid_name").get<std::string>();
        rs.trackerConfig.min_similarity = 0.34f;
        rs.trackerConfig.max_distance = 200.0f;
        rs.trackerConfig.hits_to_confirm = 0;
        rs.trackerConfig.max_hit_counter = 5;
        rs.trackerConfig.first_frame = host->getIntParam(call, 504, 0);
        // Appearance embeddings need the picture even where the detections are cached.
        const bool advanced = rs.trackerConfig.tracking_mode == TRACKING_ADVANCED;
        plan_tracker_walk(host, call, static_cast<int>(rs.frame), rs.trackerConfig.first_frame, modelId, rs.walk,
                          [&](int f) {
                              if (!advanced) return requireDetections(f);
                              if (Ptr<Buffer> rows = cachedRows(f)) rs.cached_detections[f] = rows;
                              fetchInputImage(f);
                          });
    } else if (rs.trackerConfig.smoothing_mode == SMOOTHING_NONE) {
        requireDetections(static_cast<int>(rs.frame));
    } else {
        if (rs.trackerConfig.smoothing_mode == SMOOTHING_KALMAN)
            ML_THROW("Kalman smoothing not supported for 'none' tracking mode (yet?)");
        rs.trackerConfig.smoothing_level = host->getFloatParam(call, 505, 0);
        checkSmoothingLevel(rs.trackerConfig.smoothing_level);
        const int half = gaussianWindow(rs.trackerConfig.smoothing_level) / 2;
        for (int f = static_cast<int>(rs.frame) - half; f <= static_cast<int>(rs.frame) + half; ++f) requireDetections(f);
    }

    if (!rs.input_images.count(static_cast<int>(rs.frame)) && (rs.segmentationBuffer || rs.colorizedImage))
        fetchInputImage(static_cast<int>(rs.frame));

    const int keypoints = rs.objectType->keypointCount;
    rs.row_floats = rowFloats(keypoints);
    rs.row_bytes = rowBytes(keypoints);
    rs.detectionBufferBytes = detectionBufferBytes(keypoints);
    const TileSize& tile = info.getOnlyTileSize();
    rs.execH = tile.execH;
    rs.execW = tile.execW;
    return rs;
}

}  // namespace ML::YOLO7
