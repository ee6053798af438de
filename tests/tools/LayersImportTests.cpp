// The layers-model importer, the adapters and the package's real networks: tiny Keras models
// written in the test, imported, run with ONNX Runtime and compared with values computed here
// in TensorFlow's N,H,W,C order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>

#include <nlohmann/json.hpp>

#include "Import/Adapters.h"
#include "Import/ImportError.h"
#include "Import/NetworkSources.h"
#include "PackageFiles.h"
#include "ToolTestUtil.h"
#include "Util/ML_FileUtil.h"

using namespace tooltest;
using json = nlohmann::json;
namespace tfjs = qpkg::tfjs;

namespace {

// Deterministic values in -1..1.
std::vector<float> noise(size_t n, unsigned seed) {
    std::vector<float> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = float((i * 2654435761u + seed * 40503u) % 2001u) / 1000.0f - 1.0f;
    return v;
}

// An image in TensorFlow's order (one batch): at(h, w, c).
struct Image {
    int64_t h = 0, w = 0, c = 0;
    std::vector<float> v;
    Image(int64_t h_, int64_t w_, int64_t c_, std::vector<float> values = {})
        : h(h_), w(w_), c(c_), v(std::move(values)) {
        if (v.empty()) v.assign(size_t(h * w * c), 0.0f);
    }
    float& at(int64_t y, int64_t x, int64_t k) { return v[size_t((y * w + x) * c + k)]; }
    float at(int64_t y, int64_t x, int64_t k) const { return v[size_t((y * w + x) * c + k)]; }
    Tensor nchw(ML::u32 type = ML::F32) const {
        std::vector<float> out(v.size());
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x)
                for (int64_t k = 0; k < c; ++k) out[size_t((k * h + y) * w + x)] = at(y, x, k);
        return makeTensor(type, {1, c, h, w}, out);
    }
    static Image fromNchw(const Tensor& t) {
        Image im(t.shape.at(2), t.shape.at(3), t.shape.at(1));
        for (int64_t y = 0; y < im.h; ++y)
            for (int64_t x = 0; x < im.w; ++x)
                for (int64_t k = 0; k < im.c; ++k) im.at(y, x, k) = t.values[size_t((k * im.h + y) * im.w + x)];
        return im;
    }
};

void expectNear(const Image& got, const Image& want, float tolerance, const std::string& what) {
    ASSERT_EQ(std::tuple(got.h, got.w, got.c), std::tuple(want.h, want.w, want.c)) << what;
    int bad = 0;
    for (size_t i = 0; i < want.v.size() && bad < 5; ++i)
        if (!(std::abs(got.v[i] - want.v[i]) <= tolerance * std::max(1.0f, std::abs(want.v[i]))))
            ADD_FAILURE() << what << ": element " << i << " is " << got.v[i] << ", expected " << want.v[i], ++bad;
}

// A Keras functional model written as model.json with one weight shard.
class TinyModel {
public:
    explicit TinyModel(int64_t channels, const std::string& input = "x") { addInput(input, channels); }

    void addInput(const std::string& name, int64_t channels) {
        layers_.push_back({{"class_name", "InputLayer"},
                           {"name", name},
                           {"config", {{"name", name}, {"batch_input_shape", {nullptr, nullptr, nullptr, channels}}}},
                           {"inbound_nodes", json::array()}});
        inputs_.push_back({name, 0, 0});
    }
    // A layer reading the named layers; returns its name.
    std::string add(const std::string& className, json config, const std::vector<std::string>& from,
                    std::string name = "") {
        if (name.empty()) name = "l" + std::to_string(layers_.size());
        config["name"] = name;
        json node = json::array();
        for (const std::string& f : from) node.push_back({f, 0, 0, json::object()});
        layers_.push_back({{"class_name", className}, {"name", name}, {"config", config}, {"inbound_nodes", {node}}});
        return name;
    }
    void weight(const std::string& name, std::vector<int64_t> shape, std::vector<float> values) {
        manifest_.push_back({{"name", name}, {"shape", shape}, {"dtype", "float32"}});
        bytes_.append(reinterpret_cast<const char*>(values.data()), values.size() * 4);
    }
    fs::path write(const fs::path& dir, const std::vector<std::string>& outputs) const {
        fs::create_directories(dir);
        json outs = json::array();
        for (const std::string& o : outputs) outs.push_back({o, 0, 0});
        const json doc{
            {"format", "layers-model"},
            {"modelTopology",
             {{"model_config",
               {{"class_name", "Functional"},
                {"config",
                 {{"name", "tiny"}, {"layers", layers_}, {"input_layers", inputs_}, {"output_layers", outs}}}}}}},
            {"weightsManifest", {{{"paths", {"weights.bin"}}, {"weights", manifest_}}}}};
        std::ofstream(dir / "model.json") << doc.dump();
        std::ofstream(dir / "weights.bin", std::ios::binary) << bytes_;
        return dir / "model.json";
    }

private:
    json layers_ = json::array(), inputs_ = json::array(), manifest_ = json::array();
    std::string bytes_;
};

// Imports the model (plainly, or through an adapter) and runs it on the inputs.
std::vector<Tensor> importAndRun(const fs::path& modelJson, const std::vector<Tensor>& inputs,
                                 const tfjs::ImportOptions& options = {}, const tfjs::Adapter* adapter = nullptr) {
    const tfjs::Model model = tfjs::readModel(modelJson);
    const fs::path onnx = modelJson.parent_path() / "imported.onnx";
    qpkg::writeModel(adapter ? tfjs::importAdapted(model, *adapter, options) : tfjs::importModel(model, options), onnx);
    return Network(onnx).run(inputs);
}

Image runImage(const fs::path& modelJson, const Image& x, const tfjs::ImportOptions& options = {}) {
    return Image::fromNchw(importAndRun(modelJson, {x.nchw()}, options).at(0));
}

// Convolution as TensorFlow computes it: kernel H,W,I,O; "same" pads total/2 before.
Image conv(const Image& x, const std::vector<float>& k, int64_t kh, int64_t kw, int64_t co,
           const std::vector<float>& bias, int64_t stride, int64_t dilation, bool same) {
    const int64_t spanH = (kh - 1) * dilation + 1, spanW = (kw - 1) * dilation + 1;
    const int64_t oh = same ? (x.h + stride - 1) / stride : (x.h - spanH) / stride + 1;
    const int64_t ow = same ? (x.w + stride - 1) / stride : (x.w - spanW) / stride + 1;
    const int64_t top = same ? std::max<int64_t>((oh - 1) * stride + spanH - x.h, 0) / 2 : 0;
    const int64_t left = same ? std::max<int64_t>((ow - 1) * stride + spanW - x.w, 0) / 2 : 0;
    Image y(oh, ow, co);
    for (int64_t oy = 0; oy < oh; ++oy)
        for (int64_t ox = 0; ox < ow; ++ox)
            for (int64_t o = 0; o < co; ++o) {
                float sum = bias.empty() ? 0.0f : bias[size_t(o)];
                for (int64_t i = 0; i < kh; ++i)
                    for (int64_t j = 0; j < kw; ++j) {
                        const int64_t sy = oy * stride + i * dilation - top, sx = ox * stride + j * dilation - left;
                        if (sy < 0 || sy >= x.h || sx < 0 || sx >= x.w) continue;
                        for (int64_t ci = 0; ci < x.c; ++ci)
                            sum += x.at(sy, sx, ci) * k[size_t(((i * kw + j) * x.c + ci) * co + o)];
                    }
                y.at(oy, ox, o) = sum;
            }
    return y;
}

float sigmoid(float x) {
    return 1.0f / (1.0f + std::exp(-x));
}

const std::map<std::string, std::function<float(float)>> kActivations{
    {"linear", [](float x) { return x; }},
    {"relu", [](float x) { return std::max(x, 0.0f); }},
    {"sigmoid", sigmoid},
    {"tanh", [](float x) { return std::tanh(x); }},
    {"elu", [](float x) { return x > 0 ? x : std::exp(x) - 1; }},
    {"selu", [](float x) { return 1.0507009873554805f * (x > 0 ? x : 1.6732632423543772f * (std::exp(x) - 1)); }},
    {"softplus", [](float x) { return std::log1p(std::exp(x)); }},
    {"softsign", [](float x) { return x / (1 + std::abs(x)); }},
    {"relu6", [](float x) { return std::clamp(x, 0.0f, 6.0f); }},
    {"hard_sigmoid", [](float x) { return std::clamp(0.2f * x + 0.5f, 0.0f, 1.0f); }},
    {"swish", [](float x) { return x * sigmoid(x); }},
    {"gelu", [](float x) { return 0.5f * x * (1 + std::erf(x / std::sqrt(2.0f))); }},
};

}  // namespace

TEST(LayersImport, ConvolutionsMatchTensorFlowForPaddingStridesDilationAndActivations) {
    const struct {
        std::string padding, activation;
        int64_t kernel, stride, dilation, height, width;
        bool bias, fixedSize;  // fixedSize: extents given at import (explicit pads) or left free
        bool depthwise;        // DepthwiseConv2D with a depth multiplier of 2
    } cases[] = {
        {"same", "relu", 3, 1, 1, 5, 6, true, false, false},    {"valid", "linear", 3, 1, 1, 5, 6, false, false, false},
        {"same", "sigmoid", 3, 2, 1, 7, 5, true, false, false}, {"same", "tanh", 2, 2, 1, 7, 6, true, true, false},
        {"same", "linear", 3, 1, 2, 6, 7, true, false, false},  {"valid", "relu", 3, 2, 1, 8, 7, true, true, false},
        {"same", "linear", 1, 1, 1, 3, 4, true, false, false},  {"same", "relu", 3, 1, 1, 5, 6, true, false, true},
        {"valid", "linear", 2, 2, 1, 7, 6, false, false, true},
    };
    TempDir dir;
    for (const auto& k : cases) {
        SCOPED_TRACE(k.padding + " " + k.activation + " stride " + std::to_string(k.stride) + " dilation " +
                     std::to_string(k.dilation) + " " + std::to_string(k.height) + "x" + std::to_string(k.width) +
                     (k.depthwise ? " depthwise" : ""));
        const int64_t ci = 3, co = k.depthwise ? 6 : 4, perInput = k.depthwise ? 2 : co;
        const std::vector<float> weights = noise(size_t(k.kernel * k.kernel * ci * perInput), 1), bias = noise(co, 2);
        std::vector<float> kernel = weights;  // as a full H,W,I,O kernel
        if (k.depthwise) {                    // output channel c * 2 + m reads input channel c only
            kernel.assign(size_t(k.kernel * k.kernel * ci * co), 0.0f);
            for (int64_t t = 0; t < k.kernel * k.kernel; ++t)
                for (int64_t c = 0; c < ci; ++c)
                    for (int64_t m = 0; m < 2; ++m)
                        kernel[size_t((t * ci + c) * co + c * 2 + m)] = weights[size_t((t * ci + c) * 2 + m)];
        }
        TinyModel m(ci);
        json config{
            {"kernel_size", {k.kernel, k.kernel}},       {"strides", {k.stride, k.stride}}, {"padding", k.padding},
            {"dilation_rate", {k.dilation, k.dilation}}, {"activation", k.activation},      {"use_bias", k.bias}};
        config[k.depthwise ? "depth_multiplier" : "filters"] = perInput;
        const std::string out = m.add(k.depthwise ? "DepthwiseConv2D" : "Conv2D", config, {"x"}, "F_0");
        m.weight(k.depthwise ? "F_0/depthwise_kernel" : "F_0/kernel", {k.kernel, k.kernel, ci, perInput}, weights);
        if (k.bias) m.weight("F_0/bias", {co}, bias);
        const fs::path file = m.write(dir / "conv", {out});
        tfjs::ImportOptions options;
        if (k.fixedSize) options.inputShapes["x"] = {1, k.height, k.width, ci};
        const Image x(k.height, k.width, ci, noise(size_t(k.height * k.width * ci), 3));
        Image want = conv(x, kernel, k.kernel, k.kernel, co, k.bias ? bias : std::vector<float>{}, k.stride, k.dilation,
                          k.padding == "same");
        for (float& v : want.v) v = kActivations.at(k.activation)(v);
        expectNear(runImage(file, x, options), want, 1e-5f, "conv");
    }
}

// Layers that map each pixel's channels on their own: activations, per-channel weights, Dense.
TEST(LayersImport, PerPixelLayers) {
    const int64_t c = 3;
    const std::vector<float> alpha{0.1f, -0.5f, 2.0f}, gamma{1.5f, 0.5f, -1.0f}, beta{0.1f, 0.2f, 0.3f},
        mean{0.2f, -0.1f, 0.0f}, variance{0.5f, 2.0f, 1.0f}, dense = noise(size_t(c * 2), 4), denseBias{0.5f, -0.5f};
    using Pixel = std::vector<float>;
    struct Case {
        std::string className;
        json config;
        std::vector<std::tuple<std::string, std::vector<int64_t>, std::vector<float>>> weights;
        std::function<Pixel(const Pixel&)> want;
    };
    auto each = [](std::function<float(float, size_t)> f) {
        return [f](const Pixel& p) {
            Pixel out(p.size());
            for (size_t i = 0; i < p.size(); ++i) out[i] = f(p[i], i);
            return out;
        };
    };
    std::vector<Case> cases;
    for (const auto& [name, f] : kActivations)
        cases.push_back({"Activation", {{"activation", name}}, {}, each([f = f](float x, size_t) { return f(x); })});
    cases.push_back({"Activation", {{"activation", "softmax"}}, {}, [](const Pixel& p) {
                         float sum = 0;
                         for (float v : p) sum += std::exp(v);
                         Pixel out;
                         for (float v : p) out.push_back(std::exp(v) / sum);
                         return out;
                     }});
    cases.push_back({"LeakyReLU", {{"alpha", 0.1}}, {}, each([](float x, size_t) { return x > 0 ? x : 0.1f * x; })});
    cases.push_back(
        {"ReLU", {{"max_value", 0.5}}, {}, each([](float x, size_t) { return std::clamp(x, 0.0f, 0.5f); })});
    cases.push_back({"PReLU", {{"shared_axes", {1, 2}}}, {{"alpha", {1, 1, c}, alpha}}, each([&](float x, size_t i) {
                         return x > 0 ? x : alpha[i] * x;
                     })});
    cases.push_back({"MultiplyBeta", {{"beta", 0.2}}, {}, each([](float x, size_t) { return 0.2f * x; })});
    cases.push_back(
        {"Rescaling", {{"scale", 2.0}, {"offset", -0.5}}, {}, each([](float x, size_t) { return 2 * x - 0.5f; })});
    cases.push_back(
        {"BatchNormalization",
         {{"axis", -1}, {"epsilon", 0.01}},
         {{"gamma", {c}, gamma}, {"beta", {c}, beta}, {"moving_mean", {c}, mean}, {"moving_variance", {c}, variance}},
         each([&](float x, size_t i) { return (x - mean[i]) / std::sqrt(variance[i] + 0.01f) * gamma[i] + beta[i]; })});
    cases.push_back({"Dense",
                     {{"units", 2}, {"activation", "relu"}},
                     {{"kernel", {c, 2}, dense}, {"bias", {2}, denseBias}},
                     [&](const Pixel& p) {
                         Pixel out(2);
                         for (size_t o = 0; o < 2; ++o) {
                             float s = denseBias[o];
                             for (size_t i = 0; i < size_t(c); ++i) s += p[i] * dense[i * 2 + o];
                             out[o] = std::max(s, 0.0f);
                         }
                         return out;
                     }});
    cases.push_back({"Dropout", {{"rate", 0.5}}, {}, each([](float x, size_t) { return x; })});

    TempDir dir;
    const Image x(3, 4, c, noise(size_t(3 * 4 * c), 5));
    for (const Case& k : cases) {
        SCOPED_TRACE(k.className + " " + k.config.dump());
        TinyModel m(c);
        const std::string out = m.add(k.className, k.config, {"x"}, "layer");
        for (const auto& [suffix, shape, values] : k.weights) m.weight("layer/" + suffix, shape, values);
        const Image got = runImage(m.write(dir / "pixel", {out}), x);
        Image want(x.h, x.w, got.c);
        for (int64_t y = 0; y < x.h; ++y)
            for (int64_t xx = 0; xx < x.w; ++xx) {
                Pixel p;
                for (int64_t i = 0; i < c; ++i) p.push_back(x.at(y, xx, i));
                const Pixel q = k.want(p);
                ASSERT_EQ(int64_t(q.size()), got.c);
                for (int64_t i = 0; i < got.c; ++i) want.at(y, xx, i) = q[size_t(i)];
            }
        expectNear(got, want, 1e-5f, k.className);
    }
}

// Layers that move pixels: resampling, depth to space, pools, padding and cropping.
TEST(LayersImport, SpatialLayers) {
    using Ref = std::function<Image(const Image&)>;
    auto pool = [](int64_t k, int64_t s, bool same, bool max) {
        return [=](const Image& x) {
            const int64_t oh = same ? (x.h + s - 1) / s : (x.h - k) / s + 1,
                          ow = same ? (x.w + s - 1) / s : (x.w - k) / s + 1;
            const int64_t top = same ? std::max<int64_t>((oh - 1) * s + k - x.h, 0) / 2 : 0;
            const int64_t left = same ? std::max<int64_t>((ow - 1) * s + k - x.w, 0) / 2 : 0;
            Image y(oh, ow, x.c);
            for (int64_t oy = 0; oy < oh; ++oy)
                for (int64_t ox = 0; ox < ow; ++ox)
                    for (int64_t c = 0; c < x.c; ++c) {
                        float acc = max ? -INFINITY : 0.0f;
                        int n = 0;
                        for (int64_t i = 0; i < k; ++i)
                            for (int64_t j = 0; j < k; ++j) {
                                const int64_t sy = oy * s + i - top, sx = ox * s + j - left;
                                if (sy < 0 || sy >= x.h || sx < 0 || sx >= x.w) continue;
                                acc = max ? std::max(acc, x.at(sy, sx, c)) : acc + x.at(sy, sx, c);
                                ++n;
                            }
                        y.at(oy, ox, c) = max ? acc : acc / float(n);  // padding does not count
                    }
            return y;
        };
    };
    // TensorFlow.js resizes without half-pixel centres: source = destination / size.
    auto upsample = [](int64_t sh, int64_t sw, bool bilinear) {
        return [=](const Image& x) {
            Image y(x.h * sh, x.w * sw, x.c);
            for (int64_t oy = 0; oy < y.h; ++oy)
                for (int64_t ox = 0; ox < y.w; ++ox)
                    for (int64_t c = 0; c < x.c; ++c) {
                        const float fy = float(oy) / float(sh), fx = float(ox) / float(sw);
                        const int64_t y0 = int64_t(fy), x0 = int64_t(fx);
                        if (!bilinear) {
                            y.at(oy, ox, c) = x.at(y0, x0, c);
                            continue;
                        }
                        const int64_t y1 = std::min(y0 + 1, x.h - 1), x1 = std::min(x0 + 1, x.w - 1);
                        const float dy = fy - float(y0), dx = fx - float(x0);
                        const float top = x.at(y0, x0, c) * (1 - dx) + x.at(y0, x1, c) * dx;
                        const float bottom = x.at(y1, x0, c) * (1 - dx) + x.at(y1, x1, c) * dx;
                        y.at(oy, ox, c) = top * (1 - dy) + bottom * dy;
                    }
            return y;
        };
    };
    // tf.depthToSpace in N,H,W,C: output (h*k + i, w*k + j, c) reads channel (i*k + j) * C' + c.
    auto depthToSpace = [](int64_t k) {
        return [=](const Image& x) {
            Image y(x.h * k, x.w * k, x.c / (k * k));
            for (int64_t h = 0; h < x.h; ++h)
                for (int64_t w = 0; w < x.w; ++w)
                    for (int64_t i = 0; i < k; ++i)
                        for (int64_t j = 0; j < k; ++j)
                            for (int64_t c = 0; c < y.c; ++c)
                                y.at(h * k + i, w * k + j, c) = x.at(h, w, (i * k + j) * y.c + c);
            return y;
        };
    };
    auto crop = [](int64_t t, int64_t b, int64_t l, int64_t r, bool pad) {
        return [=](const Image& x) {
            const int64_t sign = pad ? 1 : -1;
            Image y(x.h + sign * (t + b), x.w + sign * (l + r), x.c);
            for (int64_t oy = 0; oy < y.h; ++oy)
                for (int64_t ox = 0; ox < y.w; ++ox)
                    for (int64_t c = 0; c < x.c; ++c) {
                        const int64_t sy = oy - sign * t, sx = ox - sign * l;
                        y.at(oy, ox, c) = sy >= 0 && sy < x.h && sx >= 0 && sx < x.w ? x.at(sy, sx, c) : 0.0f;
                    }
            return y;
        };
    };
    const struct {
        std::string className;
        json config;
        int64_t channels;
        Ref want;
    } cases[] = {
        {"UpSampling2D", {{"size", {2, 2}}, {"interpolation", "nearest"}}, 3, upsample(2, 2, false)},
        {"UpSampling2D", {{"size", {3, 2}}, {"interpolation", "bilinear"}}, 3, upsample(3, 2, true)},
        {"PixelShuffle2x", {{"scale", 2}}, 12, depthToSpace(2)},
        {"PixelShuffle4x", json::object(), 16, depthToSpace(4)},
        {"MaxPooling2D", {{"pool_size", {2, 2}}, {"padding", "valid"}}, 2, pool(2, 2, false, true)},
        {"MaxPooling2D", {{"pool_size", {3, 3}}, {"strides", {2, 2}}, {"padding", "same"}}, 2, pool(3, 2, true, true)},
        {"AveragePooling2D", {{"pool_size", {2, 2}}, {"padding", "same"}}, 2, pool(2, 2, true, false)},
        {"AveragePooling2D",
         {{"pool_size", {3, 3}}, {"strides", {1, 1}}, {"padding", "same"}},
         2,
         pool(3, 1, true, false)},
        {"ZeroPadding2D", {{"padding", {{1, 2}, {0, 3}}}}, 2, crop(1, 2, 0, 3, true)},
        {"ZeroPadding2D", {{"padding", 1}}, 2, crop(1, 1, 1, 1, true)},
        {"Cropping2D", {{"cropping", {{1, 0}, {2, 1}}}}, 2, crop(1, 0, 2, 1, false)},
    };
    TempDir dir;
    for (const auto& k : cases) {
        SCOPED_TRACE(k.className + " " + k.config.dump());
        TinyModel m(k.channels);
        const std::string out = m.add(k.className, k.config, {"x"});
        const Image x(5, 7, k.channels, noise(size_t(5 * 7 * k.channels), 6));
        expectNear(runImage(m.write(dir / "spatial", {out}), x), k.want(x), 1e-5f, k.className);
    }
}

// Merges and the functional graph: several consumers, n-ary merges, axes mapped to N,C,H,W,
// a shared layer applied twice, and the element order of Flatten and Reshape.
TEST(LayersImport, MergesAndGraphStructure) {
    TempDir dir;
    const int64_t c = 2;
    const Image x(3, 4, c, noise(size_t(3 * 4 * c), 7));
    auto relu = [](float v) { return std::max(v, 0.0f); };
    const struct {
        std::string className;
        json config;
        std::function<float(float, float)> want;  // of x and relu(x), per element; nullptr: concatenation
    } merges[] = {
        {"Add", json::object(), [&](float a, float b) { return a + b + 0.2f * a; }},
        {"Subtract", json::object(), [](float a, float b) { return a - b; }},
        {"Multiply", json::object(), [&](float a, float b) { return a * b * 0.2f * a; }},
        {"Average", json::object(), [&](float a, float b) { return (a + b + 0.2f * a) / 3; }},
        {"Maximum", json::object(),
         [&](float a, float b) {
             return std::max({a, b, 0.2f * a});
         }},
        {"Minimum", json::object(),
         [&](float a, float b) {
             return std::min({a, b, 0.2f * a});
         }},
    };
    for (const auto& k : merges) {
        SCOPED_TRACE(k.className);
        TinyModel m(c);
        const std::string r = m.add("Activation", {{"activation", "relu"}}, {"x"});
        std::vector<std::string> from{"x", r};
        if (k.className != "Subtract") from.push_back(m.add("MultiplyBeta", json::object(), {"x"}));
        Image want = x;
        for (float& v : want.v) v = k.want(v, relu(v));
        expectNear(runImage(m.write(dir / "merge", {m.add(k.className, k.config, from)}), x), want, 1e-5f, k.className);
    }

    // Concatenation along channels (-1 and 3) and along width (2).
    for (int axis : {-1, 3, 2}) {
        SCOPED_TRACE("Concatenate axis " + std::to_string(axis));
        TinyModel m(c);
        const std::string r = m.add("Activation", {{"activation", "relu"}}, {"x"});
        const Image got = runImage(m.write(dir / "concat", {m.add("Concatenate", {{"axis", axis}}, {"x", r, "x"})}), x);
        const bool width = axis == 2;
        Image want(x.h, width ? 3 * x.w : x.w, width ? x.c : 3 * x.c);
        for (int64_t y = 0; y < x.h; ++y)
            for (int64_t xx = 0; xx < x.w; ++xx)
                for (int64_t i = 0; i < x.c; ++i)
                    for (int64_t piece = 0; piece < 3; ++piece) {
                        const float v = piece == 1 ? relu(x.at(y, xx, i)) : x.at(y, xx, i);
                        if (width) want.at(y, piece * x.w + xx, i) = v;
                        else want.at(y, xx, piece * x.c + i) = v;
                    }
        expectNear(got, want, 0.0f, "concat");
    }

    // A layer applied twice (two inbound nodes), the second time to its own first output.
    {
        TinyModel m(c);
        const std::string shared = m.add("Rescaling", {{"scale", 2.0}, {"offset", -0.25}}, {"x"}, "twice");
        const fs::path file = m.write(dir / "shared", {shared});
        json doc = json::parse(std::ifstream(file));
        json& list = doc["modelTopology"]["model_config"]["config"]["layers"];
        list[1]["inbound_nodes"].push_back({{"twice", 0, 0, json::object()}});
        doc["modelTopology"]["model_config"]["config"]["output_layers"] = {{"twice", 1, 0}};
        std::ofstream(file) << doc.dump();
        Image want = x;
        for (float& v : want.v) v = 2 * (2 * v - 0.25f) - 0.25f;
        expectNear(runImage(file, x), want, 1e-5f, "shared layer");
    }

    // Flatten and Dense read N,H,W,C order; Reshape back to 4-D restores the layout.
    {
        TinyModel m(c);
        const std::string flat = m.add("Flatten", json::object(), {"x"});
        const std::vector<float> kernel = noise(size_t(x.v.size() * 2), 8);
        const std::string d = m.add("Dense", {{"units", 2}, {"use_bias", false}}, {flat}, "fc");
        m.weight("fc/kernel", {int64_t(x.v.size()), 2}, kernel);
        const std::string back = m.add("Reshape", {{"target_shape", {x.w, x.h, c}}}, {"x"});
        const fs::path file = m.write(dir / "flatten", {d, back});
        tfjs::ImportOptions fixed;
        fixed.inputShapes["x"] = {1, x.h, x.w, c};
        const std::vector<Tensor> out = importAndRun(file, {x.nchw()}, fixed);
        ASSERT_EQ(out.size(), 2u);
        ASSERT_EQ(out[0].shape, (std::vector<int64_t>{1, 2}));
        for (size_t o = 0; o < 2; ++o) {
            float s = 0;
            for (size_t i = 0; i < x.v.size(); ++i) s += x.v[i] * kernel[i * 2 + o];
            EXPECT_NEAR(out[0].values[o], s, 1e-4f) << o;
        }
        expectNear(Image::fromNchw(out[1]), Image(x.w, x.h, c, x.v), 0.0f, "reshape");
    }
}

TEST(LayersImport, SignaturesAndSequentialModels) {
    TempDir dir;
    // Functional: 4-D inputs and outputs in N,C,H,W with free extents; fixed by --input-shape.
    TinyModel m(12, "LR");
    const std::string up = m.add("UpSampling2D", {{"size", {2, 2}}}, {"LR"}, "UP");
    const std::string shuffle = m.add("PixelShuffle2x", {{"scale", 2}}, {up}, "SR");
    const tfjs::Model functional = tfjs::readModel(m.write(dir / "f", {shuffle, up}));
    const std::vector<tfjs::TensorSignature> in = tfjs::networkInputs(functional),
                                             out = tfjs::networkOutputs(functional);
    ASSERT_EQ(in.size(), 1u);
    EXPECT_EQ(std::tuple(in[0].name, in[0].shape), std::tuple(std::string("LR"), std::vector<int64_t>{-1, 12, -1, -1}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(std::tuple(out[0].name, out[0].shape),
              std::tuple(std::string("SR"), std::vector<int64_t>{-1, 3, -1, -1}));
    tfjs::ImportOptions fixed;
    fixed.inputShapes["LR"] = {1, 5, 6, 3};
    EXPECT_THROW(tfjs::networkOutputs(functional, fixed), tfjs::ImportError);  // 3 channels, not 12
    fixed.inputShapes["LR"] = {1, 5, 6, 12};
    const std::vector<tfjs::TensorSignature> fixedOut = tfjs::networkOutputs(functional, fixed);
    EXPECT_EQ(std::tuple(fixedOut[0].shape, fixedOut[1].shape),
              std::tuple(std::vector<int64_t>{1, 3, 20, 24}, std::vector<int64_t>{1, 12, 10, 12}));

    // Sequential: the first layer carries the input's shape; the input is named after it.
    const json pad{{"class_name", "ZeroPadding2D"},
                   {"config", {{"name", "pad"}, {"padding", 1}, {"batch_input_shape", {nullptr, 4, 4, 1}}}}};
    const json gmax{{"class_name", "GlobalMaxPooling2D"}, {"config", {{"name", "gmax"}}}};
    json sequential{{"format", "layers-model"}, {"weightsManifest", json::array()}};
    sequential["modelTopology"] = {{"class_name", "Sequential"},
                                   {"config", {{"name", "seq"}, {"layers", {pad, gmax}}}}};
    fs::create_directories(dir / "s");
    std::ofstream(dir / "s" / "model.json") << sequential.dump();
    const tfjs::Model seq = tfjs::readModel(dir / "s" / "model.json");
    EXPECT_EQ(tfjs::networkInputs(seq).at(0).name, "pad_input");
    EXPECT_EQ(tfjs::networkOutputs(seq).at(0).shape, (std::vector<int64_t>{-1, 1}));
    const Tensor result =
        importAndRun(dir / "s" / "model.json", {makeTensor(ML::F32, {1, 1, 4, 4}, noise(16, 9))}).at(0);
    const std::vector<float> values = noise(16, 9);
    EXPECT_EQ(result.values, std::vector<float>{std::max(0.0f, *std::max_element(values.begin(), values.end()))});
}

TEST(LayersImport, RefusalsNameTheLayer) {
    TempDir dir;
    const struct {
        std::string className;
        json config;
        bool withWeights;
        std::vector<std::string> fragments;
    } cases[] = {
        {"SeparableConv2D", json::object(), false, {"layer odd", "unknown layer class SeparableConv2D"}},
        {"Lambda", {{"function", "x"}}, false, {"layer odd", "Lambda layers hold Python code"}},
        {"Conv2D", {{"filters", 2}, {"kernel_size", {1, 1}}}, false, {"layer odd", "no weight named odd/kernel"}},
        {"Conv2D",
         {{"filters", 2}, {"kernel_size", {1, 1}}, {"data_format", "channels_first"}},
         true,
         {"odd", "channels_first"}},
        {"Activation", {{"activation", "sparkle"}}, false, {"odd", "unknown activation sparkle"}},
        {"UpSampling2D", {{"interpolation", "bicubic"}}, false, {"odd", "bicubic"}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.className);
        TinyModel m(2);
        const std::string out = m.add(k.className, k.config, {"x"}, "odd");
        if (k.withWeights) m.weight("odd/kernel", {1, 1, 2, 2}, noise(4, 1)), m.weight("odd/bias", {2}, {0, 0});
        const tfjs::Model model = tfjs::readModel(m.write(dir / "bad", {out}));
        try {
            tfjs::importModel(model);
            ADD_FAILURE() << "imported";
        } catch (const tfjs::ImportError& e) {
            for (const std::string& f : k.fragments)
                EXPECT_NE(std::string(e.what()).find(f), std::string::npos) << e.what();
        }
    }
}

namespace {

// A stand-in for an x2 upscaler in 0..255: nearest x2, then y = 2x - 25.5 (0.1 of the range).
fs::path writeTinyUpscaler(const fs::path& dir) {
    TinyModel m(3, "LR");
    const std::string up = m.add("UpSampling2D", {{"size", {2, 2}}}, {"LR"});
    return m.write(dir, {m.add("Rescaling", {{"scale", 2.0}, {"offset", -25.5}}, {up}, "SR")});
}

}  // namespace

TEST(Adapters, RangeCastsSizesAndTheDownscaleStep) {
    TempDir dir;
    const fs::path net = writeTinyUpscaler(dir / "net");
    const int64_t h = 5, w = 7;
    std::vector<float> values(size_t(3 * h * w));
    for (size_t i = 0; i < values.size(); ++i) values[i] = float(i % 11) / 10.0f;  // 0..1
    const Tensor image = makeTensor(ML::F16, {1, 3, h, w}, values);
    auto at = [&](int64_t c, int64_t y, int64_t x) { return image.values[size_t((c * h + y) * w + x)]; };
    auto clip = [](float v) { return std::clamp(v, 0.0f, 1.0f); };

    tfjs::Adapter fixedSize = tfjs::adapterNamed("esrgan-thick-x2");
    fixedSize.fixedHeight = 6, fixedSize.fixedWidth = 4;
    const struct {
        const tfjs::Adapter* adapter;
        int64_t outH, outW;
        std::function<float(int64_t, int64_t, int64_t)> want;  // of channel and output pixel; nullptr: shape only
    } cases[] = {
        // 0..255 network: 2v - 0.1 in 0..1 units, clipped at both ends.
        {&tfjs::adapterNamed("esrgan-medium-x2"), 2 * h, 2 * w,
         [&](int64_t c, int64_t y, int64_t x) { return clip(2 * at(c, y / 2, x / 2) - 0.1f); }},
        // 0..1 network: 2v - 25.5 is below 0 everywhere.
        {&tfjs::adapterNamed("esrgan-thick-x2"), 2 * h, 2 * w, [](int64_t, int64_t, int64_t) { return 0.0f; }},
        // Same size: the area average of each 2x2 block (what lies inside at odd edges), upscaled.
        {&tfjs::adapterNamed("esrgan-medium-enhance"), h, w,
         [&](int64_t c, int64_t y, int64_t x) {
             float sum = 0;
             int n = 0;
             for (int64_t by = y / 2 * 2; by < std::min(y / 2 * 2 + 2, h); ++by)
                 for (int64_t bx = x / 2 * 2; bx < std::min(x / 2 * 2 + 2, w); ++bx) sum += at(c, by, bx), ++n;
             return clip(2 * sum / float(n) - 0.1f);
         }},
        {&fixedSize, 2 * h, 2 * w, nullptr},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.adapter->name);
        const Tensor out = importAndRun(net, {image}, {}, k.adapter).at(0);
        EXPECT_EQ(out.type, ML::F16);
        ASSERT_EQ(out.shape, (std::vector<int64_t>{1, 3, k.outH, k.outW}));
        if (!k.want) continue;
        for (int64_t c = 0; c < 3; ++c)
            for (int64_t y = 0; y < k.outH; ++y)
                for (int64_t x = 0; x < k.outW; ++x)
                    ASSERT_NEAR(out.values[size_t((c * k.outH + y) * k.outW + x)], k.want(c, y, x), 2e-3f)
                        << c << " " << y << " " << x;
    }

    // Through a fixed execution size a flat image stays flat.
    const Tensor grey = makeTensor(ML::F16, {1, 3, h, w}, std::vector<float>(values.size(), 0.25f));
    for (const float want : {0.0f, 0.4f}) {  // 0..1, then 0..255 network range
        fixedSize.inHigh = fixedSize.outHigh = want == 0 ? 1 : 255;
        const Tensor flat = importAndRun(net, {grey}, {}, &fixedSize).at(0);
        for (float v : flat.values) ASSERT_NEAR(v, want, 1e-3f);
    }

    // An enhancement whose scale does not undo its downscale is refused.
    tfjs::Adapter wrong = tfjs::adapterNamed("esrgan-medium-enhance");
    wrong.scale = 4;
    EXPECT_THROW(tfjs::importAdapted(tfjs::readModel(net), wrong), tfjs::ImportError);
    EXPECT_THROW(tfjs::adapterNamed("esrgan-huge-x9"), tfjs::ImportError);
}

TEST(RealNetworks, GplNetworksOnlyWhenNamedAndMissingOnesAreNotes) {
    TempDir dir;
    writeTinyUpscaler(dir / "nets" / "up" / "x2");
    const std::vector<tfjs::NetworkSource> sources{
        {"free_2x", "free@1.0.0", "up", "x2/model.json", "MIT", "somewhere", "esrgan-medium-x2", false},
        {"gpl_2x", "gpl@1.0.0", "up", "x2/model.json", "GPL-3.0", "elsewhere", "esrgan-thick-x2", true},
        {"absent_4x", "free@1.0.0", "up", "x4/model.json", "MIT", "somewhere", "esrgan-medium-x4", false},
    };
    const struct {
        std::vector<std::string> with;
        std::vector<std::string> written;
        size_t notes;
    } cases[] = {
        {{}, {"free_2x.onnx"}, 2},
        {{"gpl_2x"}, {"free_2x.onnx", "gpl_2x.onnx"}, 1},
    };
    for (const auto& k : cases) {
        TempDir out;
        const tfjs::RealNetworks real = tfjs::writeRealNetworks(out.path(), dir / "nets", sources, k.with);
        EXPECT_EQ(listFiles(out.path()), k.written);
        EXPECT_EQ(real.notes.size(), k.notes);
        EXPECT_EQ(real.records.size(), k.written.size());
    }
    const tfjs::RealNetworks none = tfjs::writeRealNetworks(dir / "out", dir / "nowhere", sources, {});
    EXPECT_TRUE(none.records.empty());
    ASSERT_EQ(none.notes.size(), 1u);
    EXPECT_NE(none.notes[0].find("Real networks skipped"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "out"));
}

TEST(RealNetworks, DefaultPackageListsImportedNetworksAndStandIns) {
    TempDir dir;
    const std::string networks = (dir / "nets").string();
    writeTinyUpscaler(dir / "nets" / "esrgan-medium" / "models" / "x2");
    ::setenv("QUILLON_NETWORKS", (dir / "elsewhere").c_str(), 1);  // --networks wins
    CliResult r = runPkg("default \"" + (dir / "pkg").string() + "\" --networks \"" + networks + "\"");
    ASSERT_EQ(r.code, 0) << r.err;
    // x4 and thick are missing: a note each.
    EXPECT_NE(r.out.find("Skipped esrgan_thick_4x: "), std::string::npos) << r.out;
    const json index = json::parse(ML::readBinaryFile(dir / "pkg" / "models" / "networks.json"))["models"];
    std::map<std::string, std::string> kinds;
    for (const auto& [id, record] : index.items()) {
        kinds[id] = record["kind"];
        EXPECT_TRUE(fs::is_regular_file(dir / "pkg" / "models" / record["onnx"].get<std::string>())) << id;
    }
    EXPECT_EQ(kinds, (std::map<std::string, std::string>{{"depth_standin", "stand-in"},
                                                         {"depth_standin_colorize", "stand-in"},
                                                         {"esrgan_medium_2x", "imported"},
                                                         {"esrgan_medium_enhance", "imported"}}));
    EXPECT_EQ(index["esrgan_medium_2x"]["source"], "@upscalerjs/esrgan-medium@1.0.0");
    EXPECT_EQ(index["esrgan_medium_2x"]["file"], "models/x2/model.json");
    EXPECT_EQ(index["esrgan_medium_2x"]["licence"], "MIT");
    const std::string md = ML::readBinaryFile(dir / "pkg" / "models" / "NETWORKS.md");
    for (const char* row :
         {"| `esrgan_medium_2x.onnx` | imported | @upscalerjs/esrgan-medium@1.0.0 | models/x2/model.json | MIT",
          "| `depth_standin.onnx` | stand-in | quillon-pkg |"})
        EXPECT_NE(md.find(row), std::string::npos) << row;
    // The package's upscaler runs the network behind the adapter.
    const Tensor grey = makeTensor(ML::F16, {1, 3, 2, 2}, std::vector<float>(12, 0.5f));
    const Tensor upscaled = Network(dir / "pkg" / "models" / "esrgan_medium_2x.onnx").run1({grey});
    for (float v : upscaled.values) EXPECT_NEAR(v, 0.9f, 1e-3f);

    // No networks folder (from the environment): one line, stand-ins only.
    r = runPkg("default \"" + (dir / "bare").string() + "\"");
    ::unsetenv("QUILLON_NETWORKS");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Real networks skipped: " + (dir / "elsewhere").string() + " does not exist", 0), 0u)
        << r.out;
    EXPECT_EQ(json::parse(ML::readBinaryFile(dir / "bare" / "models" / "networks.json"))["models"].size(), 2u);
}

TEST(RealNetworks, ImportCommandWritesAFileOrNothing) {
    TempDir dir;
    const std::string net = "\"" + writeTinyUpscaler(dir / "net").string() + "\"";
    TinyModel odd(3);
    const std::string oddNet =
        "\"" + odd.write(dir / "odd", {odd.add("Conv3D", json::object(), {"x"}, "c3")}).string() + "\"";
    const std::string out = "\"" + (dir / "out" / "net.onnx").string() + "\"";
    fs::create_directories(dir / "out");
    const struct {
        std::string args;
        int code;
        std::string fragment;
    } failures[] = {
        {"import \"" + (dir / "missing.json").string() + "\" -o " + out, 1, "Cannot open model file"},
        {"import " + net + " -o " + out + " --adapter esrgan-huge", 2, "unknown adapter 'esrgan-huge'"},
        {"import " + net + " -o " + out + " --input-shape LR=1x8x0x3", 2, "--input-shape LR=1x8x0x3"},
        {"import " + net + " -o " + out + " --input-shape LR", 2, "NAME=VALUE"},
        {"import " + net + " -o " + out + " --const LR=a", 2, "'a' is not a number"},
        {"import " + net, 2, "-o <out.onnx>"},
        {"import " + oddNet + " -o " + out, 1, "layer c3 has unknown layer class Conv3D"},
        {"import " + net + " -o " + out + " --input-shape LR=1x8x8x4", 1, "input LR has extent 3"},
        {"default \"" + (dir / "pkg").string() + "\" --with rvm", 2, "--with rvm: no such network"},
    };
    for (const auto& k : failures) {
        SCOPED_TRACE(k.args);
        const CliResult r = runPkg(k.args);
        EXPECT_EQ(r.code, k.code);
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(k.fragment), std::string::npos) << r.err;
        EXPECT_TRUE(listFiles(dir / "out").empty());
    }
    EXPECT_FALSE(fs::exists(dir / "pkg"));

    const CliResult r = runPkg("import " + net + " -o " + out + " --adapter esrgan-medium-x2");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(listFiles(dir / "out"), std::vector<std::string>{"net.onnx"});
    const Tensor grey = makeTensor(ML::F16, {1, 3, 2, 2}, std::vector<float>(12, 0.25f));
    EXPECT_EQ(Network(dir / "out" / "net.onnx").run1({grey}).shape, (std::vector<int64_t>{1, 3, 4, 4}));
    ASSERT_EQ(runPkg("import " + net + " -o " + out + " --input-shape LR=1x4x6x3").code, 0);
    const Tensor plain =
        Network(dir / "out" / "net.onnx").run1({makeTensor(ML::F32, {1, 3, 4, 6}, std::vector<float>(72, 100))});
    EXPECT_EQ(plain.shape, (std::vector<int64_t>{1, 3, 8, 12}));
    EXPECT_EQ(plain.values[0], 174.5f);
}
