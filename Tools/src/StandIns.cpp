#include "StandIns.h"

#include <cmath>

#include "DenoiserStandIn.h"
#include "FaceMaskNetworks.h"
#include "FlowStandIns.h"
#include "PlateDetector.h"
#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

Dims planes(int64_t channels) {
    return {Dim::fixed(1), Dim::fixed(channels), Dim::fixed(kDepthStandInTile), Dim::fixed(kDepthStandInTile)};
}

Dims freePlanes(const char* h, const char* w) { return {Dim::fixed(1), Dim::fixed(3), Dim::named(h), Dim::named(w)}; }

// The Keys cubic convolution kernel.
float keys(float x) {
    const float a = kBicubicA;
    x = std::fabs(x);
    if (x < 1.0f) return ((a + 2.0f) * x - (a + 3.0f)) * x * x + 1.0f;
    if (x < 2.0f) return ((a * x - 5.0f * a) * x + 8.0f * a) * x - 4.0f * a;
    return 0.0f;
}

// Pads each side of the two spatial axes by n, repeating the edge pixels.
std::string padEdges(GraphBuilder& g, const std::string& x, int64_t n) {
    return g.op("Pad", {x, g.constI64({0, 0, n, n, 0, 0, n, n}, {8})}, {attrString("mode", "edge")});
}

// A per-channel convolution of the three channels (weights 3*m x 1 x k x k) with no padding.
std::string depthwise(GraphBuilder& g, const std::string& x, const std::vector<float>& weights, int64_t m, int64_t k) {
    return g.op("Conv", {x, g.constF32(weights, {3 * m, 1, k, k})}, {attrInt("group", 3)});
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

onnx::ModelProto buildUpresStandIn(int scale) {
    const int64_t s = scale;
    GraphBuilder g(std::string(kUpresStandInId) + "_" + std::to_string(scale) + "x");
    const std::string x = g.cast(g.input("image", ML::F16, freePlanes("H", "W")), ML::F16, ML::F32);
    // Output pixel s*i + k reads source position i + phase(k), phase(k) = (k + 0.5) / s - 0.5, in
    // -0.5..0.5: its four taps lie within i - 2 .. i + 2, weight keys(phase(k) - d) for tap i + d.
    std::vector<float> taps(static_cast<size_t>(s * 5));
    for (int64_t k = 0; k < s; ++k)
        for (int64_t d = -2; d <= 2; ++d)
            taps[static_cast<size_t>(k * 5 + d + 2)] =
                keys((static_cast<float>(k) + 0.5f) / static_cast<float>(s) - 0.5f - static_cast<float>(d));
    // Output channel c * s * s + ky * s + kx: the phase (ky, kx) of channel c, the order that
    // DepthToSpace in CRD mode spreads over s x s blocks.
    std::vector<float> weights;
    for (int c = 0; c < 3; ++c)
        for (int64_t ky = 0; ky < s; ++ky)
            for (int64_t kx = 0; kx < s; ++kx)
                for (int64_t dy = 0; dy < 5; ++dy)
                    for (int64_t dx = 0; dx < 5; ++dx)
                        weights.push_back(taps[static_cast<size_t>(ky * 5 + dy)] * taps[static_cast<size_t>(kx * 5 + dx)]);
    const std::string phases = depthwise(g, padEdges(g, x, 2), weights, s * s, 5);
    const std::string up =
        g.op("DepthToSpace", {phases}, {attrInt("blocksize", s), attrString("mode", "CRD")});
    g.output(g.cast(g.clip(up, 0.0f, 1.0f), ML::F32, ML::F16), "output", ML::F16, freePlanes("OH", "OW"));
    return g.build();
}

onnx::ModelProto buildUpresEnhanceStandIn() {
    GraphBuilder g(std::string(kUpresStandInId) + "_enhance");
    const std::string x = g.cast(g.input("image", ML::F16, freePlanes("H", "W")), ML::F16, ML::F32);
    const float k = kUpresEnhanceAmount;
    const std::vector<float> kernel{0, -k, 0, -k, 1 + 4 * k, -k, 0, -k, 0};
    std::vector<float> weights;
    for (int c = 0; c < 3; ++c) weights.insert(weights.end(), kernel.begin(), kernel.end());
    const std::string y = depthwise(g, padEdges(g, x, 1), weights, 1, 3);
    g.output(g.cast(g.clip(y, 0.0f, 1.0f), ML::F32, ML::F16), "output", ML::F16, freePlanes("H", "W"));
    return g.build();
}

std::vector<std::string> standInModelIds() {
    const std::string up = kUpresStandInId;
    std::vector<std::string> ids{kDepthStandInId, std::string(kDepthStandInId) + "_colorize", up + "_2x", up + "_4x",
                                 up + "_enhance"};
    for (const std::string& id : denoiserStandInModelIds()) ids.push_back(id);
    for (const std::string& id : flowStandInModelIds()) ids.push_back(id);
    for (const std::string& id : plateStandInModelIds()) ids.push_back(id);
    ids.push_back(kFaceParsingStandInId);
    return ids;
}

void writeStandIns(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    writeModel(buildDepthStandIn(), modelFolder / (std::string(kDepthStandInId) + ".onnx"));
    writeModel(buildDepthColorize(), modelFolder / (std::string(kDepthStandInId) + "_colorize.onnx"));
    const std::string up = kUpresStandInId;
    writeModel(buildUpresStandIn(2), modelFolder / (up + "_2x.onnx"));
    writeModel(buildUpresStandIn(4), modelFolder / (up + "_4x.onnx"));
    writeModel(buildUpresEnhanceStandIn(), modelFolder / (up + "_enhance.onnx"));
    writeDenoiserStandIn(modelFolder);
    writeFlowStandIns(modelFolder);
    writePlateStandIn(modelFolder);
    writeFaceMaskNetworks(modelFolder);
}

}  // namespace qpkg
