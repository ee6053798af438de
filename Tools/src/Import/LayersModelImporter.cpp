// Layers models: a Keras model configuration (functional or sequential) and its weights, one
// converter per layer class.
//
// Every value is held with its TensorFlow shape (N,H,W,C order, -1 where unknown); values of
// rank 4 live in the graph as N,C,H,W, so that the converters of 4-D layers work on channel
// axis 1 and no transposes are needed between layers.
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <tuple>

#include "ImportError.h"
#include "Importer.h"

namespace qpkg::tfjs {

namespace {

using nlohmann::json;

struct Value {
    std::string name;            // value of the graph
    std::vector<int64_t> shape;  // TensorFlow order, -1 where unknown
    size_t rank() const { return shape.size(); }
};

struct Layer {
    std::string name;
    std::string className;
    json config;
};

struct Context {
    GraphBuilder& g;
    const Model& model;
    bool shapesOnly = false;  // walk for the output shapes only: no weights are copied

    std::string where(const Layer& l) const {
        return model.file.string() + ": layer " + l.name + " (" + l.className + ")";
    }

    // The weight "<layer>/<suffix>"; converters of some models prefix the names with the
    // model's name, so a unique name ending in "/<layer>/<suffix>" is taken too.
    const Weight& weight(const Layer& l, const std::string& suffix) const {
        const std::string want = l.name + "/" + suffix;
        if (model.hasWeight(want)) return model.weights.at(want);
        const Weight* found = nullptr;
        for (const auto& [name, w] : model.weights) {
            const std::string bare =
                name.size() > 2 && name.compare(name.size() - 2, 2, ":0") == 0 ? name.substr(0, name.size() - 2) : name;
            if (bare == want ||
                (bare.size() > want.size() && bare.compare(bare.size() - want.size(), want.size(), want) == 0 &&
                 bare[bare.size() - want.size() - 1] == '/')) {
                if (found) throw ImportError(where(l) + ": more than one weight matches " + want);
                found = &w;
            }
        }
        if (!found) throw ImportError(where(l) + ": no weight named " + want);
        return *found;
    }

    std::string addWeight(const Weight& w, const std::vector<int64_t>& perm = {}) {
        if (shapesOnly) return "w";
        return qpkg::tfjs::addWeight(g, w, perm);
    }
};

int64_t integer(const json& j, const std::string& what) {
    if (!j.is_number_integer()) throw ImportError(what + " is not an integer");
    return jsonInteger(j, what);
}

// A layer option that may be missing (or null): the fallback then, else a checked number.
int64_t optionInteger(const Layer& l, const char* key, int64_t fallback, const std::string& where) {
    const auto it = l.config.find(key);
    return it == l.config.end() || it->is_null() ? fallback : integer(*it, where + ": " + key);
}
float optionFloat(const Layer& l, const char* key, float fallback, const std::string& where) {
    const auto it = l.config.find(key);
    return it == l.config.end() || it->is_null() ? fallback : jsonFloat32(*it, where + ": " + key);
}

// A pair of integers given as an integer or a list of two.
std::array<int64_t, 2> pairOf(const json& config, const std::string& key, int64_t fallback, const std::string& where) {
    if (!config.contains(key) || config[key].is_null()) return {fallback, fallback};
    const json& j = config[key];
    if (j.is_number_integer()) return {j.get<int64_t>(), j.get<int64_t>()};
    if (j.is_array() && j.size() == 2) return {integer(j[0], where + ": " + key), integer(j[1], where + ": " + key)};
    throw ImportError(where + ": " + key + " must be an integer or two");
}

// The axis of the graph value for a TensorFlow axis of a value of that rank.
int64_t graphAxis(int64_t axis, size_t rank, const std::string& where) {
    const int64_t r = static_cast<int64_t>(rank);
    if (axis < 0) axis += r;
    if (axis < 0 || axis >= r) throw ImportError(where + ": axis out of range");
    static const int64_t kToNchw[4] = {0, 2, 3, 1};
    return rank == 4 ? kToNchw[axis] : axis;
}

// Shape of the weight for broadcasting against a value of the given rank: TensorFlow keeps
// per-channel weights last, the graph keeps channels in axis 1 of 4-D values.
std::vector<int64_t> channelShape(int64_t channels, size_t rank) {
    std::vector<int64_t> shape(rank, 1);
    if (rank == 4) shape[1] = channels;
    else shape.back() = channels;
    return shape;
}

void requireRank(const Value& v, size_t rank, const std::string& where) {
    if (v.rank() != rank)
        throw ImportError(where + ": needs an input of rank " + std::to_string(rank) + ", has rank " +
                          std::to_string(v.rank()));
}

void requireChannelsLast(const Layer& l, const std::string& where) {
    const std::string format = l.config.value("data_format", std::string("channels_last"));
    if (format != "channels_last") throw ImportError(where + ": data_format " + format + " is not supported");
}

// Output extent of a sliding window along one axis; -1 when the input extent is unknown.
int64_t windowExtent(int64_t in, int64_t kernel, int64_t stride, int64_t dilation, bool same) {
    if (in < 0) return -1;
    if (same) return (in + stride - 1) / stride;
    const int64_t span = (kernel - 1) * dilation + 1;
    return in >= span ? (in - span) / stride + 1 : 0;
}

// Attributes of a window (convolution or pool) with TensorFlow's padding: "valid" pads
// nothing; "same" pads the total (out - 1) * stride + span - in, the odd one at the end. With
// stride 1 or known extents the pads are written out; otherwise ONNX's SAME_UPPER, which pads
// the same way.
std::vector<onnx::AttributeProto> windowAttrs(const Value& x, const std::array<int64_t, 2>& kernel,
                                              const std::array<int64_t, 2>& stride,
                                              const std::array<int64_t, 2>& dilation, const std::string& padding,
                                              const std::string& where) {
    std::vector<onnx::AttributeProto> attrs{attrInts("kernel_shape", {kernel[0], kernel[1]}),
                                            attrInts("strides", {stride[0], stride[1]})};
    if (padding == "valid") {
        attrs.push_back(attrInts("pads", {0, 0, 0, 0}));
        return attrs;
    }
    if (padding != "same") throw ImportError(where + ": padding " + padding + " is not supported");
    std::vector<int64_t> begin(2), end(2);
    for (int i = 0; i < 2; ++i) {
        const int64_t in = x.shape[1 + i], span = (kernel[i] - 1) * dilation[i] + 1;
        if (stride[i] != 1 && in < 0) {
            attrs.push_back(attrString("auto_pad", "SAME_UPPER"));
            return attrs;
        }
        const int64_t out = stride[i] == 1 ? 0 : (in + stride[i] - 1) / stride[i];
        const int64_t total = stride[i] == 1 ? span - 1 : std::max<int64_t>((out - 1) * stride[i] + span - in, 0);
        begin[i] = total / 2;
        end[i] = total - begin[i];
    }
    attrs.push_back(attrInts("pads", {begin[0], begin[1], end[0], end[1]}));
    return attrs;
}

// ---- activations ----

using ActivationFn = std::function<std::string(GraphBuilder&, const std::string&, size_t rank)>;

const std::map<std::string, ActivationFn>& activations() {
    static const std::map<std::string, ActivationFn> table = [] {
        std::map<std::string, ActivationFn> t;
        auto unary = [](const char* op) {
            return [op](GraphBuilder& g, const std::string& x, size_t) { return g.op(op, {x}); };
        };
        t["linear"] = [](GraphBuilder&, const std::string& x, size_t) { return x; };
        t["relu"] = unary("Relu");
        t["sigmoid"] = unary("Sigmoid");
        t["tanh"] = unary("Tanh");
        t["elu"] = unary("Elu");
        t["selu"] = unary("Selu");
        t["softplus"] = unary("Softplus");
        t["softsign"] = unary("Softsign");
        t["exponential"] = unary("Exp");
        t["relu6"] = [](GraphBuilder& g, const std::string& x, size_t) { return g.clip(x, 0.0f, 6.0f); };
        t["hard_sigmoid"] = unary("HardSigmoid");  // 0.2 x + 0.5, clamped to 0..1
        t["hardSigmoid"] = t["hard_sigmoid"];
        t["swish"] = [](GraphBuilder& g, const std::string& x, size_t) {
            return g.op("Mul", {x, g.op("Sigmoid", {x})});
        };
        t["silu"] = t["swish"];
        t["mish"] = [](GraphBuilder& g, const std::string& x, size_t) {
            return g.op("Mul", {x, g.op("Tanh", {g.op("Softplus", {x})})});
        };
        t["gelu"] = [](GraphBuilder& g, const std::string& x, size_t) {  // the exact form, with erf
            const std::string erf = g.op("Erf", {g.mulScalar(x, static_cast<float>(M_SQRT1_2))});
            return g.op("Mul", {g.mulScalar(x, 0.5f), g.addScalar(erf, 1.0f)});
        };
        t["softmax"] = [](GraphBuilder& g, const std::string& x, size_t rank) {
            return g.op("Softmax", {x}, {attrInt("axis", graphAxis(-1, rank, "softmax"))});
        };
        return t;
    }();
    return table;
}

std::string activate(Context& c, const Value& x, const std::string& activation, const std::string& where) {
    const auto it = activations().find(activation);
    if (it == activations().end()) throw ImportError(where + ": unknown activation " + activation);
    return it->second(c.g, x.name, x.rank());
}

std::string activationOf(const Layer& l) {
    const json& a = l.config.value("activation", json("linear"));
    if (a.is_null()) return "linear";
    if (a.is_string()) return a.get<std::string>();
    return a.value("class_name", std::string("?"));
}

// ---- converters ----

using Converter = std::function<Value(Context&, const Layer&, const std::vector<Value>&)>;

const Value& single(const std::vector<Value>& in, const std::string& where) {
    if (in.size() != 1) throw ImportError(where + ": needs one input, has " + std::to_string(in.size()));
    return in[0];
}

Value convolution(Context& c, const Layer& l, const std::vector<Value>& in, bool depthwise) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const auto kernel = pairOf(l.config, "kernel_size", 1, where);
    const auto stride = pairOf(l.config, "strides", 1, where);
    const auto dilation = pairOf(l.config, "dilation_rate", 1, where);
    const std::string padding = l.config.value("padding", std::string("valid"));
    if ((stride[0] > 1 || stride[1] > 1) && (dilation[0] > 1 || dilation[1] > 1))
        throw ImportError(where + ": strides and dilation together are not supported");
    const Weight& k = c.weight(l, depthwise ? "depthwise_kernel" : "kernel");
    if (k.shape.size() != 4 || k.shape[0] != kernel[0] || k.shape[1] != kernel[1])
        throw ImportError(where + ": the kernel's shape does not match kernel_size");
    const int64_t inChannels = x.shape[3] >= 0 ? x.shape[3] : -1;
    int64_t groups = depthwise ? k.shape[2] : optionInteger(l, "groups", 1, where);
    int64_t filters = depthwise ? k.shape[2] * k.shape[3] : k.shape[3];
    std::string w;
    if (depthwise) {
        // H,W,C,M to C*M,1,H,W: output channel c*M + m reads input channel c.
        w = c.addWeight(k, {2, 3, 0, 1});
        if (!c.shapesOnly) w = c.g.op("Reshape", {w, c.g.constI64({filters, 1, kernel[0], kernel[1]}, {4})});
    } else {
        w = c.addWeight(k, {3, 2, 0, 1});  // H,W,I,O to O,I,H,W
    }
    if (inChannels >= 0 && inChannels != k.shape[2] * (depthwise ? 1 : groups))
        throw ImportError(where + ": the kernel takes " + std::to_string(k.shape[2] * (depthwise ? 1 : groups)) +
                          " channels, the input has " + std::to_string(inChannels));
    std::vector<std::string> inputs{x.name, w};
    if (l.config.value("use_bias", true)) inputs.push_back(c.addWeight(c.weight(l, "bias")));
    std::vector<onnx::AttributeProto> attrs = windowAttrs(x, kernel, stride, dilation, padding, where);
    attrs.push_back(attrInts("dilations", {dilation[0], dilation[1]}));
    attrs.push_back(attrInt("group", groups));
    Value y{c.g.op("Conv", inputs, attrs),
            {x.shape[0], windowExtent(x.shape[1], kernel[0], stride[0], dilation[0], padding == "same"),
             windowExtent(x.shape[2], kernel[1], stride[1], dilation[1], padding == "same"), filters}};
    y.name = activate(c, y, activationOf(l), where);
    return y;
}

Value dense(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    const Weight& k = c.weight(l, "kernel");
    if (k.shape.size() != 2 || (x.shape.back() >= 0 && x.shape.back() != k.shape[0]))
        throw ImportError(where + ": the kernel does not fit the input");
    const int64_t units = k.shape[1];
    Value y{"", x.shape};
    y.shape.back() = units;
    if (x.rank() == 4) {  // on the channels of each pixel: a 1x1 convolution
        std::string w = c.addWeight(k, {1, 0});
        if (!c.shapesOnly) w = c.g.op("Reshape", {w, c.g.constI64({units, k.shape[0], 1, 1}, {4})});
        std::vector<std::string> inputs{x.name, w};
        if (l.config.value("use_bias", true)) inputs.push_back(c.addWeight(c.weight(l, "bias")));
        y.name = c.g.op("Conv", inputs, {attrInts("kernel_shape", {1, 1})});
    } else {
        y.name = c.g.op("MatMul", {x.name, c.addWeight(k)});
        if (l.config.value("use_bias", true)) y.name = c.g.op("Add", {y.name, c.addWeight(c.weight(l, "bias"))});
    }
    y.name = activate(c, y, activationOf(l), where);
    return y;
}

Value activationLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    Value y = single(in, c.where(l));
    y.name = activate(c, y, activationOf(l), c.where(l));
    return y;
}

Value unaryOp(Context& c, const std::vector<Value>& in, const std::string& where, const std::string& op,
              const std::vector<onnx::AttributeProto>& attrs = {}) {
    Value y = single(in, where);
    y.name = c.g.op(op, {y.name}, attrs);
    return y;
}

Value reluLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    if (optionFloat(l, "threshold", 0.0f, where) != 0.0f) throw ImportError(where + ": a threshold is not supported");
    const float slope = optionFloat(l, "negative_slope", 0.0f, where);
    Value y =
        slope == 0.0f ? unaryOp(c, in, where, "Relu") : unaryOp(c, in, where, "LeakyRelu", {attrFloat("alpha", slope)});
    const json& max = l.config.value("max_value", json());
    if (max.is_number()) y.name = c.g.op("Min", {y.name, c.g.scalarF32(jsonFloat32(max, where + ": max_value"))});
    return y;
}

Value preluLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    Value y = single(in, where);
    const Weight& alpha = c.weight(l, "alpha");
    if (alpha.shape.size() + 1 != y.rank()) throw ImportError(where + ": alpha does not fit the input");
    // Alpha has the input's shape without the batch, 1 along shared axes: H,W,C to C,H,W.
    const std::string a = c.addWeight(alpha, y.rank() == 4 ? std::vector<int64_t>{2, 0, 1} : std::vector<int64_t>{});
    y.name = c.g.op("PRelu", {y.name, a});
    return y;
}

Value batchNormalization(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    Value y = single(in, where);
    const json& axisJson = l.config.value("axis", json(-1));
    const int64_t axis =
        axisJson.is_array() ? integer(axisJson.at(0), where + ": axis") : integer(axisJson, where + ": axis");
    if (graphAxis(axis, y.rank(), where) != graphAxis(-1, y.rank(), where))
        throw ImportError(where + ": only the last axis is supported");
    const Weight& mean = c.weight(l, "moving_mean");
    const Weight& variance = c.weight(l, "moving_variance");
    const size_t n = mean.f32.size();
    const float epsilon = optionFloat(l, "epsilon", 1e-3f, where);
    std::vector<float> scale(n, 1.0f), shift(n, 0.0f);
    const Weight* gamma = l.config.value("scale", true) ? &c.weight(l, "gamma") : nullptr;
    const Weight* beta = l.config.value("center", true) ? &c.weight(l, "beta") : nullptr;
    for (const Weight* w : {&variance, gamma, beta})
        if (w && w->f32.size() != n) throw ImportError(where + ": weights of different sizes");
    for (size_t i = 0; i < n; ++i) {
        scale[i] = (gamma ? gamma->f32[i] : 1.0f) / std::sqrt(variance.f32[i] + epsilon);
        shift[i] = (beta ? beta->f32[i] : 0.0f) - mean.f32[i] * scale[i];
    }
    const std::vector<int64_t> shape = channelShape(static_cast<int64_t>(n), y.rank());
    y.name = c.g.op("Add", {c.g.op("Mul", {y.name, c.g.constF32(scale, shape)}), c.g.constF32(shift, shape)});
    return y;
}

Value merge(Context& c, const Layer& l, const std::vector<Value>& in, const std::string& op, bool variadic) {
    const std::string where = c.where(l);
    if (in.size() < 2) throw ImportError(where + ": needs at least two inputs");
    if (!variadic && op == "Sub" && in.size() != 2) throw ImportError(where + ": needs two inputs");
    Value y = in[0];
    for (const Value& v : in) {
        if (v.rank() != y.rank()) throw ImportError(where + ": inputs of different ranks");
        for (size_t i = 0; i < v.rank(); ++i) y.shape[i] = std::max(y.shape[i], v.shape[i]);
    }
    if (variadic) {
        std::vector<std::string> names;
        for (const Value& v : in) names.push_back(v.name);
        y.name = c.g.op(op, names);
    } else {
        y.name = in[0].name;
        for (size_t i = 1; i < in.size(); ++i) y.name = c.g.op(op, {y.name, in[i].name});
    }
    return y;
}

Value concatenate(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    if (in.empty()) throw ImportError(where + ": has no inputs");
    const int64_t tfAxis = optionInteger(l, "axis", -1, where);
    const size_t rank = in[0].rank();
    const int64_t axis = tfAxis < 0 ? tfAxis + static_cast<int64_t>(rank) : tfAxis;
    Value y{"", in[0].shape};
    std::vector<std::string> names;
    y.shape[static_cast<size_t>(axis)] = 0;
    for (const Value& v : in) {
        if (v.rank() != rank) throw ImportError(where + ": inputs of different ranks");
        const int64_t extent = v.shape[static_cast<size_t>(axis)];
        int64_t& sum = y.shape[static_cast<size_t>(axis)];
        sum = sum < 0 || extent < 0 ? -1 : sum + extent;
        names.push_back(v.name);
    }
    y.name = c.g.op("Concat", names, {attrInt("axis", graphAxis(axis, rank, where))});
    return y;
}

Value upSampling(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const auto size = pairOf(l.config, "size", 2, where);
    const std::string interpolation = l.config.value("interpolation", std::string("nearest"));
    if (interpolation != "nearest" && interpolation != "bilinear")
        throw ImportError(where + ": interpolation " + interpolation + " is not supported");
    // TensorFlow.js resizes without half-pixel centres: source = destination / size, and for
    // bilinear the neighbour past the edge is the edge.
    std::vector<onnx::AttributeProto> attrs{attrString("coordinate_transformation_mode", "asymmetric"),
                                            attrString("mode", interpolation == "nearest" ? "nearest" : "linear")};
    if (interpolation == "nearest") attrs.push_back(attrString("nearest_mode", "floor"));
    const std::string scales = c.g.constF32({1.0f, 1.0f, float(size[0]), float(size[1])}, {4});
    auto times = [](int64_t n, int64_t k) { return n < 0 ? n : n * k; };
    return {c.g.op("Resize", {x.name, "", scales}, attrs),
            {x.shape[0], times(x.shape[1], size[0]), times(x.shape[2], size[1]), x.shape[3]}};
}

// Depth to space in TensorFlow's N,H,W,C order reads channel (i * k + j) * C + c for output
// pixel (h * k + i, w * k + j): ONNX's DepthToSpace in "DCR" order on N,C,H,W does the same.
Value pixelShuffle(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    int64_t k = optionInteger(l, "scale", 0, where);
    if (k <= 0) {  // PixelShuffle<k>x
        const std::string digits = l.className.substr(12, l.className.size() - 13);
        k = digits.empty() ? 0 : std::atoll(digits.c_str());
    }
    if (k <= 0) throw ImportError(where + ": no block size");
    if (x.shape[3] >= 0 && x.shape[3] % (k * k) != 0)
        throw ImportError(where + ": " + std::to_string(x.shape[3]) + " channels do not fill blocks of " +
                          std::to_string(k) + " x " + std::to_string(k));
    auto times = [](int64_t n, int64_t f) { return n < 0 ? n : n * f; };
    return {c.g.op("DepthToSpace", {x.name}, {attrInt("blocksize", k), attrString("mode", "DCR")}),
            {x.shape[0], times(x.shape[1], k), times(x.shape[2], k), x.shape[3] < 0 ? -1 : x.shape[3] / (k * k)}};
}

Value pooling(Context& c, const Layer& l, const std::vector<Value>& in, bool max) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const auto pool = pairOf(l.config, "pool_size", 2, where);
    const auto stride = pairOf(l.config, "strides", 0, where);
    const std::array<int64_t, 2> strides{stride[0] > 0 ? stride[0] : pool[0], stride[1] > 0 ? stride[1] : pool[1]};
    const std::string padding = l.config.value("padding", std::string("valid"));
    std::vector<onnx::AttributeProto> attrs = windowAttrs(x, pool, strides, {1, 1}, padding, where);
    if (!max) attrs.push_back(attrInt("count_include_pad", 0));  // TensorFlow averages what is inside
    return {c.g.op(max ? "MaxPool" : "AveragePool", {x.name}, attrs),
            {x.shape[0], windowExtent(x.shape[1], pool[0], strides[0], 1, padding == "same"),
             windowExtent(x.shape[2], pool[1], strides[1], 1, padding == "same"), x.shape[3]}};
}

Value globalPooling(Context& c, const Layer& l, const std::vector<Value>& in, bool max) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const bool keep = l.config.value("keepdims", false);
    return {c.g.op(max ? "ReduceMax" : "ReduceMean", {x.name}, {attrInts("axes", {2, 3}), attrInt("keepdims", keep)}),
            keep ? std::vector<int64_t>{x.shape[0], 1, 1, x.shape[3]} : std::vector<int64_t>{x.shape[0], x.shape[3]}};
}

// Top, bottom, left, right of ZeroPadding2D and Cropping2D.
std::array<int64_t, 4> edges(const Layer& l, const std::string& key, const std::string& where) {
    const json& j = l.config.value(key, json(1));
    if (j.is_number_integer()) return {j.get<int64_t>(), j.get<int64_t>(), j.get<int64_t>(), j.get<int64_t>()};
    if (j.is_array() && j.size() == 2 && j[0].is_number_integer()) {
        const int64_t v = integer(j[0], where), h = integer(j[1], where);
        return {v, v, h, h};
    }
    if (j.is_array() && j.size() == 2 && j[0].is_array() && j[1].is_array() && j[0].size() == 2 && j[1].size() == 2)
        return {integer(j[0][0], where), integer(j[0][1], where), integer(j[1][0], where), integer(j[1][1], where)};
    throw ImportError(where + ": bad " + key);
}

Value zeroPadding(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const auto [top, bottom, left, right] = edges(l, "padding", where);
    auto plus = [](int64_t n, int64_t d) { return n < 0 ? n : n + d; };
    return {c.g.op("Pad", {x.name, c.g.constI64({0, 0, top, left, 0, 0, bottom, right}, {8})}),
            {x.shape[0], plus(x.shape[1], top + bottom), plus(x.shape[2], left + right), x.shape[3]}};
}

Value cropping(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    requireRank(x, 4, where);
    requireChannelsLast(l, where);
    const auto [top, bottom, left, right] = edges(l, "cropping", where);
    const int64_t kEnd = std::numeric_limits<int64_t>::max();
    auto minus = [](int64_t n, int64_t d) { return n < 0 ? n : std::max<int64_t>(n - d, 0); };
    return {c.g.op("Slice", {x.name, c.g.constI64({top, left}, {2}),
                             c.g.constI64({bottom > 0 ? -bottom : kEnd, right > 0 ? -right : kEnd}, {2}),
                             c.g.constI64({2, 3}, {2})}),
            {x.shape[0], minus(x.shape[1], top + bottom), minus(x.shape[2], left + right), x.shape[3]}};
}

// Reshape and Flatten work in TensorFlow's element order: 4-D values go back to N,H,W,C first.
Value reshapeTo(Context& c, const Value& x, std::vector<int64_t> target, const std::string& where) {
    std::string v = x.rank() == 4 ? c.g.op("Transpose", {x.name}, {attrInts("perm", {0, 2, 3, 1})}) : x.name;
    int64_t known = 1, freeAxis = -1;
    bool allKnown = true;
    for (size_t i = 1; i < x.rank(); ++i) {
        if (x.shape[i] < 0) allKnown = false;
        else known *= x.shape[i];
    }
    int64_t product = 1;
    for (size_t i = 0; i < target.size(); ++i) {
        if (target[i] == -1) {
            if (freeAxis >= 0) throw ImportError(where + ": more than one free extent");
            freeAxis = static_cast<int64_t>(i);
        } else if (target[i] <= 0) {
            throw ImportError(where + ": bad target shape");
        } else {
            product *= target[i];
        }
    }
    std::vector<int64_t> shape{0};  // 0: the batch as it is
    shape.insert(shape.end(), target.begin(), target.end());
    v = c.g.op("Reshape", {v, c.g.constI64(shape, {static_cast<int64_t>(shape.size())})});
    std::vector<int64_t> out{x.shape[0]};
    for (int64_t t : target) out.push_back(t);
    if (freeAxis >= 0 && allKnown) {
        if (known % product != 0) throw ImportError(where + ": the target shape does not fit the input");
        out[static_cast<size_t>(freeAxis) + 1] = known / product;
    }
    if (out.size() == 4) v = c.g.op("Transpose", {v}, {attrInts("perm", {0, 3, 1, 2})});
    return {v, out};
}

Value reshapeLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    std::vector<int64_t> target;
    for (const json& d : l.config.at("target_shape")) target.push_back(d.is_null() ? -1 : integer(d, where));
    return reshapeTo(c, single(in, where), target, where);
}

Value flattenLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    return reshapeTo(c, single(in, c.where(l)), {-1}, c.where(l));
}

Value identityLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    return single(in, c.where(l));
}

Value scaleLayer(Context& c, const std::vector<Value>& in, const std::string& where, float scale, float offset) {
    Value y = single(in, where);
    y.name = c.g.mulScalar(y.name, scale);
    if (offset != 0.0f) y.name = c.g.addScalar(y.name, offset);
    return y;
}

Value softmaxLayer(Context& c, const Layer& l, const std::vector<Value>& in) {
    const std::string where = c.where(l);
    const Value& x = single(in, where);
    const json& a = l.config.value("axis", json(-1));
    const int64_t axis = a.is_array() ? integer(a.at(0), where) : integer(a, where);
    return unaryOp(c, in, where, "Softmax", {attrInt("axis", graphAxis(axis, x.rank(), where))});
}

const std::map<std::string, Converter>& converters() {
    static const std::map<std::string, Converter> table{
        {"Conv2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return convolution(c, l, in, false); }},
        {"DepthwiseConv2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return convolution(c, l, in, true); }},
        {"Dense", dense},
        {"Activation", activationLayer},
        {"ReLU", reluLayer},
        {"LeakyReLU",
         [](Context& c, const Layer& l, const std::vector<Value>& in) {
             const float alpha = optionFloat(l, "alpha", optionFloat(l, "negative_slope", 0.3f, c.where(l)), c.where(l));
             return unaryOp(c, in, c.where(l), "LeakyRelu", {attrFloat("alpha", alpha)});
         }},
        {"ELU",
         [](Context& c, const Layer& l, const std::vector<Value>& in) {
             return unaryOp(c, in, c.where(l), "Elu", {attrFloat("alpha", optionFloat(l, "alpha", 1.0f, c.where(l)))});
         }},
        {"PReLU", preluLayer},
        {"Softmax", softmaxLayer},
        {"BatchNormalization", batchNormalization},
        {"Add", [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Sum", true); }},
        {"Subtract",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Sub", false); }},
        {"Multiply",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Mul", false); }},
        {"Average",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Mean", true); }},
        {"Maximum",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Max", true); }},
        {"Minimum",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return merge(c, l, in, "Min", true); }},
        {"Concatenate", concatenate},
        {"UpSampling2D", upSampling},
        {"MaxPooling2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return pooling(c, l, in, true); }},
        {"AveragePooling2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return pooling(c, l, in, false); }},
        {"GlobalMaxPooling2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return globalPooling(c, l, in, true); }},
        {"GlobalAveragePooling2D",
         [](Context& c, const Layer& l, const std::vector<Value>& in) { return globalPooling(c, l, in, false); }},
        {"ZeroPadding2D", zeroPadding},
        {"Cropping2D", cropping},
        {"Reshape", reshapeLayer},
        {"Flatten", flattenLayer},
        {"Dropout", identityLayer},
        {"SpatialDropout2D", identityLayer},
        {"GaussianNoise", identityLayer},
        {"GaussianDropout", identityLayer},
        {"ActivityRegularization", identityLayer},
        {"Rescaling",
         [](Context& c, const Layer& l, const std::vector<Value>& in) {
             return scaleLayer(c, in, c.where(l), optionFloat(l, "scale", 1.0f, c.where(l)),
                               optionFloat(l, "offset", 0.0f, c.where(l)));
         }},
        // UpscalerJS's own layers, defined in the package's JavaScript.
        {"MultiplyBeta",
         [](Context& c, const Layer& l, const std::vector<Value>& in) {
             return scaleLayer(c, in, c.where(l), optionFloat(l, "beta", 0.2f, c.where(l)), 0.0f);
         }},
        {"PixelShuffle", pixelShuffle},
        {"Lambda",
         [](Context& c, const Layer& l, const std::vector<Value>&) -> Value {
             throw ImportError(c.where(l) + ": Lambda layers hold Python code and cannot be imported");
         }},
    };
    return table;
}

const Converter& converterOf(const Context& c, const Layer& l) {
    std::string key = l.className;
    // PixelShuffle2x, PixelShuffle4x, ...: one class per block size.
    if (key.size() > 13 && key.compare(0, 12, "PixelShuffle") == 0 && key.back() == 'x') key = "PixelShuffle";
    const auto it = converters().find(key);
    if (it == converters().end())
        throw ImportError(c.model.file.string() + ": layer " + l.name + " has unknown layer class " + l.className);
    return it->second;
}

// ---- the model configuration ----

struct InputLayer {
    std::string name;
    std::string dtype;
    std::vector<int64_t> shape;  // TensorFlow order, -1 where free
};

// An edge of the functional graph: layer name, node index, tensor index.
struct Ref {
    std::string layer;
    int64_t node = 0, tensor = 0;
    bool operator<(const Ref& o) const { return std::tie(layer, node, tensor) < std::tie(o.layer, o.node, o.tensor); }
};

struct Config {
    std::vector<Layer> layers;
    std::map<std::string, std::vector<std::vector<Ref>>> inbound;  // per layer, per node: its inputs
    std::vector<InputLayer> inputs;
    std::vector<Ref> outputs;
};

Ref refOf(const json& j, const std::string& where) {
    if (!j.is_array() || j.size() < 3 || !j[0].is_string())
        throw ImportError(where + ": a layer reference is not [name, node, tensor]");
    return {j[0].get<std::string>(), integer(j[1], where), integer(j[2], where)};
}

InputLayer inputLayerOf(const std::string& name, const json& config, const std::string& where) {
    InputLayer in{name, config.value("dtype", std::string("float32")), {}};
    const json& shape =
        config.contains("batch_input_shape") ? config["batch_input_shape"] : config.value("batch_shape", json());
    if (!shape.is_array()) throw ImportError(where + ": input " + name + " has no batch_input_shape");
    for (const json& d : shape) in.shape.push_back(d.is_null() ? -1 : integer(d, where + ": input " + name));
    return in;
}

Config readConfig(const Model& model) {
    const std::string where = model.file.string();
    const json& top = model.topology.contains("model_config") ? model.topology["model_config"] : model.topology;
    const std::string className = top.value("class_name", std::string());
    const json& config = top.value("config", json());
    Config result;
    std::map<std::string, InputLayer> inputLayers;
    auto layerOf = [&](const json& j) {
        Layer l{j.value("name", std::string()), j.value("class_name", std::string()),
                j.value("config", json::object())};
        if (l.name.empty()) l.name = l.config.value("name", std::string());
        if (l.name.empty() || l.className.empty()) throw ImportError(where + ": a layer has no name or class");
        return l;
    };

    if (className == "Sequential") {
        const json& list = config.is_array() ? config : config.value("layers", json());
        if (!list.is_array() || list.empty()) throw ImportError(where + ": the sequential model has no layers");
        Ref previous;
        for (size_t i = 0; i < list.size(); ++i) {
            Layer l = layerOf(list[i]);
            if (l.className == "InputLayer") {
                if (i != 0) throw ImportError(where + ": an input layer inside a sequential model");
                result.inputs.push_back(inputLayerOf(l.name, l.config, where));
                previous = {l.name, 0, 0};
                continue;
            }
            if (i == 0) {  // the implicit input, named after the first layer
                result.inputs.push_back(inputLayerOf(l.name + "_input", l.config, where + ": layer " + l.name));
                previous = {l.name + "_input", 0, 0};
            }
            result.inbound[l.name] = {{previous}};
            previous = {l.name, 0, 0};
            result.layers.push_back(std::move(l));
        }
        result.outputs.push_back(previous);
        return result;
    }

    if (className != "Functional" && className != "Model")
        throw ImportError(where + ": model class " + (className.empty() ? std::string("(none)") : className) +
                          " is not a Keras functional or sequential model");
    for (const json& j : config.value("layers", json::array())) {
        Layer l = layerOf(j);
        if (l.className == "InputLayer") {
            inputLayers[l.name] = inputLayerOf(l.name, l.config, where);
            continue;
        }
        if (l.className == "Functional" || l.className == "Sequential" || l.className == "Model")
            throw ImportError(where + ": layer " + l.name + " is a nested model, which is not supported");
        std::vector<std::vector<Ref>>& nodes = result.inbound[l.name];
        for (const json& node : j.value("inbound_nodes", json::array())) {
            if (!node.is_array())
                throw ImportError(where + ": layer " + l.name +
                                  " has inbound nodes in a form this importer does not read");
            std::vector<Ref> refs;
            for (const json& r : node) refs.push_back(refOf(r, where + ": layer " + l.name));
            nodes.push_back(std::move(refs));
        }
        result.layers.push_back(std::move(l));
    }
    for (const json& r : config.value("input_layers", json::array())) {
        const Ref ref = refOf(r, where + ": input_layers");
        const auto it = inputLayers.find(ref.layer);
        if (it == inputLayers.end()) throw ImportError(where + ": input " + ref.layer + " is not an input layer");
        result.inputs.push_back(it->second);
    }
    for (const json& r : config.value("output_layers", json::array()))
        result.outputs.push_back(refOf(r, where + ": output_layers"));
    if (result.inputs.empty() || result.outputs.empty())
        throw ImportError(where + ": the model has no inputs or outputs");
    return result;
}

int elemTypeOf(const std::string& dtype, const std::string& where) {
    if (dtype == "float32") return onnx::TensorProto::FLOAT;
    if (dtype == "int32") return onnx::TensorProto::INT32;
    throw ImportError(where + ": input type " + dtype + " is not supported");
}

// The input's TensorFlow shape with free extents filled from the options.
std::vector<int64_t> inputShape(const InputLayer& in, const ImportOptions& options, const std::string& where) {
    std::vector<int64_t> shape = in.shape;
    const auto it = options.inputShapes.find(in.name);
    if (it == options.inputShapes.end()) return shape;
    if (it->second.size() != shape.size())
        throw ImportError(where + ": input " + in.name + " has rank " + std::to_string(shape.size()) +
                          ", the given shape rank " + std::to_string(it->second.size()));
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] >= 0 && it->second[i] != shape[i])
            throw ImportError(where + ": input " + in.name + " has extent " + std::to_string(shape[i]) + " in axis " +
                              std::to_string(i) + ", not " + std::to_string(it->second[i]));
        shape[i] = it->second[i];
    }
    return shape;
}

std::vector<int64_t> onnxOrder(std::vector<int64_t> shape) {
    if (shape.size() == 4) shape = {shape[0], shape[3], shape[1], shape[2]};
    return shape;
}

// Walks the layers in dependency order; returns the output values.
std::vector<Value> walk(Context& c, const Config& config, const std::map<std::string, std::string>& inputs,
                        const ImportOptions& options) {
    const std::string where = c.model.file.string();
    std::map<Ref, Value> values;
    for (const InputLayer& in : config.inputs) {
        Value v{"", inputShape(in, options, where)};
        const auto constant = options.inputConstants.find(in.name);
        const auto given = inputs.find(in.name);
        if (given != inputs.end()) {
            v.name = given->second;
        } else if (constant != options.inputConstants.end()) {
            std::vector<int64_t> dims = onnxOrder(v.shape);
            int64_t count = 1;
            for (int64_t d : dims) count = d < 0 ? -1 : count * d;
            if (count != static_cast<int64_t>(constant->second.size()))
                throw ImportError(where + ": the constant for input " + in.name + " does not fill its shape");
            v.name = c.g.constF32(constant->second, dims);
            if (elemTypeOf(in.dtype, where) == onnx::TensorProto::INT32) v.name = c.g.cast(v.name, ML::F32, ML::I32);
        } else {
            throw ImportError(where + ": no value given for input " + in.name);
        }
        values[{in.name, 0, 0}] = v;
    }

    std::vector<std::pair<const Layer*, size_t>> pending;
    for (const Layer& l : config.layers)
        for (size_t n = 0; n < config.inbound.at(l.name).size(); ++n) pending.emplace_back(&l, n);
    while (!pending.empty()) {
        std::vector<std::pair<const Layer*, size_t>> later;
        for (const auto& [layer, node] : pending) {
            std::vector<Value> in;
            for (const Ref& r : config.inbound.at(layer->name)[node]) {
                const auto it = values.find(r);
                if (it == values.end()) break;
                in.push_back(it->second);
            }
            if (in.size() != config.inbound.at(layer->name)[node].size()) {
                later.emplace_back(layer, node);
                continue;
            }
            values[{layer->name, static_cast<int64_t>(node), 0}] = converterOf(c, *layer)(c, *layer, in);
        }
        if (later.size() == pending.size())
            throw ImportError(where + ": layer " + later.front().first->name + " waits for an input no layer makes");
        pending = std::move(later);
    }

    std::vector<Value> outputs;
    for (const Ref& r : config.outputs) {
        const auto it = values.find(r);
        if (it == values.end()) throw ImportError(where + ": output " + r.layer + " is not made by any layer");
        outputs.push_back(it->second);
    }
    return outputs;
}

}  // namespace

std::vector<TensorSignature> layersModelInputs(const Model& model, const ImportOptions& options) {
    std::vector<TensorSignature> result;
    for (const InputLayer& in : readConfig(model).inputs) {
        const std::string where = model.file.string();
        result.push_back({in.name, elemTypeOf(in.dtype, where), onnxOrder(inputShape(in, options, where))});
    }
    return result;
}

std::vector<TensorSignature> layersModelOutputs(const Model& model, const ImportOptions& options) {
    const Config config = readConfig(model);
    GraphBuilder scratch("shapes");
    Context c{scratch, model, true};
    std::map<std::string, std::string> inputs;
    for (const InputLayer& in : config.inputs)
        if (!options.inputConstants.count(in.name)) inputs[in.name] = in.name;
    const std::vector<Value> values = walk(c, config, inputs, options);
    std::vector<TensorSignature> result;
    for (size_t i = 0; i < values.size(); ++i)
        result.push_back({config.outputs[i].layer, onnx::TensorProto::FLOAT, onnxOrder(values[i].shape)});
    return result;
}

std::map<std::string, std::string> importLayersModel(GraphBuilder& g, const Model& model,
                                                     const std::map<std::string, std::string>& inputs,
                                                     const ImportOptions& options) {
    const Config config = readConfig(model);
    Context c{g, model, false};
    const std::vector<Value> values = walk(c, config, inputs, options);
    std::map<std::string, std::string> result;
    for (size_t i = 0; i < values.size(); ++i) result[config.outputs[i].layer] = values[i].name;
    return result;
}

}  // namespace qpkg::tfjs
