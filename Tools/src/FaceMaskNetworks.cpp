#include "FaceMaskNetworks.h"

#include <cmath>
#include <limits>

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

Dims planes(int64_t channels, Dim h, Dim w) { return {Dim::fixed(1), Dim::fixed(channels), h, w}; }

// Mean over 2r + 1 neighbours along `axis` (2 or 3) with edges repeated, as a difference of two
// slices of one running sum: O(1) per pixel whatever r is.
std::string boxBlur(GraphBuilder& g, const std::string& x, int64_t axis, int64_t r) {
    std::vector<int64_t> pads(8, 0);
    pads[static_cast<size_t>(axis)] = r + 1;  // before
    pads[static_cast<size_t>(axis + 4)] = r;  // after
    const std::string padded = g.op("Pad", {x, g.constI64(pads, {8})}, {attrString("mode", "edge")});
    const std::string sums = g.op("CumSum", {padded, g.constI64({axis}, {})});
    const std::string ax = g.constI64({axis}, {1});
    const std::string upper = g.op("Slice", {sums, g.constI64({2 * r + 1}, {1}),
                                             g.constI64({std::numeric_limits<int64_t>::max()}, {1}), ax});
    const std::string lower = g.op("Slice", {sums, g.constI64({0}, {1}), g.constI64({-(2 * r + 1)}, {1}), ax});
    return g.divScalar(g.op("Sub", {upper, lower}), static_cast<float>(2 * r + 1));
}

}  // namespace

onnx::ModelProto buildMaskBlur() {
    GraphBuilder g(kMaskBlurId);
    const Dim h = Dim::named("H"), w = Dim::named("W");
    const std::string color = g.cast(g.input("color", ML::F16, planes(3, h, w)), ML::F16, ML::F32);
    const std::string mask = g.clip(g.cast(g.input("mask", ML::F16, planes(1, h, w)), ML::F16, ML::F32), 0.0f, 1.0f);
    std::string blurred = color;
    for (int pass = 0; pass < 3; ++pass) blurred = boxBlur(g, blurred, 3, kMaskBlurRadius);
    for (int pass = 0; pass < 3; ++pass) blurred = boxBlur(g, blurred, 2, kMaskBlurRadius);
    const std::string out = g.op("Add", {color, g.op("Mul", {mask, g.op("Sub", {blurred, color})})});
    g.output(g.cast(out, ML::F32, ML::F16), "output", ML::F16, planes(3, h, w));
    return g.build();
}

onnx::ModelProto buildFaceParsingStandIn() {
    GraphBuilder g(kFaceParsingStandInId);
    const int64_t e = kFaceParsingSize;
    const Dim side = Dim::fixed(e);
    const std::string x = g.cast(g.input("input", ML::F16, planes(3, side, side)), ML::F16, ML::F32);
    // The detector's box covers the middle 1 / 1.75 of the crop; the face oval sits in it, a
    // little below the centre (the box includes the forehead). Soft edge over 0.3 of the radius.
    std::vector<float> oval(static_cast<size_t>(e * e));
    for (int64_t y = 0; y < e; ++y)
        for (int64_t xx = 0; xx < e; ++xx) {
            const float u = ((static_cast<float>(xx) + 0.5f) / static_cast<float>(e) - 0.5f) / 0.26f;
            const float v = ((static_cast<float>(y) + 0.5f) / static_cast<float>(e) - 0.52f) / 0.31f;
            const float d = std::sqrt(u * u + v * v);
            oval[static_cast<size_t>(y * e + xx)] = std::fmin(1.0f, std::fmax(0.0f, (1.15f - d) / 0.3f));
        }
    const std::string ovalConst = g.constF32(oval, {1, 1, e, e});
    // Normalised chromaticity r = R / (R + G + B), gg = G / (R + G + B).
    const std::string sum = g.addScalar(
        g.op("ReduceSum", {x, g.constI64({1}, {1})}, {attrInt("keepdims", 1)}), 1e-3f);
    const auto channel = [&](int64_t c) {
        return g.op("Slice", {x, g.constI64({c}, {1}), g.constI64({c + 1}, {1}), g.constI64({1}, {1})});
    };
    const std::string r = g.op("Div", {channel(0), sum});
    const std::string gg = g.op("Div", {channel(1), sum});
    const auto sq = [&](const std::string& v, float centre) {
        const std::string d = g.addScalar(v, -centre);
        return g.op("Mul", {d, d});
    };
    constexpr float sigma = 0.06f;
    const std::string tone = g.op(
        "Exp", {g.mulScalar(g.op("Add", {sq(r, 0.44f), sq(gg, 0.31f)}), -1.0f / (2.0f * sigma * sigma))});
    const std::string p = g.clip(g.op("Mul", {ovalConst, g.addScalar(g.mulScalar(tone, 0.75f), 0.25f)}), 1e-4f,
                                 1.0f - 1e-4f);
    const std::string logit = g.op("Log", {g.op("Div", {p, g.op("Sub", {g.scalarF32(1.0f), p})})});
    const std::string background = g.mulScalar(logit, 0.0f);
    const std::string logits = g.op("Concat", {background, logit}, {attrInt("axis", 1)});
    g.output(g.cast(logits, ML::F32, ML::F16), "logits", ML::F16, planes(2, side, side));
    return g.build();
}

std::string logitsToMasksName(ML::u32 dataType) {
    return std::string("logits_to_masks_aa_") + (dataType == ML::F16 ? "F16" : "F32");
}

onnx::ModelProto buildLogitsToMasks(ML::u32 dataType) {
    GraphBuilder g(logitsToMasksName(dataType));
    const Dim t = Dim::fixed(kLogitsTile), c = Dim::named("C");
    const Dims dims{Dim::fixed(1), c, t, t};
    const std::string logits = g.cast(g.input("logits", dataType, dims), dataType, ML::F32);
    // A softmax over the channels, stable against large logits; one channel is a logit of its own
    // (interactive segmentation), against an implicit zero: 1 / (1 + e^-x), its sigmoid. Both
    // come from one formula, e^(x - m) / (sum of e^(x - m) + [one channel] e^-m), so that no
    // branch is computed and thrown away.
    const std::string largest = g.op("ReduceMax", {logits}, {attrInts("axes", {1}), attrInt("keepdims", 1)});
    const std::string e = g.op("Exp", {g.op("Sub", {logits, largest})});
    const std::string single = g.op("Equal", {g.op("Slice", {g.op("Shape", {logits}), g.constI64({1}, {1}),
                                                             g.constI64({2}, {1})}),
                                              g.constI64({1}, {1})});
    // e^-m stays finite (m at least -80), so that many channels multiply it by 0, never NaN.
    const std::string zero = g.op("Mul", {g.op("Cast", {single}, {attrInt("to", onnx::TensorProto::FLOAT)}),
                                          g.op("Exp", {g.op("Neg", {g.op("Max", {largest, g.scalarF32(-80.0f)})})})});
    const std::string sum = g.op("ReduceSum", {e, g.constI64({1}, {1})}, {attrInt("keepdims", 1)});
    const std::string masks = g.op("Div", {e, g.op("Add", {sum, zero})});
    g.output(g.cast(masks, ML::F32, dataType), "masks", dataType, dims);
    return g.build();
}

std::vector<std::string> faceParsingClasses() { return {"skin"}; }

void writeFaceMaskNetworks(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    writeModel(buildMaskBlur(), modelFolder / (std::string(kMaskBlurId) + ".onnx"));
    writeModel(buildFaceParsingStandIn(), modelFolder / (std::string(kFaceParsingStandInId) + ".onnx"));
    const std::filesystem::path imgcvt = modelFolder / "imgcvt";
    makeFolder(imgcvt);
    for (ML::u32 t : {ML::F16, ML::F32}) writeModel(buildLogitsToMasks(t), imgcvt / (logitsToMasksName(t) + ".onnx"));
}

}  // namespace qpkg
