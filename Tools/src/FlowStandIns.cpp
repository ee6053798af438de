#include "FlowStandIns.h"

#include <cmath>

#include "FlowGraph.h"
#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

constexpr float kPi = 3.14159265358979f;

Dims planes(int64_t c, int64_t h, int64_t w) { return {Dim::fixed(1), Dim::fixed(c), Dim::fixed(h), Dim::fixed(w)}; }

std::string batch(GraphBuilder& g, const std::string& x, int64_t i) {
    return g.op("Slice", {x, g.constI64({i}, {1}), g.constI64({i + 1}, {1}), g.constI64({0}, {1})});
}

std::string concat(GraphBuilder& g, const std::vector<std::string>& xs, int64_t axis) {
    return g.op("Concat", xs, {attrInt("axis", axis)});
}

// atan2(y, x) in -pi..pi, as 2 atan(y / (r + x)); pi where r + x vanishes (x <= 0, y = 0).
std::string atan2(GraphBuilder& g, const std::string& y, const std::string& x, const std::string& r) {
    const std::string d = g.op("Add", {r, x});
    const std::string small = g.op("Less", {d, g.scalarF32(1e-12f)});
    const std::string safe = g.op("Where", {small, g.scalarF32(1.0f), d});
    const std::string half = g.op("Atan", {g.op("Div", {y, safe})});
    return g.op("Where", {small, g.scalarF32(kPi), g.mulScalar(half, 2.0f)});
}

}  // namespace

std::string flowVizId(int64_t h, int64_t w) { return "flow_viz-" + std::to_string(h) + "x" + std::to_string(w); }

std::string blendName(int64_t h, int64_t w) {
    return "blend_F32_1x3x" + std::to_string(h) + "x" + std::to_string(w);
}

onnx::ModelProto buildFlowStandIn() {
    GraphBuilder g(kFlowStandInId);
    const auto free = [](int64_t c) {
        return Dims{Dim::fixed(1), Dim::fixed(c), Dim::named("height"), Dim::named("width")};
    };
    const std::string i0 = g.input("image0", ML::F32, free(3));
    const std::string i1 = g.input("image1", ML::F32, free(3));
    const std::string scale = g.input("scale", ML::F32, planes(2, 1, 1));
    g.reserve("flow");
    const std::string flow = pyramidalFlow(g, luminance(g, i0), luminance(g, i1));
    g.output(g.op("Mul", {flow, scale}), "flow", ML::F32, free(2));
    return g.build();
}

onnx::ModelProto buildFlowViz(int64_t h, int64_t w) {
    GraphBuilder g(flowVizId(h, w));
    const std::string f = g.input("flow", ML::F32, planes(2, h, w));
    g.reserve("color");
    const std::string u = g.op("Slice", {f, g.constI64({0}, {1}), g.constI64({1}, {1}), g.constI64({1}, {1})});
    const std::string v = g.op("Slice", {f, g.constI64({1}, {1}), g.constI64({2}, {1}), g.constI64({1}, {1})});
    const std::string r = g.op("Sqrt", {g.op("Add", {g.op("Mul", {u, u}), g.op("Mul", {v, v})})});
    const std::string largest = g.op("ReduceMax", {r}, {attrInt("keepdims", 1)});
    const std::string sat =
        g.clip(g.op("Div", {r, g.op("Max", {largest, g.scalarF32(1e-6f)})}), 0.0f, 1.0f);
    // Hue in sixths of a turn, 0..6.
    const std::string sixths = g.op(
        "Mod", {g.addScalar(g.mulScalar(atan2(g, v, u, r), 3.0f / kPi), 6.0f), g.scalarF32(6.0f)},
        {attrInt("fmod", 1)});
    // HSV to RGB with V = 1: channel = 1 - S clamp(min(k, 4 - k), 0, 1), k = (n + hue) mod 6,
    // n = 5, 3, 1 for R, G, B.
    const std::string k = g.op("Mod", {g.op("Add", {sixths, g.constF32({5, 3, 1}, {1, 3, 1, 1})}), g.scalarF32(6.0f)},
                               {attrInt("fmod", 1)});
    const std::string ramp = g.clip(g.op("Min", {k, g.op("Sub", {g.scalarF32(4.0f), k})}), 0.0f, 1.0f);
    const std::string rgb = g.op("Sub", {g.scalarF32(1.0f), g.op("Mul", {sat, ramp})});
    g.output(rgb, "color", ML::F32, planes(3, h, w));
    return g.build();
}

onnx::ModelProto buildFlowMax() {
    GraphBuilder g(kFlowMaxId);
    const Dims in{Dim::fixed(1), Dim::fixed(2), Dim::named("height"), Dim::named("width")};
    const std::string f = g.input("flow", ML::F32, in);
    g.reserve("max");
    const std::string m = g.op("ReduceMax", {g.op("Abs", {f})}, {attrInts("axes", {2, 3}), attrInt("keepdims", 1)});
    g.output(m, "max", ML::F32, planes(2, 1, 1));
    return g.build();
}

onnx::ModelProto buildRetimeStandIn(int64_t h, int64_t w) {
    GraphBuilder g(kRetimeStandInId);
    const std::string i0 = g.input("image0", ML::F32, planes(3, h, w));
    const std::string i1 = g.input("image1", ML::F32, planes(3, h, w));
    const std::string time = g.input("time", ML::F32, {Dim::fixed(1), Dim::fixed(1)});
    g.reserve("result");
    const std::string t = g.op("Reshape", {time, g.constI64({1, 1, 1, 1}, {4})});
    const std::string s = g.op("Sub", {g.scalarF32(1.0f), t});

    // Both flows in one batch: [F01, F10].
    const std::string l0 = luminance(g, i0), l1 = luminance(g, i1);
    const std::string flows = pyramidalFlow(g, concat(g, {l0, l1}, 0), concat(g, {l1, l0}, 0));
    const std::string swapped = concat(g, {batch(g, flows, 1), batch(g, flows, 0)}, 0);

    // Forward-backward mismatch in each frame, and the frame's weight.
    const PictureGeometry geo = geometryOf(g, i0);
    const std::string mismatch = g.op("Add", {flows, warpByFlow(g, geo, swapped, flows)});
    const std::string e = g.op("ReduceSum", {g.op("Mul", {mismatch, mismatch}), g.constI64({1}, {1})},
                               {attrInt("keepdims", 1)});
    const float twoVar = 2.0f * kConsistencySigma * kConsistencySigma;
    const std::string weight = g.addScalar(g.op("Exp", {g.mulScalar(e, -1.0f / twoVar)}), kMinBlendWeight);

    // Frame 0 read at p - t F01(p), frame 1 at p - (1 - t) F10(p), each with its weight.
    const std::string reach = concat(g, {t, s}, 0);
    const std::string disp = g.op("Neg", {g.op("Mul", {flows, reach})});
    const std::string warped = warpByFlow(g, geo, concat(g, {concat(g, {i0, i1}, 0), weight}, 1), disp);
    const std::string pictures = g.op("Slice", {warped, g.constI64({0}, {1}), g.constI64({3}, {1}), g.constI64({1}, {1})});
    const std::string weights = g.op("Slice", {warped, g.constI64({3}, {1}), g.constI64({4}, {1}), g.constI64({1}, {1})});
    const std::string share = g.op("Mul", {weights, concat(g, {s, t}, 0)});
    const std::string axis0 = g.constI64({0}, {1});
    const std::string num = g.op("ReduceSum", {g.op("Mul", {share, pictures}), axis0}, {attrInt("keepdims", 1)});
    const std::string den = g.op("ReduceSum", {share, axis0}, {attrInt("keepdims", 1)});
    g.output(g.op("Div", {num, den}), "result", ML::F32, planes(3, h, w));
    return g.build();
}

onnx::ModelProto buildBlend(int64_t h, int64_t w) {
    GraphBuilder g(blendName(h, w));
    const std::string sum = g.input("sum", ML::F32, planes(3, h, w));
    const std::string result = g.input("result", ML::F32, planes(3, h, w));
    const std::string wy = g.input("weightsY", ML::F32, planes(1, h, 1));
    const std::string wx = g.input("weightsX", ML::F32, planes(1, 1, w));
    g.reserve("out");
    const std::string out = g.op("Add", {sum, g.op("Mul", {result, g.op("Mul", {wy, wx})})});
    g.output(out, "out", ML::F32, planes(3, h, w));
    return g.build();
}

std::vector<std::string> flowStandInModelIds() {
    return {kFlowStandInId, flowVizId(kFlowTileH, kFlowTileW), kFlowMaxId, kRetimeStandInId};
}

void writeFlowStandIns(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    const std::vector<std::string> ids = flowStandInModelIds();
    writeModel(buildFlowStandIn(), modelFolder / (ids[0] + ".onnx"));
    writeModel(buildFlowViz(), modelFolder / (ids[1] + ".onnx"));
    writeModel(buildFlowMax(), modelFolder / (ids[2] + ".onnx"));
    writeModel(buildRetimeStandIn(), modelFolder / (ids[3] + ".onnx"));
}

void writeBlendNetwork(const std::filesystem::path& modelFolder) {
    const std::filesystem::path folder = modelFolder / "imgcvt";
    makeFolder(folder);
    writeModel(buildBlend(), folder / (blendName(kRetimeTile, kRetimeTile) + ".onnx"));
}

}  // namespace qpkg
