#pragma once
// The face-detector family: a detector network and a non-maximum-suppression network.
//
// Detector: "input" F16 1x3x768x1280, RGB planar in 0..1, the picture already stretched to that
// size. Outputs, in order: "raw" F32 1 x 61200 x 21 and "count" F32 [1]. Each row of "raw" is one
// candidate: x1, y1, x2, y2 (pixels of the 1280x768 input), score (0..1), class (0), then five
// keypoints as x, y, confidence in the same pixels: image-left eye, image-right eye, nose tip,
// image-left mouth corner, image-right mouth corner. Rows past the network's own candidates are
// zeros. "count" is the number of candidates scoring above 0.25; when it is 0 the caller skips the
// NMS network.
//
// NMS: "raw" F32 1 x 61200 x 21 -> "nms" F32 256 x 21: the candidates kept by non-maximum
// suppression (IoU 0.3, score above 0.25, at most 256), best score first, zero rows after them.
#include <cstdint>
#include <string>
#include <vector>

#include "Importer.h"

namespace qpkg::tfjs {

constexpr int64_t kFaceInputHeight = 768, kFaceInputWidth = 1280;
constexpr int64_t kFaceRows = (kFaceInputWidth / 64) * (kFaceInputHeight / 64) * 255;  // 61200
constexpr int64_t kFaceColumns = 21;
constexpr int64_t kFaceNmsRows = 256;
constexpr float kFaceScoreThreshold = 0.25f;
constexpr float kFaceIouThreshold = 0.3f;

// One level of SSD anchors: a square grid of cells `stride` network pixels wide, with
// `perCell` anchors centred on each cell (unit size: the network regresses box sizes directly).
struct AnchorLevel {
    int64_t stride = 0;
    int64_t perCell = 0;
};

// How a BlazeFace-style network is decoded.
struct FaceDecoder {
    int64_t size = 0;                  // the network's square input size in pixels
    float inLow = -1.0f, inHigh = 1.0f;  // what the network takes for 0..1
    std::vector<AnchorLevel> levels;   // finest first, in the order of the network's outputs
};

// The detector: the network of model wrapped into the family's contract.
onnx::ModelProto importFaceDetector(const Model& model, const std::string& name, const FaceDecoder& decoder);

// The NMS network (independent of the detector's network).
onnx::ModelProto faceNmsNetwork(const std::string& name);

// The NMS network of any detector family with rows of the same layout: "raw" F32 1 x rows x
// columns -> "nms" F32 keep x columns, the rows kept by NonMaxSuppression (IoU above iou
// suppressed, score above minScore), best score first, zero rows after them.
onnx::ModelProto detectorNmsNetwork(const std::string& name, int64_t rows, int64_t columns, int64_t keep, float iou,
                                    float minScore);

}  // namespace qpkg::tfjs
