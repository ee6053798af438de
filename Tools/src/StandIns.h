#pragma once
// Stand-in networks: small networks with the inputs and outputs of a model family that compute
// something simple and predictable, so that effects run end to end without real weights.
//
// Depth ("depth_standin", tile kDepthStandInTile x kDepthStandInTile):
//   depth_standin.onnx           1x3xHxW F16 RGB -> 1x1xHxW F16, depth = 1 - Y with
//                                Y = 0.2126 R + 0.7152 G + 0.0722 B (Rec. 709 luminance)
//   depth_standin_colorize.onnx  1x1xHxW F16 -> 1x3xHxW F16, the "jet" ramp of clamp(d, 0, 1):
//                                channel k (R, G, B) = clamp(1.5 - |4d - (3 - k)|, 0, 1)
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kDepthStandInId = "depth_standin";
constexpr int kDepthStandInTile = 256;
constexpr float kLumaWeights[3] = {0.2126f, 0.7152f, 0.0722f};

onnx::ModelProto buildDepthStandIn();
onnx::ModelProto buildDepthColorize();

// Model ids of the stand-in files (<id>.onnx) that writeStandIns writes.
std::vector<std::string> standInModelIds();

// Writes every stand-in network straight into the model folder.
void writeStandIns(const std::filesystem::path& modelFolder);

}  // namespace qpkg
