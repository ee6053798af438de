#pragma once
// "warp_affine_crop": cuts a straightened face out of a whole frame with an affine map, for
// re-identification.
//
//   inputs  source  1x3xHxW, any H and W (the frame, RGB planar)
//           matrix  2x3, row-major [a b c; d e f]: crop pixel (u, v) reads the source at
//                   x = a u + b v + c, y = d u + e v + f
//   output  crop    1x3x112x112
//
// Pixel centres sit on whole numbers in both pictures: crop pixel (u, v) is the point (u, v) and
// source pixel (i, j) has its centre at (i, j). The source is read bilinearly; where the four
// neighbours of a point fall outside the frame they count as zeros, so a face cut at the frame's
// edge fades to black there (a mirrored or repeated edge would add detail that is not in the
// picture). All three tensors have the network's type, F16 or F32; the arithmetic runs in F32.
//
// Only the part of the frame under the crop is widened to F32 and sampled: the map of the
// crop's four corners gives its bounding box (one pixel more on the far sides for the bilinear
// neighbours), clamped to the frame.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

#include "ML/Types.h"

namespace qpkg {

constexpr const char* kWarpAffineCropName = "warp_affine_crop";
constexpr int64_t kWarpAffineCropSize = 112;

onnx::ModelProto buildWarpAffineCrop(ML::u32 dataType);

// <modelFolder>/warp_affine_crop.onnx in the type the backends of this package compute in (F16).
void writeWarpAffineCrop(const std::filesystem::path& modelFolder, ML::u32 dataType = ML::F16);

}  // namespace qpkg
