#include "FaceEmbedding.h"

#include <cmath>
#include <random>

#include "ImportError.h"

namespace qpkg::tfjs {

std::vector<float> embeddingProjection(int64_t width) {
    const auto n = static_cast<size_t>(width), rows = static_cast<size_t>(kFaceEmbeddingSize);
    // Gaussian rows (Box-Muller over a fixed Mersenne Twister, the same on every platform), made
    // orthonormal by modified Gram-Schmidt.
    std::mt19937 random(20240512u);
    auto uniform = [&] { return (static_cast<double>(random()) + 0.5) / 4294967296.0; };
    std::vector<double> p(rows * n);
    for (size_t i = 0; i < p.size(); i += 2) {
        const double r = std::sqrt(-2.0 * std::log(uniform())), a = 6.283185307179586 * uniform();
        p[i] = r * std::cos(a);
        if (i + 1 < p.size()) p[i + 1] = r * std::sin(a);
    }
    for (size_t i = 0; i < rows; ++i) {
        double* row = &p[i * n];
        for (size_t j = 0; j < i; ++j) {
            const double* other = &p[j * n];
            double dot = 0;
            for (size_t k = 0; k < n; ++k) dot += row[k] * other[k];
            for (size_t k = 0; k < n; ++k) row[k] -= dot * other[k];
        }
        double norm = 0;
        for (size_t k = 0; k < n; ++k) norm += row[k] * row[k];
        norm = std::sqrt(norm);
        for (size_t k = 0; k < n; ++k) row[k] /= norm;
    }
    return {p.begin(), p.end()};
}

onnx::ModelProto importFaceEmbedding(const Model& model, const std::string& name, const FaceEmbeddingAdapter& adapter,
                                     ML::u32 dataType) {
    const std::string where = model.file.string() + " (adapter " + name + ")";
    ImportOptions options;
    std::vector<TensorSignature> inputs = networkInputs(model);
    if (inputs.size() != 1 || inputs[0].shape.size() != 4 || inputs[0].elemType != onnx::TensorProto::FLOAT)
        throw ImportError(where + ": the network must have one 4-D float input");
    const TensorSignature& netIn = inputs[0];
    if (netIn.shape[1] != 3 || netIn.shape[2] != adapter.size || netIn.shape[3] != adapter.size)
        throw ImportError(where + ": the network does not take 3 x " + std::to_string(adapter.size) + " x " +
                          std::to_string(adapter.size));
    // A free batch is one face.
    options.inputShapes[netIn.name] = {1, adapter.size, adapter.size, 3};

    // The embedding's width, which decides between padding and projection.
    const std::vector<TensorSignature> outputs = networkOutputs(model, options);
    const TensorSignature* out = nullptr;
    for (const TensorSignature& s : outputs)
        if (adapter.output.empty() ? outputs.size() == 1 : s.name == adapter.output) out = &s;
    if (!out) throw ImportError(where + ": no embedding output " + (adapter.output.empty() ? "(name it)" : adapter.output));
    if (out->shape.empty() || out->shape.back() <= 0)
        throw ImportError(where + ": the width of the embedding " + out->name + " is not known");
    const int64_t width = out->shape.back();

    GraphBuilder g(name);
    const Dim one = Dim::fixed(1), side = Dim::fixed(kFaceEmbeddingInput);
    std::string x = g.cast(g.input("crop", dataType, {one, Dim::fixed(3), side, side}), dataType, ML::F32);
    if (adapter.size != kFaceEmbeddingInput)
        x = g.op("Resize", {x, "", "", g.constI64({1, 3, adapter.size, adapter.size}, {4})},
                 {attrString("mode", "linear"), attrString("coordinate_transformation_mode", "half_pixel")});
    x = g.addScalar(g.mulScalar(x, adapter.inHigh - adapter.inLow), adapter.inLow);
    const std::map<std::string, std::string> net = importInto(g, model, {{netIn.name, x}}, options);
    const auto it = net.find(out->name);
    if (it == net.end()) throw ImportError(where + ": the network has no output " + out->name);

    std::string e = g.op("Reshape", {it->second, g.constI64({1, width}, {2})});
    if (width < kFaceEmbeddingSize) {
        e = g.op("Pad", {e, g.constI64({0, 0, 0, kFaceEmbeddingSize - width}, {4})});
    } else if (width > kFaceEmbeddingSize) {
        // MatMul with the transposed rows: [1, width] x [width, 512].
        const std::vector<float> rows = embeddingProjection(width);
        std::vector<float> columns(rows.size());
        for (int64_t i = 0; i < kFaceEmbeddingSize; ++i)
            for (int64_t k = 0; k < width; ++k)
                columns[static_cast<size_t>(k * kFaceEmbeddingSize + i)] = rows[static_cast<size_t>(i * width + k)];
        e = g.op("MatMul", {e, g.constF32(columns, {width, kFaceEmbeddingSize})});
    }
    g.output(g.cast(e, ML::F32, dataType), "embedding", dataType, {one, Dim::fixed(kFaceEmbeddingSize)});
    try {
        return g.build();
    } catch (const std::exception& ex) {
        throw ImportError(where + ": the ONNX checker refused the embedding graph: " + ex.what());
    }
}

}  // namespace qpkg::tfjs
