#pragma once
// Tiny TensorFlow.js models for the importer's tests: graph models (nodes) and layers models (Keras
// layers) with one weight shard, written to a folder, imported, written as ONNX and run with ONNX
// Runtime. Rank-4 tensors go in and come out in TensorFlow's N,H,W,C order (the network's own are
// N,C,H,W), and the references below compute in that order too.
#include <array>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Import/Adapters.h"
#include "ToolTestUtil.h"

namespace tooltest {

using json = nlohmann::json;
namespace tf = qpkg::tfjs;

struct Imported {
    onnx::ModelProto proto;
    std::vector<Tensor> outputs;
    int count(const std::string& opType) const;  // nodes of that type in the written graph
};

// Reads and imports model.json (behind the adapter, if given), writes the ONNX file beside it and
// runs it.
Imported importAndRun(const fs::path& modelJson, const std::vector<Tensor>& inputs,
                      const tf::ImportOptions& options = {}, const tf::Adapter* adapter = nullptr);
// The ImportError that reading and importing model.json ends in; empty if it imports.
std::string importError(const fs::path& modelJson, const tf::ImportOptions& options = {});

// A model.json with one weight shard, w.bin.
class TinyModel {
public:
    virtual ~TinyModel() = default;
    fs::path write(const fs::path& dir) const;
    Imported run(const std::vector<Tensor>& inputs, const tf::ImportOptions& options = {}) const;
    std::string importError(const tf::ImportOptions& options = {}) const;

protected:
    virtual json document() const = 0;  // without the weights manifest
    void addWeight(const std::string& name, const std::vector<int64_t>& shape, const std::string& dtype,
                   const void* data, size_t bytes, bool half = false);

private:
    json manifest_ = json::array();
    std::string bin_;
};

// AttrValues of graph-model nodes as the converter writes them.
json I(int64_t v);
json F(double v);
json B(bool v);
json S(const std::string& v);
json Ints(const std::vector<int64_t>& v);
json Strs(const std::vector<std::string>& v);

// A graph model: nodes, weights as Const nodes, outputs in a signature.
class Graph : public TinyModel {
public:
    std::string node(const std::string& name, const std::string& op, const std::vector<std::string>& inputs = {},
                     json attr = json::object()) {
        nodes_.push_back({{"name", name}, {"op", op}, {"input", inputs}, {"attr", attr}});
        return name;
    }
    std::string input(const std::string& name, const std::vector<int64_t>& shape, const std::string& type = "DT_FLOAT");
    // Float weights, stored as halves when asked (values must then be exact in half).
    std::string weight(const std::string& name, const std::vector<int64_t>& shape, const std::vector<float>& values,
                       bool half = false) {
        addWeight(name, shape, "float32", values.data(), values.size() * 4, half);
        return node(name, "Const", {}, {{"dtype", {{"type", "DT_FLOAT"}}}});
    }
    std::string ints(const std::string& name, const std::vector<int64_t>& shape, const std::vector<int32_t>& values) {
        addWeight(name, shape, "int32", values.data(), values.size() * 4);
        return node(name, "Const", {}, {{"dtype", {{"type", "DT_INT32"}}}});
    }
    std::string scalar(const std::string& name, int32_t v) { return ints(name, {}, {v}); }
    std::string vec(const std::string& name, const std::vector<int32_t>& v) {
        return ints(name, {int64_t(v.size())}, v);
    }
    void output(const std::string& tensor) { outputs_["o" + std::to_string(outputs_.size())] = {{"name", tensor}}; }

private:
    json document() const override;
    json nodes_ = json::array(), outputs_ = json::object();
};

// A Keras functional model; its input has free height and width.
class Layers : public TinyModel {
public:
    explicit Layers(int64_t channels, const std::string& input = "x");
    // A layer reading the first output of the named layers; returns its name.
    std::string add(const std::string& className, json config, const std::vector<std::string>& from,
                    std::string name = "");
    void weight(const std::string& name, const std::vector<int64_t>& shape, const std::vector<float>& values) {
        addWeight(name, shape, "float32", values.data(), values.size() * 4);
    }
    void output(const std::string& layer, int node = 0) { outputs_.push_back({layer, node, 0}); }
    json layers = json::array();

private:
    json document() const override;
    json inputs_ = json::array(), outputs_ = json::array();
};

// ---- references, in N,H,W,C ----

std::vector<float> iota(int64_t n, float from = 0, float step = 1);
std::vector<float> noise(size_t n, unsigned seed);  // deterministic values in -1..1
Tensor noiseTensor(std::vector<int64_t> shape, unsigned seed);
// Element (n, y, x, c); 0 outside the height and width (padding).
float at(const Tensor& t, int64_t n, int64_t y, int64_t x, int64_t c);
Tensor generate(const std::vector<int64_t>& shape, const std::function<float(int64_t, int64_t, int64_t, int64_t)>& f);

using Pads = std::array<int64_t, 4>;  // top, bottom, left, right
// TensorFlow's SAME: out = ceil(in / stride), the odd pad after.
Pads samePads(const std::vector<int64_t>& x, int64_t kh, int64_t kw, int64_t stride, int64_t dilation = 1);
// Filter H,W,I,O or, depthwise, H,W,C,M (output channel c * M + m reads input channel c).
Tensor convolution(const Tensor& x, const Tensor& w, int64_t stride, int64_t dilation, const Pads& pads,
                   bool depthwise = false);
// The average leaves the padding out.
Tensor pool(const Tensor& x, int64_t kh, int64_t kw, int64_t stride, const Pads& pads, bool max);
// mode: "asymmetric" (source = destination / scale), "half_pixel" or "align_corners".
Tensor resize(const Tensor& x, int64_t h, int64_t w, const std::string& mode, bool bilinear);
// Output (h * k + i, w * k + j, c) reads channel (i * k + j) * C' + c.
Tensor depthToSpace(const Tensor& x, int64_t k);

void expectClose(const Tensor& got, const std::vector<int64_t>& shape, const std::vector<float>& want,
                 const std::string& what, float tolerance = 1e-4f);
inline void expectClose(const Tensor& got, const Tensor& want, const std::string& what, float tolerance = 1e-4f) {
    expectClose(got, want.shape, want.values, what, tolerance);
}

}  // namespace tooltest
