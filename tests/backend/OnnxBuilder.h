#pragma once
// Writes tiny ONNX networks for tests and benchmarks, with the ONNX protobuf classes. Parent
// folders are made as needed.
#include <filesystem>

namespace TestNetworks {

// y = x + addend on F16 tensors [1,3,height,width], computed in F32: input "x", output "y".
void writeCastAddNetwork(const std::filesystem::path& file, float addend);

// sum = a + b on F32 tensors [1,4]: inputs "a", "b", output "sum".
void writeSumNetwork(const std::filesystem::path& file);

}  // namespace TestNetworks
