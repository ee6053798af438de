#pragma once
// Stand-in networks of interactive segmentation ("<id>_enc", "<id>_dec_single", "<id>_dec_batch"),
// no trained weights, with the ports and shapes of the "hiera_large" layout at a fixed execution
// size H x W (divisible by 16), and the colourised view of its masks.
//
//   <id>_enc         image F16 1x3xHxW (0..1) -> feat4 F16 1x32x(H/4)x(W/4), feat8 1x64x(H/8)x(W/8),
//                    feat16 1x256x(H/16)x(W/16). Per 4 x 4 cell, channels 0..8 of feat4: CIE Lab of the
//                    cell's mean colour (L scaled by kSegmentLightnessWeight, a and b by 1, all over 100), the
//                    same smoothed over 5 x 5 cells (times kSegmentSmoothWeight), the cell's luma spread
//                    (texture, times kSegmentTextureWeight) and its position (column, row over the grid's
//                    size, times kSegmentPositionWeight); feat8 and feat16 are feat4 averaged over 2 x 2 and
//                    4 x 4 cells. Other channels are zero.
//   <id>_dec_single  feat16, feat4, feat8, promptCoords F16 Bxnx2 (execution pixels), promptLabels
//   <id>_dec_batch   Bxn (1 positive, 0 negative, 2 and 3 a box's top-left and bottom-right corner),
//                    promptValid Bxn, maskInput 1x1x(H/4)x(W/4), hasMaskInput 1x1 (both unused)
//                    -> lowResLogits F16 Bx1x(H/4)x(W/4); B is 1 (single) or the batch size.
//                    Features are read at the prompts' cells. With d+ the least squared feature
//                    distance to a positive point (to the box's centre when there is a box and no
//                    positive point) and d- to a negative point or a box corner, a cell scores
//                    s = min(kSegmentReach - d+, d- - d+). Cells outside the box score at most -kSegmentReach.
//                    Only cells joined to a positive point through cells of s > 0 keep their score
//                    (a flood fill over (H/16) x (W/16) cells); the others at most -kSegmentReach. The
//                    logit is kSegmentLogitScale * s / kSegmentReach after a 3 x 3 mean, clamped to +-16.
//
//   imgcvt/mask_colorizer  color F16 1x3xHxW, mask F16 1x1xHxW -> output F16 1x3xHxW: half of the
//                    picture under the mask gives way to a blue tint.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kSegmentationStandInId = "interactive_segmentation_standin";
constexpr int kSegmentationExec = 1024;       // execution height and width
constexpr int kSegmentationMaxPoints = 16;    // "singleMaxPoints"
constexpr int kSegmentationBatch = 4;         // "batchSz"
constexpr int kSegmentationOutputTile = 512;  // the logits-to-masks network's tile

constexpr float kSegmentLightnessWeight = 0.5f;
constexpr float kSegmentSmoothWeight = 0.7f;
constexpr float kSegmentTextureWeight = 1.5f;
constexpr float kSegmentPositionWeight = 0.4f;
constexpr float kSegmentReach = 0.05f;
constexpr float kSegmentLogitScale = 8.0f;

onnx::ModelProto buildSegmentationEncoder(int64_t h, int64_t w);
// batch 1 for "_dec_single", kSegmentationBatch for "_dec_batch".
onnx::ModelProto buildSegmentationDecoder(int64_t h, int64_t w, int64_t n, int64_t batch);
onnx::ModelProto buildMaskColorizer();

// Model ids of the three stand-in files.
std::vector<std::string> segmentationStandInModelIds();

// Writes the stand-ins into the model folder and the colouriser into its imgcvt folder.
void writeSegmentationStandIns(const std::filesystem::path& modelFolder);

}  // namespace qpkg
