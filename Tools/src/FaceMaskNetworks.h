#pragma once
// Networks of the detection effect's image outputs: the blur that hides detected objects in the
// colourised output, and face parsing (a stand-in labeller and the conversion of its logits to
// soft masks).
//
//   mask_blur.onnx
//     inputs  color F16 1x3xHxW (0..1), mask F16 1x1xHxW (0..1, 1 on objects)
//     output  output F16 1x3xHxW = color + clamp(mask, 0, 1) * (blur(color) - color)
//     blur(color): three box blurs of width 2 * kMaskBlurRadius + 1 along each axis, edges
//     repeated (close to a Gaussian of sigma ~16.5 pixels). Every output pixel reads inputs up to
//     kMaskBlurReach pixels away, so tiles with at least that much padding join without seams.
//
//   face_parsing_standin.onnx  (no trained weights; see the description in the configuration)
//     input   input F16 1x3xExE, the face's box grown 1.75 times and resampled to E x E
//     output  logits F16 1x2xExE: channel 0 background (0), channel 1 "skin" =
//             logit(p), p = oval(x, y) * (0.25 + 0.75 * skinTone(r, g)): oval is a soft ellipse
//             over the middle of the crop where the detector's box lies, skinTone a Gaussian
//             around typical skin chromaticity in normalised r, g.
//
//   imgcvt/logits_to_masks_aa_F16.onnx, _F32.onnx
//     logits 1xCx512x512 -> masks 1xCx512x512 of the same type: the softmax over the classes; for
//     C = 1 the sigmoid of the one logit.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

#include "ML/Types.h"

namespace qpkg {

constexpr const char* kMaskBlurId = "mask_blur";
constexpr int64_t kMaskBlurRadius = 16;
constexpr int64_t kMaskBlurReach = 3 * kMaskBlurRadius;
constexpr int kMaskBlurPadding = 64;  // tile padding of the colourised output, above the reach

constexpr const char* kFaceParsingStandInId = "face_parsing_standin";
constexpr int64_t kFaceParsingSize = 256;
constexpr int64_t kLogitsTile = 512;

onnx::ModelProto buildMaskBlur();
onnx::ModelProto buildFaceParsingStandIn();
// dataType F16 or F32.
onnx::ModelProto buildLogitsToMasks(ML::u32 dataType);
std::string logitsToMasksName(ML::u32 dataType);  // "logits_to_masks_aa_F16"

// The classes of the parsing stand-in, background excluded.
std::vector<std::string> faceParsingClasses();

// Writes mask_blur and the parsing stand-in into the model folder, the two conversions into
// its imgcvt folder.
void writeFaceMaskNetworks(const std::filesystem::path& modelFolder);

}  // namespace qpkg
