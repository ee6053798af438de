#pragma once
// The run-length coding of finished propagation masks, shared by all mask propagation models:
// fixed chunks of kRleChunk mask values in, runs out, and back.
//
//   qt/qt_rle_encoder.onnx
//     input   rlePlain F16 [kRleChunk], mask values in 0..1
//     outputs rleCount I32 [1] = N, the number of runs
//             rleBytes I8 [kRleChunk]: the level round(clamp(v, 0, 1) * kRleLevels) of each run,
//             then zeros
//             rleRuns I32 [kRleChunk]: the length of each run, then zeros
//   qt/qt_rle_decoder.onnx
//     inputs  rleCount, rleBytes, rleRuns as above; only the first N bytes and runs are read
//     output  rlePlain F16 [kRleChunk] = level / kRleLevels, run after run
//
// Masks whose values are on the grid of levels (every binary mask) come back exactly; others are
// rounded to the nearest level. The decoder places run starts with one scatter and a running sum,
// so both directions are linear in the chunk length whatever N is.
#include <cstdint>
#include <filesystem>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr int64_t kRleChunk = 2100000;
constexpr int kRleLevels = 127;

onnx::ModelProto buildRleEncoder();
onnx::ModelProto buildRleDecoder();

// Writes both into the "qt" folder of the model folder.
void writeMaskRleNetworks(const std::filesystem::path& modelFolder);

}  // namespace qpkg
