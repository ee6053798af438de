#pragma once
// The licence-plate detector stand-in ("lp_detection_standin"): no trained weights, a classical
// detector of bright, plate-shaped rectangles, with the inputs and outputs of the detector family.
//
//   lp_detection_standin_detector.onnx
//     input   input  F16 1x3x384x640, RGB planar in 0..1
//     outputs raw    F32 1 x 15300 x 18: rows x1, y1, x2, y2 (pixels of the input; x2, y2 one past
//                    the last plate pixel), score, class (0), then the four corners as x, y,
//                    confidence: top-left, top-right, bottom-left, bottom-right. Rows past the
//                    960 candidates, and candidates that are no plate, are zeros.
//             count  F32 [1], the number of rows scoring above kPlateScoreThreshold.
//   lp_detection_standin_nms.onnx
//     raw F32 1 x 15300 x 18 -> nms F32 256 x 18: the rows kept by non-maximum suppression (IoU
//     kPlateIouThreshold, score above kPlateScoreThreshold), best first, zero rows after.
//
// The detector, for each cell of a 16-pixel grid (24 x 40 cells):
//   m = Y > 0.75, Y the Rec. 709 luminance: the bright pixels.
//   B1 = bounding box of the bright pixels in a kPlateWindowW x kPlateWindowH window centred on
//   the cell, B2 the same in a window kPlateMargin pixels larger on each side. B1 == B2 means that
//   the window holds a whole bright object (the picture's edges cut both windows alike).
//   fill = (bright pixels in the window) / (area of B1).
//   The cell is a plate when B1 == B2, B1 is at least kPlateMinWidth x kPlateMinHeight, its
//   aspect ratio is within kPlateMinAspect..kPlateMaxAspect and fill >= kPlateMinFill; its score
//   is then fill (the dark characters inside lower it a little). All cells that see the same
//   plate give the same box, which NMS merges into one row.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kPlateStandInId = "lp_detection_standin";
constexpr int64_t kPlateInputH = 384, kPlateInputW = 640;
constexpr int64_t kPlateRows = (kPlateInputW / 64) * (kPlateInputH / 64) * 255;  // 15300
constexpr int64_t kPlateColumns = 6 + 4 * 3;
constexpr int64_t kPlateNmsRows = 256;
constexpr float kPlateScoreThreshold = 0.2f;
constexpr float kPlateIouThreshold = 0.3f;

constexpr int64_t kPlateStride = 16;
constexpr int64_t kPlateWindowW = 256, kPlateWindowH = 96;
constexpr int64_t kPlateMargin = 16;
constexpr float kPlateBright = 0.75f;
constexpr float kPlateMinWidth = 40.0f, kPlateMinHeight = 10.0f;
constexpr float kPlateMinAspect = 1.5f, kPlateMaxAspect = 8.0f;
constexpr float kPlateMinFill = 0.6f;

onnx::ModelProto buildPlateDetector();
onnx::ModelProto buildPlateNms();

// "lp_detection_standin_detector", "lp_detection_standin_nms".
std::vector<std::string> plateStandInModelIds();

// Writes both networks into the model folder as <id>.onnx.
void writePlateStandIn(const std::filesystem::path& modelFolder);

}  // namespace qpkg
