#pragma once
// "upres_sampler_<type>_<N>x<H>x<W>": resamples a tile to the result's grid at any scale.
// Inputs: source tensor N,C,H,W (N, H, W fixed by the name) and F32 parameters 1x7x1x1
// (a, b, c, d, originX, originY, scale) or, in the split form, 1x13x1x1 (each of the six integers
// as value / 256 and value % 256, then scale). Output: N,C,H,W in the source's type.
// Output pixel (x, y) is result position p = (x + a, y + b); its source position per axis is
// (p + 0.5 - origin) / scale + origin - 0.5, less c (or d) to land in the source tile; the source
// is sampled bilinearly there, coordinates clamped to the tile (edge pixels repeat).
//
// "upres_sampler_dynamic_<type>": the same mapping and filter with free extents. Inputs: source
// 1x3xHsxWs, params 1x7x1x1 F32 as above, size 1x2x1x1 INT32 (output width, height). Output
// 1x3xHxW with H and W from size; coordinates are clamped to the source.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

#include "Formats.h"

namespace qpkg {

// "upres_sampler_F16_1x512x512"
std::string samplerName(ML::u32 dataType, const TensorSize& size);

onnx::ModelProto buildSamplerNetwork(ML::u32 dataType, const TensorSize& size, bool splitParameters);

// "upres_sampler_dynamic_F16"
std::string dynamicSamplerName(ML::u32 dataType);
onnx::ModelProto buildDynamicSamplerNetwork(ML::u32 dataType);
void writeDynamicSamplerNetwork(const std::filesystem::path& modelFolder, ML::u32 dataType);

// Writes the network straight into the model folder (not into imgcvt).
void writeSamplerNetwork(const std::filesystem::path& modelFolder, ML::u32 dataType, const TensorSize& size,
                         bool splitParameters);

}  // namespace qpkg
