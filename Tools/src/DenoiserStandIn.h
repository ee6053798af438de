#pragma once
// The denoiser stand-in ("denoiser_standin"): a classical video denoiser in two stages over five
// frames, with the inputs and outputs of the trained two-stage denoiser. Stage 1 runs on frames
// t-1, t, t+1 and gives frame t; stage 2 runs on three stage-1 results and gives the final frame.
//
//   denoiser_standin_stage1.onnx, denoiser_standin_stage2.onnx (same inputs and outputs)
//     inputs  frame0, frame1, frame2  F16 1x3xHxW RGB (H, W free: "height", "width")
//             noise                   F16 1x1xHxW, multiplier of the stage's noise level
//     output  output                  F16 1x3xHxW, frame1 denoised
//
// Each stage, in F32:
//   F_i = G * frame_i            3x3 separable blur [a, 1 - 2a, a] per channel, edges repeated
//   D_i = box5x5(mean_c (F_i - F_1)^2)      local squared difference to the centre, edges repeated
//   w_i = exp(-D_i / max(2 (k sigma noise)^2, eps)),  w_1 = 1
//   output = sum_i w_i F_i / sum_i w_i
// A neighbour that matches the centre up to noise gets a weight near 1; one that differs by much
// more than sigma (motion, a cut) gets practically 0, so moving objects don't ghost. Nothing is
// clamped: HDR values above 1 and negative values pass through.
#include <filesystem>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kDenoiserStandInId = "denoiser_standin";

// Constants of one stage.
struct DenoiserStageParams {
    float blurSide;  // a: the blur's side taps (centre 1 - 2a)
    float sigma;     // noise level of the stage's input frames (per pixel and channel, 0..1 units)
    float k;         // weight width in multiples of sigma
};

// stage 1 or 2
DenoiserStageParams denoiserStageParams(int stage);
onnx::ModelProto buildDenoiserStage(int stage);

// "denoiser_standin_stage1", "denoiser_standin_stage2".
std::vector<std::string> denoiserStandInModelIds();

// Writes both stages into the model folder as <id>.onnx.
void writeDenoiserStandIn(const std::filesystem::path& modelFolder);

}  // namespace qpkg
