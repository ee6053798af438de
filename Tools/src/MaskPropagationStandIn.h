#pragma once
// Stand-in networks of mask propagation (no trained weights), shared by the family ("qt/qt_<name>"),
// every port as the effect binds it and every extent symbolic. They propagate for real through the
// effect's memory, with hand-made features instead of learned ones:
//
//   key     per 16 x 16 cell: opponent colour (luma, red-green, yellow-blue) of the cell's mean,
//           scaled by kColourWeight, and its position (row, column in cells) scaled by
//           kPositionWeight; the other key channels are zero. Shrinkage is kSharpness.
//   value   per cell: the object's mask coverage and 1 minus it (channels 0 and 1).
//   readout attention of each query cell over all used memory cells, softmax of
//           -|k_query - k_memory|^2 * shrinkage, empty slots left out.
//   decoder logit of coverage / (coverage + background) at 1/4 (bilinear from 1/16), scaled by
//           kLogitScale. Sensory features and summaries pass through unchanged.
//   get_masks 0/1 at logit > 0; get_masks_aa the sigmoid; get_mask_others the clamped sum of the
//           other objects; mask_colorizer tints each object's area with a colour of a palette.
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kMaskPropagationStandInId = "mask_propagation_standin";
constexpr float kColourWeight = 8.0f;
constexpr float kPositionWeight = 0.15f;
constexpr float kSharpness = 4.0f;
constexpr float kLogitScale = 8.0f;

// Names of the stand-in networks (the family's submodels but the run-length pair).
std::vector<std::string> maskPropagationStandInNames();
onnx::ModelProto buildMaskPropagationStandIn(const std::string& name);

// Writes all of them into the "qt" folder of the model folder.
void writeMaskPropagationStandIns(const std::filesystem::path& modelFolder);

}  // namespace qpkg
