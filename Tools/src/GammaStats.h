#pragma once
// "imgcvt/CONVERT_GAMMA_<type>": inputs data (flat, [E]), source gamma [1], target gamma [1];
// output data re-encoded from the source gamma to the target gamma, sign(x)·|x|^(source/target).
// "imgcvt/GET_IMAGE_STATS_<type>": input a 4D tensor; output [2]: minimum, maximum.
// For F16 and F32; the arithmetic runs in F32.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

#include "ML/Types.h"

namespace qpkg {

std::string gammaName(ML::u32 dataType);  // "CONVERT_GAMMA_F16"
std::string statsName(ML::u32 dataType);  // "GET_IMAGE_STATS_F16"

onnx::ModelProto buildGammaNetwork(ML::u32 dataType);
onnx::ModelProto buildStatsNetwork(ML::u32 dataType);

// Writes both networks for F16 and F32 under <modelFolder>/imgcvt.
void writeGammaAndStatsNetworks(const std::filesystem::path& modelFolder);

}  // namespace qpkg
