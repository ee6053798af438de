#include "MaskRleNetworks.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

const Dims kChunk{Dim::fixed(kRleChunk)};

// x[from:to] of a 1-D tensor; to may be a tensor name (a 1-element I64).
std::string slice1d(GraphBuilder& g, const std::string& x, const std::string& from, const std::string& to) {
    return g.op("Slice", {x, from, to, g.constI64({0}, {1})});
}

// Pads a 1-D tensor of n elements with zeros to kRleChunk.
std::string padToChunk(GraphBuilder& g, const std::string& x, const std::string& n) {
    const std::string rest = g.op("Sub", {g.constI64({kRleChunk}, {1}), n});
    return g.op("Pad", {x, g.op("Concat", {g.constI64({0}, {1}), rest}, {attrInt("axis", 0)})});
}

}  // namespace

onnx::ModelProto buildRleEncoder() {
    GraphBuilder g("qt_rle_encoder");
    const std::string x = g.cast(g.input("rlePlain", ML::F16, kChunk), ML::F16, ML::F32);
    const std::string levels =
        g.op("Cast", {g.op("Round", {g.mulScalar(g.clip(x, 0.0f, 1.0f), static_cast<float>(kRleLevels))})},
             {attrInt("to", onnx::TensorProto::INT32)});
    // A run starts where the level differs from the one before; the first element always does.
    const std::string previous =
        g.op("Concat",
             {g.op("Cast", {g.constI64({-1}, {1})}, {attrInt("to", onnx::TensorProto::INT32)}),
              slice1d(g, levels, g.constI64({0}, {1}), g.constI64({kRleChunk - 1}, {1}))},
             {attrInt("axis", 0)});
    const std::string changed = g.op("Not", {g.op("Equal", {levels, previous})});
    const std::string starts = g.op("Squeeze", {g.op("NonZero", {changed}), g.constI64({0}, {1})});
    const std::string n = g.op("Shape", {starts});
    const std::string ends = g.op("Concat",
                                  {slice1d(g, starts, g.constI64({1}, {1}), g.constI64({kRleChunk + 1}, {1})),
                                   g.constI64({kRleChunk}, {1})},
                                  {attrInt("axis", 0)});
    const std::string runs = g.op("Cast", {g.op("Sub", {ends, starts})}, {attrInt("to", onnx::TensorProto::INT32)});
    const std::string values =
        g.op("Cast", {g.op("Gather", {levels, starts})}, {attrInt("to", onnx::TensorProto::INT8)});
    g.output(g.op("Cast", {n}, {attrInt("to", onnx::TensorProto::INT32)}), "rleCount", ML::I32, {Dim::fixed(1)});
    g.output(padToChunk(g, values, n), "rleBytes", ML::I8, kChunk);
    g.output(padToChunk(g, runs, n), "rleRuns", ML::I32, kChunk);
    return g.build();
}

onnx::ModelProto buildRleDecoder() {
    GraphBuilder g("qt_rle_decoder");
    const std::string count = g.input("rleCount", ML::I32, {Dim::fixed(1)});
    const std::string bytes = g.input("rleBytes", ML::I8, kChunk);
    const std::string runs = g.input("rleRuns", ML::I32, kChunk);
    const std::string n = g.op("Cast", {count}, {attrInt("to", onnx::TensorProto::INT64)});
    const std::string zero = g.constI64({0}, {1});
    const std::string levels =
        g.op("Cast", {slice1d(g, bytes, zero, n)}, {attrInt("to", onnx::TensorProto::INT32)});
    const std::string lengths = g.op("Cast", {slice1d(g, runs, zero, n)}, {attrInt("to", onnx::TensorProto::INT64)});
    const std::string starts = g.op("CumSum", {lengths, g.constI64({0}, {})}, {attrInt("exclusive", 1)});
    // Each run start carries the step from the level before; the running sum restores the levels.
    const std::string before = g.op(
        "Concat",
        {g.op("Cast", {zero}, {attrInt("to", onnx::TensorProto::INT32)}),
         slice1d(g, levels, zero, g.op("Sub", {n, g.constI64({1}, {1})}))},
        {attrInt("axis", 0)});
    const std::string steps = g.op("Sub", {levels, before});
    const std::string empty =
        g.op("ConstantOfShape", {g.constI64({kRleChunk}, {1})}, {attrScalarTensor("value", ML::I32, 0)});
    const std::string marks = g.op("ScatterElements", {empty, starts, steps}, {attrInt("axis", 0)});
    const std::string plain = g.op("CumSum", {marks, g.constI64({0}, {})});
    const std::string values = g.divScalar(g.op("Cast", {plain}, {attrInt("to", onnx::TensorProto::FLOAT)}),
                                           static_cast<float>(kRleLevels));
    g.output(g.cast(values, ML::F32, ML::F16), "rlePlain", ML::F16, kChunk);
    return g.build();
}

void writeMaskRleNetworks(const std::filesystem::path& modelFolder) {
    const std::filesystem::path folder = modelFolder / "qt";
    makeFolder(folder);
    writeModel(buildRleEncoder(), folder / "qt_rle_encoder.onnx");
    writeModel(buildRleDecoder(), folder / "qt_rle_decoder.onnx");
}

}  // namespace qpkg
