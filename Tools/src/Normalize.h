#pragma once
// "normalize-input_<key>" and "denormalize-output_<key>", key "<type>_<N>x<H>x<W>": inputs data
// (N,C,H,W with N, H and W fixed by the key) and params [4] = low, high, rangeMin, rangeMax in
// the data's type; output data of the input's shape. With span = max(rangeMax - rangeMin, 1e-6)
// and e = low / high (1 when either is not positive):
//   normalise    y = sign(t)·|t|^e,  t = (x - rangeMin) / span
//   denormalise  x = sign(y)·|y|^(1/e) · span + rangeMin
// so each undoes the other. With range 0..1 the pair is the gamma conversion from low to high;
// with low 1 and high log2(span) it squeezes a wide range into 0..1 and lifts the shadows.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

#include "Formats.h"

namespace qpkg {

// "F16_1x512x512"
std::string normalizerKey(ML::u32 dataType, const TensorSize& size);
std::string normalizeName(ML::u32 dataType, const TensorSize& size);    // "normalize-input_<key>"
std::string denormalizeName(ML::u32 dataType, const TensorSize& size);  // "denormalize-output_<key>"

onnx::ModelProto buildNormalizeNetwork(ML::u32 dataType, const TensorSize& size);
onnx::ModelProto buildDenormalizeNetwork(ML::u32 dataType, const TensorSize& size);

// Writes both networks of the key straight into the model folder (not into imgcvt).
void writeNormalizerNetworks(const std::filesystem::path& modelFolder, ML::u32 dataType, const TensorSize& size);

}  // namespace qpkg
