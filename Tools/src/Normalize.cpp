#include "Normalize.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

struct NormalizerParams {
    std::string exponent;  // e of normalise
    std::string rangeMin;
    std::string span;
};

Dims dataDims(const TensorSize& size) {
    return {Dim::fixed(size.n), Dim::named("C"), Dim::fixed(size.h), Dim::fixed(size.w)};
}

// Reads the four parameters; both networks work them out the same way, so that they stay inverse.
NormalizerParams readParams(GraphBuilder& g, const std::string& params32) {
    const std::string low = g.element(params32, 0);
    const std::string high = g.element(params32, 1);
    NormalizerParams p;
    p.rangeMin = g.element(params32, 2);
    const std::string rangeMax = g.element(params32, 3);
    p.span = g.op("Max", {g.op("Sub", {rangeMax, p.rangeMin}), g.scalarF32(1e-6f)});
    const std::string zero = g.scalarF32(0.0f);
    const std::string valid = g.op("And", {g.op("Greater", {low, zero}), g.op("Greater", {high, zero})});
    p.exponent = g.op("Where", {valid, g.op("Div", {low, high}), g.scalarF32(1.0f)});
    return p;
}

onnx::ModelProto build(ML::u32 dataType, const TensorSize& size, bool forward) {
    GraphBuilder g(forward ? normalizeName(dataType, size) : denormalizeName(dataType, size));
    const std::string x = g.cast(g.input("input", dataType, dataDims(size)), dataType, ML::F32);
    const std::string params = g.cast(g.input("params", dataType, Dims{Dim::fixed(4)}), dataType, ML::F32);
    const NormalizerParams p = readParams(g, params);

    std::string y;
    if (forward) {
        const std::string t = g.op("Div", {g.op("Sub", {x, p.rangeMin}), p.span});
        y = g.signedPow(t, p.exponent);
    } else {
        const std::string t = g.signedPow(x, g.op("Reciprocal", {p.exponent}));
        y = g.op("Add", {g.op("Mul", {t, p.span}), p.rangeMin});
    }
    g.output(g.cast(y, ML::F32, dataType), "output", dataType, dataDims(size));
    return g.build();
}

}  // namespace

std::string normalizerKey(ML::u32 dataType, const TensorSize& size) {
    return typeText(dataType) + "_" + sizeText(size);
}

std::string normalizeName(ML::u32 dataType, const TensorSize& size) {
    return "normalize-input_" + normalizerKey(dataType, size);
}

std::string denormalizeName(ML::u32 dataType, const TensorSize& size) {
    return "denormalize-output_" + normalizerKey(dataType, size);
}

onnx::ModelProto buildNormalizeNetwork(ML::u32 dataType, const TensorSize& size) {
    return build(dataType, size, true);
}

onnx::ModelProto buildDenormalizeNetwork(ML::u32 dataType, const TensorSize& size) {
    return build(dataType, size, false);
}

void writeNormalizerNetworks(const std::filesystem::path& modelFolder, ML::u32 dataType, const TensorSize& size) {
    makeFolder(modelFolder);
    writeModel(buildNormalizeNetwork(dataType, size), modelFolder / (normalizeName(dataType, size) + ".onnx"));
    writeModel(buildDenormalizeNetwork(dataType, size), modelFolder / (denormalizeName(dataType, size) + ".onnx"));
}

}  // namespace qpkg
