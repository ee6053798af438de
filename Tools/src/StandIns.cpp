#include "StandIns.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

Dims planes(int64_t channels) {
    return {Dim::fixed(1), Dim::fixed(channels), Dim::fixed(kDepthStandInTile), Dim::fixed(kDepthStandInTile)};
}

}  // namespace

onnx::ModelProto buildDepthStandIn() {
    GraphBuilder g(kDepthStandInId);
    const std::string x = g.cast(g.input("image", ML::F16, planes(3)), ML::F16, ML::F32);
    const std::string weights = g.constF32({kLumaWeights[0], kLumaWeights[1], kLumaWeights[2]}, {1, 3, 1, 1});
    const std::string luma =
        g.op("ReduceSum", {g.op("Mul", {x, weights}), g.constI64({1}, {1})}, {attrInt("keepdims", 1)});
    const std::string depth = g.op("Sub", {g.scalarF32(1.0f), luma});
    g.output(g.cast(depth, ML::F32, ML::F16), "depth", ML::F16, planes(1));
    return g.build();
}

onnx::ModelProto buildDepthColorize() {
    GraphBuilder g(std::string(kDepthStandInId) + "_colorize");
    const std::string d = g.clip(g.cast(g.input("depth", ML::F16, planes(1)), ML::F16, ML::F32), 0.0f, 1.0f);
    // Broadcasting 1x1xHxW against 1x3x1x1 gives the three channels at once.
    const std::string centres = g.constF32({3.0f, 2.0f, 1.0f}, {1, 3, 1, 1});
    const std::string dist = g.op("Abs", {g.op("Sub", {g.mulScalar(d, 4.0f), centres})});
    const std::string rgb = g.clip(g.op("Sub", {g.scalarF32(1.5f), dist}), 0.0f, 1.0f);
    g.output(g.cast(rgb, ML::F32, ML::F16), "color", ML::F16, planes(3));
    return g.build();
}

std::vector<std::string> standInModelIds() {
    return {kDepthStandInId, std::string(kDepthStandInId) + "_colorize"};
}

void writeStandIns(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    writeModel(buildDepthStandIn(), modelFolder / (std::string(kDepthStandInId) + ".onnx"));
    writeModel(buildDepthColorize(), modelFolder / (std::string(kDepthStandInId) + "_colorize.onnx"));
}

}  // namespace qpkg
