#pragma once
// The optical-flow and retiming stand-ins: classical flow (coarse-to-fine Lucas–Kanade, see
// FlowGraph.h) and flow-based frame interpolation, with the inputs and outputs of the trained
// networks of those families. All F32, RGB in 0..1, N = 1.
//
//   optical_flow_standin.onnx   image0, image1 1x3xHxW; scale 1x2x1x1 (x factor, y factor)
//                               -> flow 1x2xHxW: x, y displacement from image0 to image1
//                               (image1(p + flow(p)) ~ image0(p)), in the network's pixels times
//                               scale. H, W free ("height", "width"; 16 at least), configured
//                               for tiles of kFlowTileH x kFlowTileW.
//   flow_viz-<H>x<W>.onnx       flow 1x2xHxW -> color 1x3xHxW in 0..1, HSV with hue = the
//                               direction's angle from +x towards +y (down): +x red, 120
//                               degrees green, 240 degrees blue; saturation = length / the
//                               field's largest length; value 1 (still = white).
//   flow_max.onnx               flow 1x2xhxw (h, w free) -> max 1x2x1x1: largest |x| and |y|.
//   retiming_standin.onnx       image0, image1 1x3xHxW; time 1x1 -> result 1x3xHxW, the picture
//                               at time t in 0..1 (kRetimeTile square):
//                               F01, F10 = flow both ways (one batch of two)
//                               e_i  = |F_ij + F_ji(p + F_ij(p))|^2, w_i = exp(-e_i / (2 s^2)) + eps
//                               warp0 = [image0, w0](p - t F01(p)), warp1 = [image1, w1](p - (1-t) F10(p))
//                               result = ((1-t) w0 warp0 + t w1 warp1) / ((1-t) w0 + t w1)
//   imgcvt/blend_F32_1x3xHxW.onnx
//                               sum, result 1x3xHxW; weightsY 1x1xHx1; weightsX 1x1x1xW
//                               -> out = sum + result * weightsY * weightsX (retiming tile size)
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kFlowStandInId = "optical_flow_standin";
constexpr const char* kFlowMaxId = "flow_max";
constexpr const char* kRetimeStandInId = "retiming_standin";
constexpr int64_t kFlowTileH = 288;
constexpr int64_t kFlowTileW = 512;
constexpr int64_t kRetimeTile = 384;
// Forward-backward mismatch (pixels) at which a warped frame's weight falls to exp(-1/2).
constexpr float kConsistencySigma = 1.0f;
constexpr float kMinBlendWeight = 1e-3f;

// "flow_viz-288x512"
std::string flowVizId(int64_t h, int64_t w);
// "blend_F32_1x3x384x384" (in imgcvt/)
std::string blendName(int64_t h, int64_t w);

onnx::ModelProto buildFlowStandIn();
onnx::ModelProto buildFlowViz(int64_t h = kFlowTileH, int64_t w = kFlowTileW);
onnx::ModelProto buildFlowMax();
onnx::ModelProto buildRetimeStandIn(int64_t h = kRetimeTile, int64_t w = kRetimeTile);
onnx::ModelProto buildBlend(int64_t h = kRetimeTile, int64_t w = kRetimeTile);

// optical_flow_standin, flow_viz-288x512, flow_max, retiming_standin.
std::vector<std::string> flowStandInModelIds();

// Writes the four networks above into the model folder as <id>.onnx.
void writeFlowStandIns(const std::filesystem::path& modelFolder);
// Writes imgcvt/<blendName>.onnx for the retiming tile.
void writeBlendNetwork(const std::filesystem::path& modelFolder);

}  // namespace qpkg
