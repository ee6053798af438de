#pragma once
// Resize networks "imgcvt/resize_<type>_<layout>": inputs the tensor and its target shape
// (I64 [4], always in N,C,H,W order), output the resized tensor. Bilinear with half-pixel
// centres, without antialiasing; batch and channels are kept from the input.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

#include "ML/Types.h"

namespace qpkg {

// "resize_F16_CHW"
std::string resizeName(ML::u32 dataType, ML::u32 layout);

// portable: standard ONNX operators only (Resize in F32 between casts). Otherwise one fused
// ResizeImage_<type> node, which the ort backends run in the network's own element type.
onnx::ModelProto buildResizeNetwork(ML::u32 dataType, ML::u32 layout, bool portable = false);

// Writes the resize network of every pixel type and layout under <modelFolder>/imgcvt.
void writeResizeNetworks(const std::filesystem::path& modelFolder, bool portable = false);

}  // namespace qpkg
