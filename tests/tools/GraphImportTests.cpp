// The importer on graph models: tiny TensorFlow.js graphs written in the test, imported, run with
// ONNX Runtime and compared with values worked out here (by hand or by a few lines of reference).
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <functional>

#include <Imath/half.h>
#include <nlohmann/json.hpp>

#include "Import/ImportError.h"
#include "Import/Importer.h"
#include "ToolTestUtil.h"

using namespace tooltest;
using json = nlohmann::json;
namespace tf = qpkg::tfjs;

namespace {

// AttrValue JSON as the TensorFlow.js converter writes it.
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

json shapeJson(const std::vector<int64_t>& shape) {
    json dims = json::array();
    for (int64_t d : shape) dims.push_back({{"size", std::to_string(d)}});
    return {{"dim", dims}};
}

// A graph model under construction: nodes, weights in one shard, outputs in a signature.
struct Graph {
    json nodes = json::array(), manifest = json::array(), outputs = json::object();
    std::string bin;

    std::string node(const std::string& name, const std::string& op, const std::vector<std::string>& inputs = {},
                     json attr = json::object()) {
        nodes.push_back({{"name", name}, {"op", op}, {"input", inputs}, {"attr", attr}});
        return name;
    }
    std::string input(const std::string& name, const std::vector<int64_t>& shape,
                      const std::string& type = "DT_FLOAT") {
        return node(name, "Placeholder", {}, {{"dtype", {{"type", type}}}, {"shape", {{"shape", shapeJson(shape)}}}});
    }
    // Float weights, stored as halves when asked (values then must be exact in half).
    std::string weight(const std::string& name, const std::vector<int64_t>& shape, const std::vector<float>& values,
                       bool half = false) {
        json entry = {{"name", name}, {"shape", shape}, {"dtype", "float32"}};
        if (half) entry["quantization"] = {{"dtype", "float16"}};
        for (float v : values) {
            const uint16_t h = Imath::half(v).bits();
            bin.append(half ? reinterpret_cast<const char*>(&h) : reinterpret_cast<const char*>(&v), half ? 2 : 4);
        }
        manifest.push_back(entry);
        return node(name, "Const", {}, {{"dtype", {{"type", "DT_FLOAT"}}}});
    }
    std::string ints(const std::string& name, const std::vector<int64_t>& shape, const std::vector<int32_t>& values) {
        manifest.push_back({{"name", name}, {"shape", shape}, {"dtype", "int32"}});
        bin.append(reinterpret_cast<const char*>(values.data()), values.size() * 4);
        return node(name, "Const", {}, {{"dtype", {{"type", "DT_INT32"}}}});
    }
    std::string scalar(const std::string& name, int32_t v) { return ints(name, {}, {v}); }
    std::string vec(const std::string& name, const std::vector<int32_t>& v) {
        return ints(name, {static_cast<int64_t>(v.size())}, v);
    }
    void output(const std::string& tensor) { outputs["o" + std::to_string(outputs.size())] = {{"name", tensor}}; }

    fs::path write(const TempDir& dir) const {
        json model = {{"format", "graph-model"},
                      {"modelTopology", {{"node", nodes}}},
                      {"weightsManifest", {{{"paths", {"w.bin"}}, {"weights", manifest}}}}};
        if (!outputs.empty()) model["signature"] = {{"outputs", outputs}};
        std::ofstream(dir / "model.json") << model.dump();
        std::ofstream(dir / "w.bin", std::ios::binary) << bin;
        return dir / "model.json";
    }
};

// Tensors in TensorFlow's order; rank-4 ones go in and come out of the network as N,C,H,W.
Tensor reorder(const Tensor& t, bool toNchw) {
    if (t.shape.size() != 4) return t;
    const std::vector<int64_t>& s = t.shape;
    Tensor out = t;
    out.shape = toNchw ? std::vector<int64_t>{s[0], s[3], s[1], s[2]} : std::vector<int64_t>{s[0], s[2], s[3], s[1]};
    const int64_t N = s[0], A = s[1], Bd = s[2], Cd = s[3];  // source extents
    for (int64_t n = 0; n < N; ++n)
        for (int64_t a = 0; a < A; ++a)
            for (int64_t b = 0; b < Bd; ++b)
                for (int64_t c = 0; c < Cd; ++c) {
                    const int64_t from = ((n * A + a) * Bd + b) * Cd + c;
                    const int64_t to = toNchw ? ((n * Cd + c) * A + a) * Bd + b : ((n * Bd + b) * Cd + c) * A + a;
                    out.values[static_cast<size_t>(to)] = t.values[static_cast<size_t>(from)];
                }
    return out;
}

struct Imported {
    onnx::ModelProto proto;
    std::vector<Tensor> outputs;  // TensorFlow's order
    int count(const std::string& opType) const {
        int n = 0;
        for (const auto& node : proto.graph().node()) n += node.op_type() == opType;
        return n;
    }
};

Imported importAndRun(const Graph& g, const std::vector<Tensor>& inputs, const tf::ImportOptions& options = {}) {
    TempDir dir;
    Imported r;
    r.proto = tf::importModel(tf::readModel(g.write(dir)), options);
    {
        std::ofstream out(dir / "net.onnx", std::ios::binary);
        r.proto.SerializeToOstream(&out);
    }
    std::vector<Tensor> feeds;
    for (const Tensor& t : inputs) feeds.push_back(reorder(t, true));
    for (const Tensor& t : Network(dir / "net.onnx").run(feeds)) r.outputs.push_back(reorder(t, false));
    return r;
}

std::vector<float> iota(int64_t n, float from = 0, float step = 1) {
    std::vector<float> v(static_cast<size_t>(n));
    for (size_t i = 0; i < v.size(); ++i) v[i] = from + step * static_cast<float>(i);
    return v;
}
int64_t count(const std::vector<int64_t>& shape) {
    int64_t n = 1;
    for (int64_t d : shape) n *= d;
    return n;
}
// A patterned image: small distinct values, some negative.
Tensor image(std::vector<int64_t> shape) {
    std::vector<float> v(static_cast<size_t>(count(shape)));
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(static_cast<int>(i * 7 % 23) - 9) / 8.0f;
    return makeTensor(ML::F32, std::move(shape), std::move(v));
}

void expectClose(const Tensor& got, const std::vector<int64_t>& shape, const std::vector<float>& want,
                 const std::string& what, float tolerance = 1e-4f) {
    ASSERT_EQ(got.shape, shape) << what;
    ASSERT_EQ(got.values.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i)
        if (!(std::fabs(got.values[i] - want[i]) <= tolerance * std::max(1.0f, std::fabs(want[i])))) {
            ADD_FAILURE() << what << ": element " << i << " is " << got.values[i] << ", expected " << want[i];
            return;
        }
}

// Element (n, y, x, c) of an N,H,W,C tensor; 0 outside (padding).
float at(const Tensor& t, int64_t n, int64_t y, int64_t x, int64_t c) {
    const auto& s = t.shape;
    if (y < 0 || x < 0 || y >= s[1] || x >= s[2]) return 0.0f;
    return t.values[static_cast<size_t>(((n * s[1] + y) * s[2] + x) * s[3] + c)];
}

// out(n, y, x, c) for every element of an N,H,W,C shape.
std::vector<float> generate(const std::vector<int64_t>& s,
                            const std::function<float(int64_t, int64_t, int64_t, int64_t)>& f) {
    std::vector<float> v;
    for (int64_t n = 0; n < s[0]; ++n)
        for (int64_t y = 0; y < s[1]; ++y)
            for (int64_t x = 0; x < s[2]; ++x)
                for (int64_t c = 0; c < s[3]; ++c) v.push_back(f(n, y, x, c));
    return v;
}

// TensorFlow's convolution (NHWC; filter H,W,I,O or, depthwise, H,W,C,M), pads top and left.
std::vector<float> convolution(const Tensor& x, const Tensor& w, const std::vector<int64_t>& out, const int64_t* stride,
                               const int64_t* dilation, int64_t top, int64_t left, bool depthwise) {
    const int64_t M = w.shape[3];
    return generate(out, [&](int64_t n, int64_t oy, int64_t ox, int64_t o) {
        float sum = 0;
        for (int64_t ky = 0; ky < w.shape[0]; ++ky)
            for (int64_t kx = 0; kx < w.shape[1]; ++kx)
                for (int64_t i = 0; i < w.shape[2]; ++i) {
                    if (depthwise && i != o / M) continue;
                    const float xv =
                        at(x, n, oy * stride[0] - top + ky * dilation[0], ox * stride[1] - left + kx * dilation[1], i);
                    sum += xv * w.values[static_cast<size_t>(((ky * w.shape[1] + kx) * w.shape[2] + i) * M +
                                                             (depthwise ? o % M : o))];
                }
        return sum;
    });
}

struct ConvCase {
    std::string what, op;
    std::vector<int64_t> x, w, out;  // input N,H,W,C; filter; output N,H,W,C
    int64_t stride[2], dilation[2];
    std::string padding;
    int64_t top, left;  // the padding TensorFlow applies
    std::vector<std::string> fused;
    bool freeSize = false, half = false;
    std::vector<int64_t> explicitPads = {};
};

}  // namespace

TEST(GraphImport, ConvolutionsMatchTensorFlowsArithmetic) {
    const std::vector<ConvCase> cases = {
        {"SAME, stride 2, odd extents", "Conv2D", {1, 7, 5, 3}, {4, 2, 3, 2}, {1, 4, 3, 2}, {2, 2}, {1, 1}, "SAME", 1,
         0, {}},
        {"SAME, stride 2, extents known at run time", "Conv2D", {1, 7, 5, 3}, {4, 2, 3, 2}, {1, 4, 3, 2}, {2, 2},
         {1, 1}, "SAME", 1, 0, {}, true},
        {"VALID, dilated", "Conv2D", {1, 7, 6, 2}, {3, 3, 2, 3}, {1, 3, 2, 3}, {1, 1}, {2, 2}, "VALID", 0, 0, {}},
        {"EXPLICIT", "Conv2D", {1, 4, 4, 2}, {3, 3, 2, 2}, {1, 5, 4, 2}, {1, 1}, {1, 1}, "EXPLICIT", 1, 2, {}, false,
         false, {0, 0, 1, 2, 2, 0, 0, 0}},
        {"fused bias and Relu6, halves", "_FusedConv2D", {1, 5, 5, 3}, {3, 3, 3, 4}, {1, 5, 5, 4}, {1, 1}, {1, 1},
         "SAME", 1, 1, {"BiasAdd", "Relu6"}, false, true},
        {"fused bias and Prelu", "_FusedConv2D", {1, 4, 4, 2}, {1, 1, 2, 3}, {1, 4, 4, 3}, {1, 1}, {1, 1}, "VALID", 0,
         0, {"BiasAdd", "Prelu"}},
        {"fused bias and LeakyRelu", "_FusedConv2D", {1, 4, 4, 2}, {1, 1, 2, 3}, {1, 4, 4, 3}, {1, 1}, {1, 1}, "VALID",
         0, 0, {"BiasAdd", "LeakyRelu"}},
        {"fused batch norm and Relu", "_FusedConv2D", {1, 4, 3, 2}, {2, 2, 2, 3}, {1, 4, 3, 3}, {1, 1}, {1, 1}, "SAME",
         0, 0, {"FusedBatchNorm", "Relu"}},
        {"depthwise, multiplier 2, SAME, stride 2, odd", "DepthwiseConv2dNative", {1, 7, 5, 3}, {3, 3, 3, 2},
         {1, 4, 3, 6}, {2, 2}, {1, 1}, "SAME", 1, 1, {}},
        {"fused depthwise with bias and Relu", "FusedDepthwiseConv2dNative", {1, 5, 4, 2}, {3, 3, 2, 1}, {1, 3, 2, 2},
         {1, 1}, {1, 1}, "VALID", 0, 0, {"BiasAdd", "Relu"}},
    };
    for (const ConvCase& k : cases) {
        Graph g;
        std::vector<int64_t> declared = k.x;
        if (k.freeSize) declared[1] = declared[2] = -1;
        g.input("x", declared);
        const Tensor x = image(k.x);
        const Tensor w = makeTensor(ML::F32, k.w, iota(count(k.w), -1.0f, 0.125f));  // exact in half
        std::vector<std::string> in{"x", g.weight("w", k.w, w.values, k.half)};
        const int64_t channels = k.out[3];
        const std::vector<float> bias = iota(channels, -0.5f, 0.25f), alpha = iota(channels, 0.1f, 0.2f);
        const std::vector<float> scale = iota(channels, 0.5f, 0.5f), offset = iota(channels, 1.0f, -0.75f),
                                 mean = iota(channels, -0.2f, 0.3f), variance = iota(channels, 0.5f, 1.0f);
        json attr = {{"strides", Ints({1, k.stride[0], k.stride[1], 1})},
                     {"dilations", Ints({1, k.dilation[0], k.dilation[1], 1})},
                     {"padding", S(k.padding)},
                     {"data_format", S("NHWC")},
                     {"leakyrelu_alpha", F(0.1)},
                     {"epsilon", F(0.001)}};
        if (!k.explicitPads.empty()) attr["explicit_paddings"] = Ints(k.explicitPads);
        if (!k.fused.empty()) attr["fused_ops"] = Strs(k.fused);
        for (const std::string& op : k.fused) {
            if (op == "BiasAdd") in.push_back(g.weight("bias", {channels}, bias));
            if (op == "Prelu") in.push_back(g.weight("alpha", {channels}, alpha));
            if (op == "FusedBatchNorm")
                for (const auto& [name, v] :
                     {std::pair{"scale", scale}, {"offset", offset}, {"mean", mean}, {"var", variance}})
                    in.push_back(g.weight(name, {channels}, v));
        }
        g.node("y", k.op, in, attr);
        g.output("y");

        const bool depthwise = k.op.find("Depthwise") != std::string::npos;
        std::vector<float> want = convolution(x, w, k.out, k.stride, k.dilation, k.top, k.left, depthwise);
        for (size_t i = 0; i < want.size(); ++i) {
            const size_t c = i % static_cast<size_t>(channels);
            float& v = want[i];
            for (const std::string& op : k.fused) {
                if (op == "BiasAdd") v += bias[c];
                if (op == "Relu") v = std::max(v, 0.0f);
                if (op == "Relu6") v = std::min(std::max(v, 0.0f), 6.0f);
                if (op == "Prelu") v = v > 0 ? v : v * alpha[c];
                if (op == "LeakyRelu") v = v > 0 ? v : v * 0.1f;
                if (op == "FusedBatchNorm") v = (v - mean[c]) * scale[c] / std::sqrt(variance[c] + 0.001f) + offset[c];
            }
        }
        const Imported r = importAndRun(g, {x});
        expectClose(r.outputs.at(0), k.out, want, k.what);
        EXPECT_EQ(r.count("Transpose"), 0) << k.what;
        bool halves = false;
        for (const auto& t : r.proto.graph().initializer())
            halves = halves || t.data_type() == onnx::TensorProto::FLOAT16;
        EXPECT_EQ(halves, k.half) << k.what << ": weights stored as halves stay halves";
    }
}

TEST(GraphImport, SpaceToBatchAroundAConvolutionIsADilatedConvolution) {
    // What TensorFlow makes of a 3x3 convolution dilated by 2 on a 7x7 input: pad to a multiple of
    // the block, convolve the four phases, put them back and crop the padding.
    Graph g;
    g.input("x", {1, 7, 7, 2});
    const Tensor x = image({1, 7, 7, 2});
    const Tensor w = makeTensor(ML::F32, {3, 3, 2, 1}, iota(18, -1.0f, 0.125f));
    g.node("s2b", "SpaceToBatchND", {"x", g.vec("block", {2, 2}), g.ints("pads", {2, 2}, {0, 1, 0, 1})});
    g.node("conv", "DepthwiseConv2dNative", {"s2b", g.weight("w", {3, 3, 2, 1}, w.values)},
           {{"strides", Ints({1, 1, 1, 1})}, {"padding", S("VALID")}});
    g.node("y", "BatchToSpaceND", {"conv", g.vec("block2", {2, 2}), g.ints("crops", {2, 2}, {0, 1, 0, 1})});
    g.output("y");
    int64_t stride[2] = {1, 1}, dilation[2] = {2, 2};
    const Imported r = importAndRun(g, {x});
    expectClose(r.outputs.at(0), {1, 3, 3, 2}, convolution(x, w, {1, 3, 3, 2}, stride, dilation, 0, 0, true),
                "dilated");
    EXPECT_EQ(r.count("Conv"), 1);
}

TEST(GraphImport, TransposedConvolutionScattersTheInput) {
    // Conv2DBackpropInput, SAME, stride 2, to 5x5: the convolution it inverts pads 1 on top and left.
    Graph g;
    g.input("x", {1, 3, 3, 2});
    const Tensor x = image({1, 3, 3, 2});
    const Tensor w = makeTensor(ML::F32, {3, 3, 1, 2}, iota(18, -1.0f, 0.125f));  // H,W,out,in
    g.node("y", "Conv2DBackpropInput", {g.vec("size", {1, 5, 5, 1}), g.weight("w", {3, 3, 1, 2}, w.values), "x"},
           {{"strides", Ints({1, 2, 2, 1})}, {"padding", S("SAME")}});
    g.output("y");
    std::vector<float> want(25, 0.0f);
    for (int64_t y = 0; y < 3; ++y)
        for (int64_t xx = 0; xx < 3; ++xx)
            for (int64_t ky = 0; ky < 3; ++ky)
                for (int64_t kx = 0; kx < 3; ++kx) {
                    const int64_t oy = y * 2 - 1 + ky, ox = xx * 2 - 1 + kx;
                    if (oy < 0 || ox < 0 || oy >= 5 || ox >= 5) continue;
                    for (int64_t i = 0; i < 2; ++i)
                        want[static_cast<size_t>(oy * 5 + ox)] +=
                            at(x, 0, y, xx, i) * w.values[static_cast<size_t>((ky * 3 + kx) * 2 + i)];
                }
    expectClose(importAndRun(g, {x}).outputs.at(0), {1, 5, 5, 1}, want, "transposed");
}

TEST(GraphImport, PoolingAndResizingFollowTensorFlowsCoordinates) {
    const Tensor x = image({1, 5, 7, 2});
    // Source coordinate of output index o along an axis of in -> out extents, per mode.
    auto source = [](const std::string& mode, int64_t o, int64_t in, int64_t out) {
        const double scale = static_cast<double>(in) / static_cast<double>(out);
        if (mode == "align") return out > 1 ? static_cast<double>(o) * (in - 1) / (out - 1) : 0.0;
        if (mode == "half") return (o + 0.5) * scale - 0.5;
        return o * scale;
    };
    auto bilinear = [&](const std::string& mode, const std::vector<int64_t>& out) {
        return generate(out, [&](int64_t n, int64_t oy, int64_t ox, int64_t c) {
            const double sy = source(mode, oy, 5, out[1]), sx = source(mode, ox, 7, out[2]);
            const int64_t y0 = std::max<int64_t>(int64_t(std::floor(sy)), 0),
                          y1 = std::min<int64_t>(int64_t(std::ceil(sy)), 4);
            const int64_t x0 = std::max<int64_t>(int64_t(std::floor(sx)), 0),
                          x1 = std::min<int64_t>(int64_t(std::ceil(sx)), 6);
            const double fy = sy - std::floor(sy), fx = sx - std::floor(sx);
            const double top = at(x, n, y0, x0, c) + (at(x, n, y0, x1, c) - at(x, n, y0, x0, c)) * fx;
            const double bottom = at(x, n, y1, x0, c) + (at(x, n, y1, x1, c) - at(x, n, y1, x0, c)) * fx;
            return static_cast<float>(top + (bottom - top) * fy);
        });
    };
    auto nearest = [&](const std::string& mode, const std::vector<int64_t>& out) {
        return generate(out, [&](int64_t n, int64_t oy, int64_t ox, int64_t c) {
            auto pick = [&](int64_t o, int64_t in, int64_t outExtent) {
                const double s = mode == "half" ? (o + 0.5) * in / outExtent : source(mode, o, in, outExtent);
                return std::min<int64_t>(mode == "align" ? std::llround(s) : int64_t(std::floor(s)), in - 1);
            };
            return at(x, n, pick(oy, 5, out[1]), pick(ox, 7, out[2]), c);
        });
    };
    // Max and average pooling, 3x3, stride 2, SAME: TensorFlow pads 1 on each side of 5 and 7,
    // and the average leaves padding out.
    auto pooled = [&](bool max, const std::vector<int64_t>& out) {
        return generate(out, [&](int64_t n, int64_t oy, int64_t ox, int64_t c) {
            float best = -1e30f, sum = 0;
            int taken = 0;
            for (int64_t y = oy * 2 - 1; y <= oy * 2 + 1; ++y)
                for (int64_t xx = ox * 2 - 1; xx <= ox * 2 + 1; ++xx)
                    if (y >= 0 && y < 5 && xx >= 0 && xx < 7)
                        best = std::max(best, at(x, n, y, xx, c)), sum += at(x, n, y, xx, c), ++taken;
            return max ? best : sum / static_cast<float>(taken);
        });
    };
    struct Case {
        std::string what, op;
        json attr;
        std::vector<int64_t> out;
        std::vector<float> want;
    };
    const json pool = {{"ksize", Ints({1, 3, 3, 1})}, {"strides", Ints({1, 2, 2, 1})}, {"padding", S("SAME")}};
    const std::vector<Case> cases = {
        {"max pool", "MaxPool", pool, {1, 3, 4, 2}, pooled(true, {1, 3, 4, 2})},
        {"average pool", "AvgPool", pool, {1, 3, 4, 2}, pooled(false, {1, 3, 4, 2})},
        {"bilinear, asymmetric", "ResizeBilinear", json::object(), {1, 8, 4, 2}, bilinear("asym", {1, 8, 4, 2})},
        {"bilinear, half pixel", "ResizeBilinear", {{"half_pixel_centers", B(true)}}, {1, 8, 4, 2},
         bilinear("half", {1, 8, 4, 2})},
        {"bilinear, aligned corners", "ResizeBilinear", {{"align_corners", B(true)}}, {1, 8, 4, 2},
         bilinear("align", {1, 8, 4, 2})},
        {"nearest, asymmetric", "ResizeNearestNeighbor", json::object(), {1, 8, 4, 2}, nearest("asym", {1, 8, 4, 2})},
        {"nearest, half pixel", "ResizeNearestNeighbor", {{"half_pixel_centers", B(true)}}, {1, 8, 4, 2},
         nearest("half", {1, 8, 4, 2})},
        {"nearest, aligned corners", "ResizeNearestNeighbor", {{"align_corners", B(true)}}, {1, 8, 4, 2},
         nearest("align", {1, 8, 4, 2})},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 5, 7, 2});
        std::vector<std::string> in{"x"};
        if (k.op.rfind("Resize", 0) == 0) in.push_back(g.vec("size", {8, 4}));
        g.node("y", k.op, in, k.attr);
        g.output("y");
        expectClose(importAndRun(g, {x}).outputs.at(0), k.out, k.want, k.what);
    }
}

TEST(GraphImport, ElementwiseOpsBroadcastInChannelsFirstLayout) {
    // x arrives as N,C,H,W; its operands are constants of every broadcasting shape, or a second
    // input whose layout must be brought in line.
    const Tensor x = image({1, 3, 4, 2});
    const Tensor y = makeTensor(ML::F32, {4, 2}, iota(8, 0.5f, 0.25f));
    enum Operand { PerChannel, PerRowAndChannel, Scalar, Input };
    struct Case {
        std::string op;
        Operand operand;
        std::function<float(float, float)> f;
        int transposes;
    };
    const std::vector<Case> cases = {
        {"AddV2", PerChannel, [](float a, float b) { return a + b; }, 0},
        {"BiasAdd", PerChannel, [](float a, float b) { return a + b; }, 0},
        {"Sub", PerRowAndChannel, [](float a, float b) { return a - b; }, 0},
        {"Mul", Scalar, [](float a, float b) { return a * b; }, 0},
        {"RealDiv", Input, [](float a, float b) { return a / b; }, 1},
        {"Maximum", PerChannel, [](float a, float b) { return std::max(a, b); }, 0},
        {"Minimum", PerRowAndChannel, [](float a, float b) { return std::min(a, b); }, 0},
        {"SquaredDifference", Input, [](float a, float b) { return (a - b) * (a - b); }, 1},
        {"FloorDiv", PerChannel, [](float a, float b) { return std::floor(a / b); }, 0},
        {"FloorMod", PerChannel, [](float a, float b) { return a - std::floor(a / b) * b; }, 0},
        {"Prelu", PerChannel, [](float a, float b) { return a > 0 ? a : a * b; }, 0},
        {"Pow", Scalar, [](float a, float b) { return std::pow(std::fabs(a), b); }, 0},
        {"Atan2", PerChannel, [](float a, float b) { return std::atan2(a, b); }, 0},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 3, 4, 2});
        std::string b;
        std::function<float(int64_t, int64_t)> bAt;  // by (x, c)
        switch (k.operand) {
            case PerChannel:
                b = g.weight("b", {2}, {0.75f, -1.5f}), bAt = [](int64_t, int64_t c) { return c ? -1.5f : 0.75f; };
                break;
            case PerRowAndChannel:
                b = g.weight("b", {4, 2}, y.values),
                bAt = [&](int64_t w, int64_t c) { return y.values[size_t(w * 2 + c)]; };
                break;
            case Scalar: b = g.weight("b", {}, {2.0f}), bAt = [](int64_t, int64_t) { return 2.0f; }; break;
            case Input:
                b = g.input("b", {4, 2}), bAt = [&](int64_t w, int64_t c) { return y.values[size_t(w * 2 + c)]; };
                break;
        }
        std::string a = "x";
        if (k.op == "Pow") a = g.node("abs", "Abs", {"x"});
        g.node("z", k.op, {a, b});
        g.output("z");
        std::vector<Tensor> inputs{x};
        if (k.operand == Input) inputs.push_back(y);
        const Imported r = importAndRun(g, inputs);
        expectClose(r.outputs.at(0), x.shape,
                    generate(x.shape, [&](int64_t n, int64_t h, int64_t w,
                                          int64_t c) { return k.f(at(x, n, h, w, c), bAt(w, c)); }),
                    k.op);
        EXPECT_EQ(r.count("Transpose"), k.transposes) << k.op;
    }
}

TEST(GraphImport, UnaryOpsAndSelection) {
    const Tensor x = image({1, 2, 3, 2});
    struct Case {
        std::string op;
        std::function<float(float)> f;
        json attr = json::object();
    };
    const std::vector<Case> cases = {
        {"Relu6", [](float v) { return std::min(std::max(v, 0.0f), 6.0f); }},
        {"Elu", [](float v) { return v > 0 ? v : std::exp(v) - 1; }},
        {"LeakyRelu", [](float v) { return v > 0 ? v : 0.3f * v; }, {{"alpha", F(0.3)}}},
        {"Sigmoid", [](float v) { return 1 / (1 + std::exp(-v)); }},
        {"Tanh", [](float v) { return std::tanh(v); }},
        {"Exp", [](float v) { return std::exp(v); }},
        {"Neg", [](float v) { return -v; }},
        {"Abs", [](float v) { return std::fabs(v); }},
        {"Square", [](float v) { return v * v; }},
        {"Softplus", [](float v) { return std::log1p(std::exp(v)); }},
        {"Rsqrt", [](float v) { return 1 / std::sqrt(std::fabs(v) + 1); }},
        {"Log", [](float v) { return std::log(std::fabs(v) + 1); }},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 2, 3, 2});
        std::string in = "x";
        if (k.op == "Rsqrt" || k.op == "Log")  // positive operands: |x| + 1
            in = g.node("p", "AddV2", {g.node("a", "Abs", {"x"}), g.weight("one", {}, {1.0f})});
        g.node("y", k.op, {in}, k.attr);
        g.output("y");
        std::vector<float> want;
        for (float v : x.values) want.push_back(k.f(v));
        expectClose(importAndRun(g, {x}).outputs.at(0), x.shape, want, k.op);
    }
    // Select(x > 0.25, x, -x) and LogicalAnd(x > -0.5, x < 0.5) cast back to float.
    Graph g;
    g.input("x", {1, 2, 3, 2});
    g.node("big", "Greater", {"x", g.weight("quarter", {}, {0.25f})});
    g.node("sel", "SelectV2", {"big", "x", g.node("neg", "Neg", {"x"})});
    g.node("mid", "LogicalAnd",
           {g.node("gt", "Greater", {"x", g.weight("lo", {}, {-0.5f})}),
            g.node("lt", "Less", {"x", g.weight("hi", {}, {0.5f})})});
    g.node("midf", "Cast", {"mid"}, {{"SrcT", {{"type", "DT_BOOL"}}}, {"DstT", {{"type", "DT_FLOAT"}}}});
    g.output("sel");
    g.output("midf");
    const Imported r = importAndRun(g, {x});
    std::vector<float> sel, mid;
    for (float v : x.values) sel.push_back(v > 0.25f ? v : -v), mid.push_back(v > -0.5f && v < 0.5f);
    expectClose(r.outputs.at(0), x.shape, sel, "select");
    expectClose(r.outputs.at(1), x.shape, mid, "logical and");
}

TEST(GraphImport, ShapeOpsMoveTheRightElements) {
    // x(0, h, w, c) = (h*3 + w)*4 + c for a 1x2x3x4 input: every expected element is worked out
    // from its indices by hand.
    const Tensor x = makeTensor(ML::F32, {1, 2, 3, 4}, iota(24));
    auto ix = [](int64_t h, int64_t w, int64_t c) { return static_cast<float>((h * 3 + w) * 4 + c); };
    // The elements of a result of that (N,H,W,C) shape, each from its indices.
    auto of = [&](std::vector<int64_t> shape, std::function<float(int64_t, int64_t, int64_t)> f) {
        return generate(shape, [&](int64_t, int64_t h, int64_t w, int64_t c) { return f(h, w, c); });
    };
    using Names = std::vector<std::string>;
    using Build = std::function<void(Graph&)>;  // makes node "y" from input "x"
    auto strided = [](std::vector<int32_t> b, std::vector<int32_t> e, std::vector<int32_t> s, json masks) -> Build {
        return [=](Graph& g) {
            const int64_t n = static_cast<int64_t>(b.size());
            g.node("y", "StridedSlice", {"x", g.ints("b", {n}, b), g.ints("e", {n}, e), g.ints("s", {n}, s)}, masks);
        };
    };
    auto op = [](const std::string& type, std::function<Names(Graph&)> inputs,
                 json attr = json::object()) -> Build { return [=](Graph& g) { g.node("y", type, inputs(g), attr); }; };
    auto secondOf = [](const std::string& type, std::function<Names(Graph&)> inputs) -> Build {
        return [=](Graph& g) {
            g.node("pieces", type, inputs(g), {{"num_split", I(2)}});
            g.node("y", "Identity", {"pieces:1"});
        };
    };
    std::vector<float> channelsFirst;
    for (int c = 0; c < 4; ++c)
        for (int h = 0; h < 2; ++h)
            for (int w = 0; w < 3; ++w) channelsFirst.push_back(ix(h, w, c));
    struct Case {
        std::string what;
        Build build;
        std::vector<int64_t> shape;
        std::vector<float> want;
    };
    const std::vector<Case> cases = {
        {"StridedSlice x[:, :, 1:3, ::2]",
         strided({0, 0, 1, 0}, {0, 0, 3, 0}, {1, 1, 1, 2}, {{"begin_mask", I(11)}, {"end_mask", I(11)}}),
         {1, 2, 2, 2}, {4, 6, 8, 10, 16, 18, 20, 22}},
        {"StridedSlice x[..., 1] (ellipsis, shrink)",
         strided({0, 1}, {0, 2}, {1, 1}, {{"ellipsis_mask", I(1)}, {"shrink_axis_mask", I(2)}}), {1, 2, 3},
         {1, 5, 9, 13, 17, 21}},
        {"StridedSlice x[:, ::-1, 0:2, -1] (reverse, shrink the last)",
         strided({0, 0, 0, -1}, {0, 0, 2, 0}, {1, -1, 1, 1},
                 {{"begin_mask", I(3)}, {"end_mask", I(3)}, {"shrink_axis_mask", I(8)}}),
         {1, 2, 2}, {15, 19, 3, 7}},
        {"StridedSlice x[0, tf.newaxis, 1]",
         strided({0, 0, 1}, {1, 0, 2}, {1, 1, 1}, {{"new_axis_mask", I(2)}, {"shrink_axis_mask", I(5)}}), {1, 3, 4},
         iota(12, 12)},
        {"Slice with size -1",
         op("Slice", [](Graph& g) { return Names{"x", g.vec("b", {0, 1, 0, 1}), g.vec("s", {-1, 1, 2, -1})}; }),
         {1, 1, 2, 3}, {13, 14, 15, 17, 18, 19}},
        {"Transpose to N,C,H,W",
         op("Transpose", [](Graph& g) { return Names{"x", g.vec("p", {0, 3, 1, 2})}; }), {1, 4, 2, 3},
         channelsFirst},
        {"Reshape", op("Reshape", [](Graph& g) { return Names{"x", g.vec("s", {6, -1})}; }), {6, 4},
         iota(24)},
        {"ConcatV2 on the channels",
         op("ConcatV2", [](Graph& g) { return Names{"x", g.node("n", "Neg", {"x"}), g.scalar("a", -1)}; }),
         {1, 2, 3, 8},
         of({1, 2, 3, 8}, [&](int64_t h, int64_t w, int64_t c) { return c < 4 ? ix(h, w, c) : -ix(h, w, c - 4); })},
        {"Unpack the channels, Pack two",
         [](Graph& g) {
             g.node("u", "Unpack", {"x"}, {{"axis", I(3)}, {"num", I(4)}});
             g.node("y", "Pack", {"u:3", "u"}, {{"axis", I(0)}});
         },
         {2, 1, 2, 3}, {3, 7, 11, 15, 19, 23, 0, 4, 8, 12, 16, 20}},
        {"SplitV [1, -1] on W, second piece",
         secondOf("SplitV", [](Graph& g) { return Names{"x", g.vec("sz", {1, -1}), g.scalar("a", 2)}; }),
         {1, 2, 2, 4}, of({1, 2, 2, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w + 1, c); })},
        {"Split in two on C, second piece",
         secondOf("Split", [](Graph& g) { return Names{g.scalar("a", 3), "x"}; }), {1, 2, 3, 2},
         of({1, 2, 3, 2}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w, c + 2); })},
        {"Pad H before, W after",
         op("Pad", [](Graph& g) { return Names{"x", g.ints("p", {4, 2}, {0, 0, 1, 0, 0, 1, 0, 0})}; }),
         {1, 3, 4, 4},
         of({1, 3, 4, 4}, [&](int64_t h, int64_t w, int64_t c) { return h == 0 || w == 3 ? 0 : ix(h - 1, w, c); })},
        {"MirrorPad W by 1, reflecting",
         op("MirrorPad", [](Graph& g) { return Names{"x", g.ints("p", {4, 2}, {0, 0, 0, 0, 1, 1, 0, 0})}; },
            {{"mode", S("REFLECT")}}),
         {1, 2, 5, 4},
         of({1, 2, 5, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w == 0 ? 1 : w == 4 ? 1 : w - 1, c); })},
        {"Tile W twice", op("Tile", [](Graph& g) { return Names{"x", g.vec("m", {1, 1, 2, 1})}; }),
         {1, 2, 6, 4}, of({1, 2, 6, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w % 3, c); })},
        {"ExpandDims, Squeeze",
         op("Squeeze", [](Graph& g) { return Names{g.node("e", "ExpandDims", {"x", g.scalar("a", -1)})}; },
            {{"squeeze_dims", Ints({0})}}),
         {2, 3, 4, 1}, iota(24)},
        {"GatherV2 channels 3 and 0",
         op("GatherV2", [](Graph& g) { return Names{"x", g.vec("i", {3, 0}), g.scalar("a", 3)}; }),
         {1, 2, 3, 2}, of({1, 2, 3, 2}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w, c ? 0 : 3); })},
        {"GatherNd two pixels",
         op("GatherNd", [](Graph& g) { return Names{"x", g.ints("i", {2, 3}, {0, 1, 2, 0, 0, 1})}; }),
         {2, 4}, {20, 21, 22, 23, 4, 5, 6, 7}},
        {"BroadcastTo a new batch",
         op("BroadcastTo", [](Graph& g) { return Names{"x", g.vec("s", {2, 2, 3, 4})}; }), {2, 2, 3, 4},
         generate({2, 2, 3, 4}, [&](int64_t, int64_t h, int64_t w, int64_t c) { return ix(h, w, c); })},
        {"ZerosLike plus Fill",
         op("AddV2",
            [](Graph& g) {
                return Names{g.node("z", "ZerosLike", {"x"}),
                             g.node("f", "Fill", {g.vec("d", {1, 2, 3, 4}), g.weight("v", {}, {2.5f})})};
            }),
         {1, 2, 3, 4}, std::vector<float>(24, 2.5f)},
        {"DepthToSpace by 2", op("DepthToSpace", [](Graph&) { return Names{"x"}; }, {{"block_size", I(2)}}),
         {1, 4, 6, 1},
         of({1, 4, 6, 1}, [&](int64_t h, int64_t w, int64_t) { return ix(h / 2, w / 2, (h % 2) * 2 + w % 2); })},
        {"PadV2 with 9 around W",
         op("PadV2",
            [](Graph& g) {
                return Names{"x", g.ints("p", {4, 2}, {0, 0, 0, 0, 1, 1, 0, 0}), g.weight("k", {}, {9})};
            }),
         {1, 2, 5, 4},
         of({1, 2, 5, 4}, [&](int64_t h, int64_t w, int64_t c) { return w == 0 || w == 4 ? 9 : ix(h, w - 1, c); })},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 2, 3, 4});
        k.build(g);
        g.output("y");
        expectClose(importAndRun(g, {x}).outputs.at(0), k.shape, k.want, k.what);
    }
}

TEST(GraphImport, MatrixProductsTransposeTheirOperandsWhenAsked) {
    // a (2x3) times b, b stored 3x2 or, transposed, 2x3; batched: a (1x3x2) transposed times b (1x3x2).
    const std::vector<float> a = {1, -2, 0.5f, 3, 0.25f, -1}, b = {0.5f, -1, 2, 0.25f, -0.5f, 1.5f};
    auto product = [&](bool transposeA, bool transposeB) {  // 2x2 result of the 6 elements of each
        std::vector<float> out(4, 0.0f);
        for (int i = 0; i < 2; ++i)
            for (int j = 0; j < 2; ++j)
                for (int k = 0; k < 3; ++k)
                    out[size_t(i * 2 + j)] += a[size_t(transposeA ? k * 2 + i : i * 3 + k)] *
                                              b[size_t(transposeB ? j * 3 + k : k * 2 + j)];
        return out;
    };
    struct Case {
        std::string what, op;
        std::vector<int64_t> aShape, bShape;
        json attr;
        std::vector<float> want;
    };
    std::vector<float> fused = product(false, false);
    for (size_t i = 0; i < fused.size(); ++i) fused[i] = std::max(fused[i] + (i % 2 ? -1.0f : 0.5f), 0.0f);
    const std::vector<Case> cases = {
        {"MatMul, b transposed", "MatMul", {2, 3}, {2, 3}, {{"transpose_b", B(true)}}, product(false, true)},
        {"_FusedMatMul with bias and Relu", "_FusedMatMul", {2, 3}, {3, 2}, {{"fused_ops", Strs({"BiasAdd", "Relu"})}},
         fused},
        {"BatchMatMulV2, a adjoint", "BatchMatMulV2", {1, 3, 2}, {1, 3, 2}, {{"adj_x", B(true)}}, product(true, false)},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("a", k.aShape);
        std::vector<std::string> in{"a", g.weight("b", k.bShape, b)};
        if (k.op == "_FusedMatMul") in.push_back(g.weight("bias", {2}, {0.5f, -1.0f}));
        g.node("y", k.op, in, k.attr);
        g.output("y");
        const std::vector<int64_t> shape = k.aShape.size() == 3 ? std::vector<int64_t>{1, 2, 2}
                                                                : std::vector<int64_t>{2, 2};
        expectClose(importAndRun(g, {makeTensor(ML::F32, k.aShape, a)}).outputs.at(0), shape, k.want, k.what);
    }
}

TEST(GraphImport, ShapesKnownOnlyAtRunTimeFlowThroughShapeArithmetic) {
    // Reshape x (N,H,W,C with H free) to [H*W, C] with H read from its shape, as Keras graphs do.
    Graph g;
    g.input("x", {1, -1, 3, 4});
    g.node("shape", "Shape", {"x"}, {{"out_type", {{"type", "DT_INT32"}}}});
    g.node("h", "StridedSlice", {"shape", g.vec("b", {1}), g.vec("e", {2}), g.vec("s", {1})},
           {{"shrink_axis_mask", I(1)}});
    g.node("hw", "Mul", {"h", g.scalar("three", 3)});
    g.node("dims", "Pack", {"hw", g.scalar("four", 4)}, {{"axis", I(0)}});
    g.node("y", "Reshape", {g.node("r", "Relu", {"x"}), "dims"});
    g.node("size", "Size", {"x"}, {{"out_type", {{"type", "DT_INT32"}}}});
    g.output("y");
    g.output("shape");
    g.output("size");
    const Tensor x = makeTensor(ML::F32, {1, 5, 3, 4}, iota(60));
    const Imported r = importAndRun(g, {x});
    expectClose(r.outputs.at(0), {15, 4}, iota(60), "reshaped");
    EXPECT_EQ(r.outputs.at(1).type, ML::I32);
    expectClose(r.outputs.at(1), {4}, {1, 5, 3, 4}, "shape in TensorFlow's order");
    expectClose(r.outputs.at(2), {}, {60}, "size");
}

TEST(GraphImport, ReductionsArgMaxAndTopK) {
    const Tensor x = makeTensor(ML::F32, {1, 2, 3, 4}, iota(24));
    auto base = [](int64_t h, int64_t w) { return static_cast<float>(h * 3 + w) * 4; };
    struct Case {
        std::string what, op;
        std::vector<int32_t> axes;
        bool keep;
        std::vector<int64_t> shape;
        std::vector<float> want;
    };
    const std::vector<Case> cases = {
        {"Mean over H and W, kept", "Mean", {1, 2}, true, {1, 1, 1, 4}, {10, 11, 12, 13}},
        {"Sum over C", "Sum", {3}, false, {1, 2, 3},
         {base(0, 0) * 4 + 6, base(0, 1) * 4 + 6, base(0, 2) * 4 + 6, base(1, 0) * 4 + 6, base(1, 1) * 4 + 6,
          base(1, 2) * 4 + 6}},
        {"Max over the last axis", "Max", {-1}, false, {1, 2, 3}, {3, 7, 11, 15, 19, 23}},
        {"Min over H, kept", "Min", {1}, true, {1, 1, 3, 4}, iota(12)},
        {"Prod over H", "Prod", {1}, false, {1, 3, 4},
         generate({1, 1, 3, 4},
                  [](int64_t, int64_t, int64_t w, int64_t c) { return float(w * 4 + c) * float(12 + w * 4 + c); })},
        {"ArgMax over W", "ArgMax", {2}, false, {1, 2, 4}, std::vector<float>(8, 2)},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 2, 3, 4});
        g.node("y", k.op, {"x", g.ints("axes", {static_cast<int64_t>(k.axes.size())}, k.axes)},
               {{"keep_dims", B(k.keep)}, {"output_type", {{"type", "DT_INT32"}}}});
        g.output("y");
        const Imported r = importAndRun(g, {x});
        EXPECT_EQ(r.outputs.at(0).type, k.op == "ArgMax" ? ML::I32 : ML::F32) << k.what;
        expectClose(r.outputs.at(0), k.shape, k.want, k.what);
    }
    // TopKV2 and Softmax along the channels of an N,C,H,W value.
    Graph g;
    g.input("x", {1, 1, 2, 3});
    g.node("top", "TopKV2", {"x", g.scalar("k", 2)}, {{"sorted", B(true)}});
    g.node("soft", "Softmax", {"x"});
    g.output("top");
    g.output("top:1");
    g.output("soft");
    const Imported r = importAndRun(g, {makeTensor(ML::F32, {1, 1, 2, 3}, {0.5f, 2, -1, 3, 1, 2})});
    expectClose(r.outputs.at(0), {1, 1, 2, 2}, {2, 0.5f, 3, 2}, "top values");
    expectClose(r.outputs.at(1), {1, 1, 2, 2}, {1, 0, 0, 2}, "top indices");
    const float e0 = std::exp(0.5f), e1 = std::exp(2.0f), e2 = std::exp(-1.0f), e3 = std::exp(3.0f),
                e4 = std::exp(1.0f), e5 = std::exp(2.0f);
    expectClose(r.outputs.at(2), {1, 1, 2, 3},
                {e0 / (e0 + e1 + e2), e1 / (e0 + e1 + e2), e2 / (e0 + e1 + e2), e3 / (e3 + e4 + e5),
                 e4 / (e3 + e4 + e5), e5 / (e3 + e4 + e5)},
                "softmax");
}

TEST(GraphImport, IntegersKeepTensorFlowsSemantics) {
    // An int32 input: floor division and modulo round towards minus infinity, a float cast to
    // int32 truncates, and int32 outputs stay int32.
    Graph g;
    g.input("n", {4}, "DT_INT32");
    g.node("q", "FloorDiv", {"n", g.scalar("two", 2)});
    g.node("m", "FloorMod", {"n", g.scalar("three", 3)});
    g.node("f", "Cast", {"n"}, {{"SrcT", {{"type", "DT_INT32"}}}, {"DstT", {{"type", "DT_FLOAT"}}}});
    g.node("t", "Cast", {g.node("h", "Mul", {"f", g.weight("k", {}, {0.45f})})},
           {{"SrcT", {{"type", "DT_FLOAT"}}}, {"DstT", {{"type", "DT_INT32"}}}});
    for (const char* o : {"q", "m", "t"}) g.output(o);
    const Imported r = importAndRun(g, {makeTensor(ML::I32, {4}, {-7, 7, -8, 5})});
    for (const Tensor& t : r.outputs) EXPECT_EQ(t.type, ML::I32);
    expectClose(r.outputs.at(0), {4}, {-4, 3, -4, 2}, "floor division");
    expectClose(r.outputs.at(1), {4}, {2, 1, 1, 2}, "floor modulo");
    expectClose(r.outputs.at(2), {4}, {-3, 3, -3, 2}, "truncating cast");
}

TEST(GraphImport, ConditionalsResolveWhenTheirConditionIsFixed) {
    // if ratio == 1: y = x else: y = Relu(x) * 2, as a TF1 Switch/Merge pair.
    Graph g;
    g.input("x", {1, 2, 2, 1});
    g.input("ratio", {});
    g.node("pred", "Squeeze", {g.node("eq", "Equal", {"ratio", g.weight("one", {}, {1.0f})})});
    g.node("sw", "Switch", {"x", "pred"});
    g.node("then", "Identity", {"sw:1"});
    g.node("else", "Mul", {g.node("relu", "Relu", {"sw"}), g.weight("two", {}, {2.0f})});
    g.node("y", "Merge", {"then", "else"});
    g.output("y");
    const Tensor x = makeTensor(ML::F32, {1, 2, 2, 1}, {-1, 2, -3, 4});
    for (const auto& [ratio, want] :
         {std::pair<float, std::vector<float>>{1.0f, {-1, 2, -3, 4}}, {0.5f, {0, 4, 0, 8}}}) {
        tf::ImportOptions options;
        options.inputConstants["ratio"] = {ratio};
        const Imported r = importAndRun(g, {x}, options);
        expectClose(r.outputs.at(0), {1, 2, 2, 1}, want, "ratio " + std::to_string(ratio));
        EXPECT_EQ(r.count("Mul"), ratio == 1.0f ? 0 : 1) << "only the taken side is written";
    }
    TempDir dir;
    try {
        tf::importModel(tf::readModel(g.write(dir)));
        FAIL() << "a condition known only at run time must be refused";
    } catch (const tf::ImportError& e) {
        EXPECT_NE(std::string(e.what()).find("node 'sw' (op Switch)"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("depends on ratio: give them fixed values at import time"),
                  std::string::npos)
            << e.what();
    }
}

TEST(GraphImport, RefusesOpsItCannotConvertNamingTheNode) {
    struct Case {
        std::string op, message;
    };
    const std::vector<Case> cases = {
        {"NonMaxSuppressionV5", "the importer does not know this op"},
        {"Enter", "loops and tensor arrays are not supported"},
        {"TensorListReserve", "loops and tensor arrays are not supported"},
        {"TensorArrayV3", "loops and tensor arrays are not supported"},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {1, 4});
        g.node("features", "Relu", {"x"});
        g.node("post/process", k.op, {"features"});
        g.node("y", "Identity", {"post/process"});
        TempDir dir;
        g.write(dir);
        try {
            tf::importModel(tf::readModel(dir / "model.json"));
            ADD_FAILURE() << k.op << " was imported";
        } catch (const tf::ImportError& e) {
            const std::string msg = e.what();
            EXPECT_NE(msg.find("Cannot import node 'post/process' (op " + k.op + "): " + k.message), std::string::npos)
                << msg;
        }
        // Cut before the post-processing, the rest imports.
        g.output("features");
        expectClose(importAndRun(g, {makeTensor(ML::F32, {1, 4}, {-1, 1, -2, 2})}).outputs.at(0), {1, 4}, {0, 1, 0, 2},
                    k.op);
    }
}

TEST(GraphImport, OutputsKeepTheirTensorFlowNames) {
    // "Neg_1" is a name the ONNX graph builder would give its second node, here a Neg.
    Graph g;
    g.input("x", {3});
    g.node("Neg_1", "Relu", {"x"});
    g.node("z", "Neg", {"x"});
    g.output("Neg_1");
    g.output("z");
    const Imported r = importAndRun(g, {makeTensor(ML::F32, {3}, {-1, 0.5f, 2})});
    ASSERT_EQ(r.proto.graph().output_size(), 2);
    EXPECT_EQ(r.proto.graph().output(0).name(), "Neg_1");
    EXPECT_EQ(r.proto.graph().output(1).name(), "z");
    expectClose(r.outputs.at(0), {3}, {0, 0.5f, 2}, "Relu");
    expectClose(r.outputs.at(1), {3}, {1, -0.5f, -2}, "Neg");
}

TEST(GraphImport, BrokenFilesEndInImportError) {
    struct Case {
        std::string what;
        std::function<void(const TempDir&)> breakIt;
    };
    const std::vector<Case> cases = {
        {"bad JSON", [](const TempDir& d) { std::ofstream(d / "model.json") << "{\"modelTopology\": {\"node\": ["; }},
        {"missing shard", [](const TempDir& d) { fs::remove(d / "w.bin"); }},
        {"short shard", [](const TempDir& d) { fs::resize_file(d / "w.bin", fs::file_size(d / "w.bin") - 1); }},
        {"over-long shard", [](const TempDir& d) { std::ofstream(d / "w.bin", std::ios::app) << 'x'; }},
        {"malformed attribute",
         [](const TempDir& d) {
             Graph g;
             g.input("x", {1, 2});
             g.node("y", "Squeeze", {"x"}, {{"squeeze_dims", {{"list", {{"i", {"zero"}}}}}}});
             g.write(d);
         }},
        {"input from a node that is not there",
         [](const TempDir& d) {
             Graph g;
             g.node("y", "Relu", {"nowhere"});
             g.write(d);
         }},
    };
    for (const Case& k : cases) {
        Graph g;
        g.input("x", {2});
        g.node("y", "Mul", {"x", g.weight("w", {2}, {1, 2})});
        TempDir dir;
        g.write(dir);
        k.breakIt(dir);
        EXPECT_THROW(tf::importModel(tf::readModel(dir / "model.json")), tf::ImportError) << k.what;
    }
}
