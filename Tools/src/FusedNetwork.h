#pragma once
// Helper networks of one node of the "ai.quillon" operator domain, which the ort backends run
// (Backends/ort/FusedOps.h lists the operators and their attributes).
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

#include "GraphBuilder.h"

namespace qpkg {

inline constexpr const char* kFusedDomain = "ai.quillon";

struct FusedPort {
    std::string name;
    ML::u32 dataType;
    Dims dims;
};

// A checked network named name: the inputs, one node of the operator opType with the attributes,
// and its one output.
onnx::ModelProto buildFusedNetwork(const std::string& name, const std::vector<FusedPort>& inputs,
                                   const std::string& opType, const std::vector<onnx::AttributeProto>& attrs,
                                   const FusedPort& output);

onnx::AttributeProto attrFloatList(const std::string& name, const std::vector<float>& values);

}  // namespace qpkg
