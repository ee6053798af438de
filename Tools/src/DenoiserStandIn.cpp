#include "DenoiserStandIn.h"

#include <stdexcept>

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

// The difference of a neighbour to the centre is averaged over this window (odd).
constexpr int64_t kDiffWindow = 5;
// Keeps the weight's denominator positive when the noise input is 0 (then only an exact match
// of a neighbour counts).
constexpr float kMinTwoVariance = 1e-12f;

Dims frameDims(int64_t channels) {
    return {Dim::fixed(1), Dim::fixed(channels), Dim::named("height"), Dim::named("width")};
}

// Pads each side of the two spatial axes by n, repeating the edge pixels, so that tile borders
// are filtered like the inside.
std::string padEdges(GraphBuilder& g, const std::string& x, int64_t n) {
    return g.op("Pad", {x, g.constI64({0, 0, n, n, 0, 0, n, n}, {8})}, {attrString("mode", "edge")});
}

// The separable blur [a, 1 - 2a, a] x [a, 1 - 2a, a] of each of the three channels.
std::string blur3x3(GraphBuilder& g, const std::string& x, float a) {
    const float taps[3] = {a, 1.0f - 2.0f * a, a};
    std::vector<float> weights;
    for (int c = 0; c < 3; ++c)
        for (float ty : taps)
            for (float tx : taps) weights.push_back(ty * tx);
    return g.op("Conv", {padEdges(g, x, 1), g.constF32(weights, {3, 1, 3, 3})}, {attrInt("group", 3)});
}

// The mean of (x - centre)^2 over the three channels and a kDiffWindow square: 1x1xHxW.
std::string localSquaredDifference(GraphBuilder& g, const std::string& x, const std::string& centre) {
    const std::string d = g.op("Sub", {x, centre});
    const std::string d2 = g.op("Mul", {d, d});
    const int64_t n = kDiffWindow;
    const std::vector<float> box(static_cast<size_t>(3 * n * n), 1.0f / static_cast<float>(3 * n * n));
    return g.op("Conv", {padEdges(g, d2, n / 2), g.constF32(box, {1, 3, n, n})});
}

}  // namespace

DenoiserStageParams denoiserStageParams(int stage) {
    // Stage 1 sees camera noise, tuned for sigma 0.05 (8-bit footage). Its blur [1 4 1] / 6
    // keeps a quarter of the noise's variance, so the squared difference of two still, noisy
    // frames averages 2 * sigma^2 / 4 and such a neighbour weighs exp(-1 / (4 k^2)) = 0.78, while
    // one that differs by 3 sigma (0.15) weighs exp(-4.5) = 0.01. Stage 2 sees what stage 1 left,
    // about a third of that, and blurs less ([1 6 1] / 8) so as not to soften the picture twice.
    switch (stage) {
        case 1: return {1.0f / 6.0f, 0.05f, 1.0f};
        case 2: return {1.0f / 8.0f, 0.02f, 1.0f};
        default: throw std::logic_error("the denoiser has stages 1 and 2");
    }
}

onnx::ModelProto buildDenoiserStage(int stage) {
    const DenoiserStageParams p = denoiserStageParams(stage);
    GraphBuilder g(std::string(kDenoiserStandInId) + "_stage" + std::to_string(stage));
    std::vector<std::string> filtered;
    for (const char* name : {"frame0", "frame1", "frame2"})
        filtered.push_back(blur3x3(g, g.cast(g.input(name, ML::F16, frameDims(3)), ML::F16, ML::F32), p.blurSide));
    const std::string noise = g.cast(g.input("noise", ML::F16, frameDims(1)), ML::F16, ML::F32);

    // 2 (k sigma noise)^2, at least kMinTwoVariance.
    const float ks = p.k * p.sigma;
    const std::string twoVariance =
        g.op("Max", {g.mulScalar(g.op("Mul", {noise, noise}), 2.0f * ks * ks), g.scalarF32(kMinTwoVariance)});
    const std::string& centre = filtered[1];
    std::string sum = centre, weights = g.scalarF32(1.0f);
    for (size_t i : {0u, 2u}) {
        const std::string d2 = localSquaredDifference(g, filtered[i], centre);
        const std::string w = g.op("Exp", {g.op("Neg", {g.op("Div", {d2, twoVariance})})});
        sum = g.op("Add", {sum, g.op("Mul", {w, filtered[i]})});
        weights = g.op("Add", {weights, w});
    }
    const std::string out = g.op("Div", {sum, weights});
    g.output(g.cast(out, ML::F32, ML::F16), "output", ML::F16, frameDims(3));
    return g.build();
}

std::vector<std::string> denoiserStandInModelIds() {
    const std::string id = kDenoiserStandInId;
    return {id + "_stage1", id + "_stage2"};
}

void writeDenoiserStandIn(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    const std::vector<std::string> ids = denoiserStandInModelIds();
    for (int stage = 1; stage <= 2; ++stage)
        writeModel(buildDenoiserStage(stage), modelFolder / (ids[static_cast<size_t>(stage - 1)] + ".onnx"));
}

}  // namespace qpkg
