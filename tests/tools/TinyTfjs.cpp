#include "TinyTfjs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include <Imath/half.h>

#include "Import/ImportError.h"
#include "PackageFiles.h"

namespace tooltest {

namespace {

// Rank-4 tensors between N,H,W,C and N,C,H,W.
Tensor reorder(const Tensor& t, bool toNchw) {
    if (t.shape.size() != 4) return t;
    const std::vector<int64_t>& s = t.shape;
    Tensor out = t;
    out.shape = toNchw ? std::vector<int64_t>{s[0], s[3], s[1], s[2]} : std::vector<int64_t>{s[0], s[2], s[3], s[1]};
    size_t from = 0;
    for (int64_t n = 0; n < s[0]; ++n)
        for (int64_t a = 0; a < s[1]; ++a)
            for (int64_t b = 0; b < s[2]; ++b)
                for (int64_t c = 0; c < s[3]; ++c, ++from)
                    out.values[size_t(toNchw ? ((n * s[3] + c) * s[1] + a) * s[2] + b
                                             : ((n * s[2] + b) * s[3] + c) * s[1] + a)] = t.values[from];
    return out;
}

std::string base64(const std::string& s) {
    static const char* k = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < s.size(); i += 3) {
        uint32_t n = 0;
        for (size_t j = 0; j < 3; ++j) n = n << 8 | (i + j < s.size() ? uint8_t(s[i + j]) : 0);
        for (size_t j = 0; j < 4; ++j) out += j <= s.size() - i ? k[n >> (18 - 6 * j) & 63] : '=';
    }
    return out;
}

}  // namespace

int Imported::count(const std::string& opType) const {
    int n = 0;
    for (const auto& node : proto.graph().node()) n += node.op_type() == opType;
    return n;
}

Imported importAndRun(const fs::path& modelJson, const std::vector<Tensor>& inputs, const tf::ImportOptions& options,
                      const tf::Adapter* adapter) {
    const tf::Model model = tf::readModel(modelJson);
    Imported r;
    r.proto = adapter ? tf::importAdapted(model, *adapter, options) : tf::importModel(model, options);
    const fs::path onnx = modelJson.parent_path() / "imported.onnx";
    qpkg::writeModel(r.proto, onnx);
    std::vector<Tensor> feeds;
    for (const Tensor& t : inputs) feeds.push_back(reorder(t, true));
    for (const Tensor& t : Network(onnx).run(feeds)) r.outputs.push_back(reorder(t, false));
    return r;
}

std::string importError(const fs::path& modelJson, const tf::ImportOptions& options) {
    try {
        tf::importModel(tf::readModel(modelJson), options);
    } catch (const tf::ImportError& e) {
        return e.what();
    }
    return "";
}

fs::path TinyModel::write(const fs::path& dir) const {
    fs::create_directories(dir);
    json doc = document();
    doc["weightsManifest"] = {{{"paths", {"w.bin"}}, {"weights", manifest_}}};
    std::ofstream(dir / "model.json") << doc.dump();
    std::ofstream(dir / "w.bin", std::ios::binary) << bin_;
    return dir / "model.json";
}

Imported TinyModel::run(const std::vector<Tensor>& inputs, const tf::ImportOptions& options) const {
    TempDir dir;
    return importAndRun(write(dir.path()), inputs, options);
}

std::string TinyModel::importError(const tf::ImportOptions& options) const {
    TempDir dir;
    return tooltest::importError(write(dir.path()), options);
}

void TinyModel::addWeight(const std::string& name, const std::vector<int64_t>& shape, const std::string& dtype,
                          const void* data, size_t bytes, bool half) {
    json entry = {{"name", name}, {"shape", shape}, {"dtype", dtype}};
    if (!half) {
        bin_.append(static_cast<const char*>(data), bytes);
    } else {
        entry["quantization"] = {{"dtype", "float16"}};
        for (size_t i = 0; i < bytes / 4; ++i) {
            const uint16_t h = Imath::half(static_cast<const float*>(data)[i]).bits();
            bin_.append(reinterpret_cast<const char*>(&h), 2);
        }
    }
    manifest_.push_back(entry);
}

json I(int64_t v) { return {{"i", std::to_string(v)}}; }
json F(double v) { return {{"f", v}}; }
json B(bool v) { return {{"b", v}}; }
json S(const std::string& v) { return {{"s", base64(v)}}; }
json Ints(const std::vector<int64_t>& v) {
    json list = json::array();
    for (int64_t x : v) list.push_back(std::to_string(x));
    return {{"list", {{"i", list}}}};
}
json Strs(const std::vector<std::string>& v) {
    json list = json::array();
    for (const std::string& x : v) list.push_back(base64(x));
    return {{"list", {{"s", list}}}};
}

std::string Graph::input(const std::string& name, const std::vector<int64_t>& shape, const std::string& type) {
    json dims = json::array();
    for (int64_t d : shape) dims.push_back({{"size", std::to_string(d)}});
    return node(name, "Placeholder", {}, {{"dtype", {{"type", type}}}, {"shape", {{"shape", {{"dim", dims}}}}}});
}

json Graph::document() const {
    json doc = {{"format", "graph-model"}, {"modelTopology", {{"node", nodes_}}}};
    if (!outputs_.empty()) doc["signature"] = {{"outputs", outputs_}};
    return doc;
}

Layers::Layers(int64_t channels, const std::string& input) {
    layers.push_back({{"class_name", "InputLayer"},
                      {"name", input},
                      {"config", {{"name", input}, {"batch_input_shape", {nullptr, nullptr, nullptr, channels}}}},
                      {"inbound_nodes", json::array()}});
    inputs_.push_back({input, 0, 0});
}

std::string Layers::add(const std::string& className, json config, const std::vector<std::string>& from,
                        std::string name) {
    if (name.empty()) name = "l" + std::to_string(layers.size());
    config["name"] = name;
    json node = json::array();
    for (const std::string& f : from) node.push_back({f, 0, 0, json::object()});
    layers.push_back({{"class_name", className}, {"name", name}, {"config", config}, {"inbound_nodes", {node}}});
    return name;
}

json Layers::document() const {
    const json config = {{"name", "tiny"}, {"layers", layers}, {"input_layers", inputs_}, {"output_layers", outputs_}};
    return {{"format", "layers-model"},
            {"modelTopology", {{"model_config", {{"class_name", "Functional"}, {"config", config}}}}}};
}

std::vector<float> iota(int64_t n, float from, float step) {
    std::vector<float> v(static_cast<size_t>(n));
    for (size_t i = 0; i < v.size(); ++i) v[i] = from + step * static_cast<float>(i);
    return v;
}

std::vector<float> noise(size_t n, unsigned seed) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = float((i * 2654435761u + seed * 40503u) % 2001u) / 1000.0f - 1.0f;
    return v;
}

Tensor noiseTensor(std::vector<int64_t> shape, unsigned seed) {
    size_t n = 1;
    for (int64_t d : shape) n *= size_t(d);
    return makeTensor(ML::F32, std::move(shape), noise(n, seed));
}

float at(const Tensor& t, int64_t n, int64_t y, int64_t x, int64_t c) {
    const auto& s = t.shape;
    if (y < 0 || x < 0 || y >= s[1] || x >= s[2]) return 0.0f;
    return t.values[size_t(((n * s[1] + y) * s[2] + x) * s[3] + c)];
}

Tensor generate(const std::vector<int64_t>& s, const std::function<float(int64_t, int64_t, int64_t, int64_t)>& f) {
    Tensor t{ML::F32, s, {}};
    for (int64_t n = 0; n < s[0]; ++n)
        for (int64_t y = 0; y < s[1]; ++y)
            for (int64_t x = 0; x < s[2]; ++x)
                for (int64_t c = 0; c < s[3]; ++c) t.values.push_back(f(n, y, x, c));
    return t;
}

Pads samePads(const std::vector<int64_t>& x, int64_t kh, int64_t kw, int64_t stride, int64_t dilation) {
    auto total = [&](int64_t in, int64_t k) {
        const int64_t out = (in + stride - 1) / stride;
        return std::max<int64_t>((out - 1) * stride + (k - 1) * dilation + 1 - in, 0);
    };
    const int64_t h = total(x[1], kh), w = total(x[2], kw);
    return {h / 2, h - h / 2, w / 2, w - w / 2};
}

namespace {

// A window of kh x kw over x: output channel c of batch n is f(n, c, top and left source row and column).
Tensor window(const Tensor& x, int64_t kh, int64_t kw, int64_t stride, int64_t dilation, const Pads& p,
              int64_t channels, const std::function<float(int64_t, int64_t, int64_t, int64_t)>& f) {
    const int64_t oh = (x.shape[1] + p[0] + p[1] - (kh - 1) * dilation - 1) / stride + 1;
    const int64_t ow = (x.shape[2] + p[2] + p[3] - (kw - 1) * dilation - 1) / stride + 1;
    return generate({x.shape[0], oh, ow, channels}, [&](int64_t n, int64_t oy, int64_t ox, int64_t c) {
        return f(n, c, oy * stride - p[0], ox * stride - p[2]);
    });
}

}  // namespace

Tensor convolution(const Tensor& x, const Tensor& w, int64_t stride, int64_t dilation, const Pads& p, bool depthwise) {
    const int64_t KH = w.shape[0], KW = w.shape[1], C = w.shape[2], M = w.shape[3];
    auto f = [&](int64_t n, int64_t o, int64_t y0, int64_t x0) {
        float sum = 0;
        for (int64_t ky = 0; ky < KH; ++ky)
            for (int64_t kx = 0; kx < KW; ++kx)
                for (int64_t i = depthwise ? o / M : 0; i < (depthwise ? o / M + 1 : C); ++i)
                    sum += at(x, n, y0 + ky * dilation, x0 + kx * dilation, i) *
                           w.values[size_t(((ky * KW + kx) * C + i) * M + (depthwise ? o % M : o))];
        return sum;
    };
    return window(x, KH, KW, stride, dilation, p, depthwise ? C * M : M, f);
}

Tensor pool(const Tensor& x, int64_t kh, int64_t kw, int64_t stride, const Pads& p, bool max) {
    return window(x, kh, kw, stride, 1, p, x.shape[3], [&](int64_t n, int64_t c, int64_t y0, int64_t x0) {
        float best = -INFINITY, sum = 0;
        int taken = 0;
        for (int64_t y = std::max<int64_t>(y0, 0); y < std::min(y0 + kh, x.shape[1]); ++y)
            for (int64_t xx = std::max<int64_t>(x0, 0); xx < std::min(x0 + kw, x.shape[2]); ++xx)
                best = std::max(best, at(x, n, y, xx, c)), sum += at(x, n, y, xx, c), ++taken;
        return max ? best : sum / float(taken);
    });
}

Tensor resize(const Tensor& x, int64_t h, int64_t w, const std::string& mode, bool bilinear) {
    // Source coordinate of output index o along an axis of in -> out extents.
    auto source = [&](int64_t o, int64_t in, int64_t out) {
        const double scale = double(in) / double(out);
        if (mode == "align_corners") return out > 1 ? double(o) * double(in - 1) / double(out - 1) : 0.0;
        if (mode == "half_pixel") return (double(o) + 0.5) * scale - (bilinear ? 0.5 : 0.0);
        return double(o) * scale;
    };
    auto nearest = [&](double s, int64_t in) {
        return std::min<int64_t>(mode == "align_corners" ? std::llround(s) : int64_t(std::floor(s)), in - 1);
    };
    const int64_t H = x.shape[1], W = x.shape[2];
    return generate({x.shape[0], h, w, x.shape[3]}, [&](int64_t n, int64_t oy, int64_t ox, int64_t c) {
        const double sy = source(oy, H, h), sx = source(ox, W, w);
        if (!bilinear) return at(x, n, nearest(sy, H), nearest(sx, W), c);
        const int64_t y0 = std::max<int64_t>(int64_t(std::floor(sy)), 0),
                      y1 = std::min<int64_t>(int64_t(std::ceil(sy)), H - 1);
        const int64_t x0 = std::max<int64_t>(int64_t(std::floor(sx)), 0),
                      x1 = std::min<int64_t>(int64_t(std::ceil(sx)), W - 1);
        const double fy = sy - std::floor(sy), fx = sx - std::floor(sx);
        const double top = at(x, n, y0, x0, c) + (at(x, n, y0, x1, c) - at(x, n, y0, x0, c)) * fx;
        const double bottom = at(x, n, y1, x0, c) + (at(x, n, y1, x1, c) - at(x, n, y1, x0, c)) * fx;
        return float(top + (bottom - top) * fy);
    });
}

Tensor depthToSpace(const Tensor& x, int64_t k) {
    const int64_t c2 = x.shape[3] / (k * k);
    return generate({x.shape[0], x.shape[1] * k, x.shape[2] * k, c2}, [&](int64_t n, int64_t y, int64_t xx, int64_t c) {
        return at(x, n, y / k, xx / k, ((y % k) * k + xx % k) * c2 + c);
    });
}

void expectClose(const Tensor& got, const std::vector<int64_t>& shape, const std::vector<float>& want,
                 const std::string& what, float tolerance) {
    ASSERT_EQ(got.shape, shape) << what;
    ASSERT_EQ(got.values.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i)
        if (!(std::fabs(got.values[i] - want[i]) <= tolerance * std::max(1.0f, std::fabs(want[i])))) {
            ADD_FAILURE() << what << ": element " << i << " is " << got.values[i] << ", expected " << want[i];
            return;
        }
}

}  // namespace tooltest
