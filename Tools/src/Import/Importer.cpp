#include "Importer.h"

#include <cstring>
#include <numeric>

#include "ImportError.h"

namespace qpkg::tfjs {

namespace {

bool isGraphModel(const Model& model) { return model.format == "graph-model"; }

// Dims of a graph input or output: fixed extents, symbols where free. Outputs take symbols of
// their own (prefix), since an output's free extent need not equal the input's (an upscaler).
Dims dimsOf(const TensorSignature& s, const std::string& prefix = "") {
    static const char* const kSymbols[] = {"N", "C", "H", "W"};
    Dims dims;
    for (size_t i = 0; i < s.shape.size(); ++i) {
        if (s.shape[i] >= 0) dims.push_back(Dim::fixed(s.shape[i]));
        else dims.push_back(Dim::named(s.shape.size() == 4 ? prefix + kSymbols[i] : s.name + "_d" + std::to_string(i)));
    }
    return dims;
}

ML::u32 mlTypeOf(int elemType, const std::string& name) {
    switch (elemType) {
        case onnx::TensorProto::FLOAT: return ML::F32;
        case onnx::TensorProto::INT32: return ML::I32;
        case onnx::TensorProto::INT64: return ML::I64;
        case onnx::TensorProto::FLOAT16: return ML::F16;
        case onnx::TensorProto::UINT8: return ML::U8;
        default: throw ImportError("tensor " + name + " has a type the importer cannot write");
    }
}

}  // namespace

std::vector<TensorSignature> networkInputs(const Model& model, const ImportOptions& options) {
    return isGraphModel(model) ? graphModelInputs(model, options) : layersModelInputs(model, options);
}

std::vector<TensorSignature> networkOutputs(const Model& model, const ImportOptions& options) {
    return isGraphModel(model) ? graphModelOutputs(model, options) : layersModelOutputs(model, options);
}

std::map<std::string, std::string> importInto(GraphBuilder& g, const Model& model,
                                              const std::map<std::string, std::string>& inputs,
                                              const ImportOptions& options) {
    return isGraphModel(model) ? importGraphModel(g, model, inputs, options)
                               : importLayersModel(g, model, inputs, options);
}

onnx::ModelProto importModel(const Model& model, const ImportOptions& options) {
    GraphBuilder g(model.file.parent_path().filename().string() + "_" + model.file.stem().string());
    std::map<std::string, std::string> inputs;
    for (const TensorSignature& s : networkInputs(model, options)) {
        if (options.inputConstants.count(s.name)) continue;
        inputs[s.name] = g.input(s.name, mlTypeOf(s.elemType, s.name), dimsOf(s));
    }
    const std::map<std::string, std::string> outputs = importInto(g, model, inputs, options);
    for (const TensorSignature& s : networkOutputs(model, options)) {
        const auto it = outputs.find(s.name);
        if (it == outputs.end()) throw ImportError(model.file.string() + ": output " + s.name + " was not produced");
        g.output(it->second, s.name, mlTypeOf(s.elemType, s.name), dimsOf(s, "out"));
    }
    try {
        return g.build();
    } catch (const std::exception& e) {
        throw ImportError(model.file.string() + ": the ONNX checker refused the imported graph: " + e.what());
    }
}

std::string addWeight(GraphBuilder& g, const Weight& weight, const std::vector<int64_t>& perm) {
    const size_t rank = weight.shape.size();
    if (!perm.empty() && perm.size() != rank)
        throw ImportError("weight " + weight.name + " has rank " + std::to_string(rank) + ", expected " +
                          std::to_string(perm.size()));
    // Element order after the permutation: out[i] = in[src(i)].
    std::vector<int64_t> outShape = weight.shape;
    std::vector<size_t> order(static_cast<size_t>(weight.elementCount()));
    std::iota(order.begin(), order.end(), size_t{0});
    if (!perm.empty()) {
        for (size_t i = 0; i < rank; ++i) outShape[i] = weight.shape[static_cast<size_t>(perm[i])];
        std::vector<size_t> inStride(rank, 1);
        for (size_t i = rank; i-- > 1;) inStride[i - 1] = inStride[i] * static_cast<size_t>(weight.shape[i]);
        std::vector<size_t> index(rank, 0);
        for (size_t o = 0; o < order.size(); ++o) {
            size_t src = 0;
            for (size_t i = 0; i < rank; ++i) src += index[i] * inStride[static_cast<size_t>(perm[i])];
            order[o] = src;
            for (size_t i = rank; i-- > 0;) {
                if (++index[i] < static_cast<size_t>(outShape[i])) break;
                index[i] = 0;
            }
        }
    }

    onnx::TensorProto t;
    for (int64_t d : outShape) t.add_dims(d);
    const std::string hint = "w";
    if (weight.type == WeightType::Float32 && weight.storedAsHalf()) {
        t.set_data_type(onnx::TensorProto::FLOAT16);
        std::string raw(order.size() * 2, '\0');
        for (size_t i = 0; i < order.size(); ++i) std::memcpy(&raw[2 * i], &weight.half[order[i]], 2);
        t.set_raw_data(std::move(raw));
        return g.cast(g.initializer(std::move(t), hint), ML::F16, ML::F32);
    }
    if (weight.type == WeightType::Float32) {
        t.set_data_type(onnx::TensorProto::FLOAT);
        std::string raw(order.size() * 4, '\0');
        for (size_t i = 0; i < order.size(); ++i) std::memcpy(&raw[4 * i], &weight.f32[order[i]], 4);
        t.set_raw_data(std::move(raw));
        return g.initializer(std::move(t), hint);
    }
    if (weight.type == WeightType::String) throw ImportError("weight " + weight.name + " holds strings");
    t.set_data_type(onnx::TensorProto::INT64);
    for (size_t i = 0; i < order.size(); ++i) t.add_int64_data(weight.i32[order[i]]);
    return g.initializer(std::move(t), hint);
}

}  // namespace qpkg::tfjs
