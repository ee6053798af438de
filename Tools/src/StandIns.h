#pragma once
// Stand-in networks: small networks with the inputs and outputs of a model family that compute
// something simple and predictable, so that effects run end to end without real weights.
//
// Depth ("depth_standin", tile kDepthStandInTile x kDepthStandInTile):
//   depth_standin.onnx           1x3xHxW F16 RGB -> 1x1xHxW F16, depth = 1 - Y with
//                                Y = 0.2126 R + 0.7152 G + 0.0722 B (Rec. 709 luminance)
//   depth_standin_colorize.onnx  1x1xHxW F16 -> 1x3xHxW F16, the "jet" ramp of clamp(d, 0, 1):
//                                channel k (R, G, B) = clamp(1.5 - |4d - (3 - k)|, 0, 1)
//
// Upscaling ("upres_standin", any tile size; local, so tiles with overlap join seamlessly):
//   upres_standin_2x.onnx, upres_standin_4x.onnx
//                                1x3xHxW F16 in 0..1 -> 1x3x(sH)x(sW) F16: bicubic interpolation
//                                (Keys, a = -0.5) at pixel centres, source position
//                                (X + 0.5) / s - 0.5, edges repeated, clamped to 0..1. Done as one
//                                5x5 convolution per channel giving s*s phases, then DepthToSpace.
//   upres_standin_enhance.onnx   1x3xHxW F16 -> same: a mild sharpen, x + k (4x - the four
//                                neighbours) with k = kUpresEnhanceAmount, edges repeated,
//                                clamped to 0..1.
//
// Denoising ("denoiser_standin_stage1", "_stage2"): see DenoiserStandIn.h.
// Optical flow and retiming ("optical_flow_standin", "flow_viz-288x512", "flow_max",
// "retiming_standin"): see FlowStandIns.h.
// Licence-plate detection ("lp_detection_standin_detector", "_nms"): see PlateDetector.h.
// Face masks ("mask_blur", "face_parsing_standin", imgcvt/logits_to_masks_aa_*): see
// FaceMaskNetworks.h.
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kDepthStandInId = "depth_standin";
constexpr int kDepthStandInTile = 256;
constexpr float kLumaWeights[3] = {0.2126f, 0.7152f, 0.0722f};

constexpr const char* kUpresStandInId = "upres_standin";
constexpr float kBicubicA = -0.5f;
constexpr float kUpresEnhanceAmount = 0.125f;

onnx::ModelProto buildDepthStandIn();
onnx::ModelProto buildDepthColorize();
// scale 2 or 4
onnx::ModelProto buildUpresStandIn(int scale);
onnx::ModelProto buildUpresEnhanceStandIn();

// Model ids of the stand-in files (<id>.onnx) that writeStandIns writes.
std::vector<std::string> standInModelIds();

// Writes every stand-in network straight into the model folder.
void writeStandIns(const std::filesystem::path& modelFolder);

}  // namespace qpkg
