// The layers-model importer, the adapters and the package's real networks: tiny Keras models
// written in the test, imported, run with ONNX Runtime and compared with values computed here in
// TensorFlow's N,H,W,C order.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>

#include "Import/ImportError.h"
#include "Import/NetworkSources.h"
#include "TinyTfjs.h"
#include "Util/ML_FileUtil.h"

using namespace tooltest;

namespace {

float sigmoid(float x) { return 1.0f / (1.0f + std::exp(-x)); }

// The activations the tests use: those that ONNX lacks (composed) or has with other defaults, and
// the ones of the convolution cases. (Names mapped one to one to an ONNX op are left out.)
const std::map<std::string, std::function<float(float)>> kActivations{
    {"linear", [](float x) { return x; }},
    {"relu", [](float x) { return std::max(x, 0.0f); }},
    {"sigmoid", sigmoid},
    {"tanh", [](float x) { return std::tanh(x); }},
    {"relu6", [](float x) { return std::clamp(x, 0.0f, 6.0f); }},
    {"hard_sigmoid", [](float x) { return std::clamp(0.2f * x + 0.5f, 0.0f, 1.0f); }},
    {"swish", [](float x) { return x * sigmoid(x); }},
    {"gelu", [](float x) { return 0.5f * x * (1 + std::erf(x / std::sqrt(2.0f))); }},
};

// A stand-in for an x2 upscaler in 0..255: nearest x2, then y = 2x - 25.5 (0.1 of the range).
fs::path writeTinyUpscaler(const fs::path& dir) {
    Layers m(3, "LR");
    m.output(m.add("Rescaling", {{"scale", 2.0}, {"offset", -25.5}},
                   {m.add("UpSampling2D", {{"size", {2, 2}}}, {"LR"})}, "SR"));
    return m.write(dir);
}

}  // namespace

// Catches "same" pads put before the odd one (even kernels, odd extents at stride 2, extents known
// at import or not), dilation dropped, the kernel permuted wrongly (H,W,I,O; depthwise H,W,C,M with
// a multiplier), the bias or the activation dropped.
TEST(LayersImport, ConvolutionsMatchTensorFlowForPaddingStridesDilationAndActivations) {
    const struct {
        std::string padding, activation;
        int64_t kernel, stride, dilation, height, width;
        bool bias, fixedSize, depthwise;  // fixedSize: extents given at import; depthwise: multiplier 2
    } cases[] = {
        {"valid", "linear", 3, 1, 1, 5, 6, false, false, false}, {"same", "sigmoid", 3, 2, 1, 7, 5, true, false, false},
        {"same", "tanh", 2, 2, 1, 7, 6, true, true, false},      {"same", "linear", 3, 1, 2, 6, 7, true, false, false},
        {"valid", "relu", 3, 2, 1, 8, 7, true, true, false},     {"same", "relu", 2, 1, 1, 5, 6, true, false, true},
        {"valid", "linear", 2, 2, 1, 7, 6, false, false, true},
    };
    for (const auto& k : cases) {
        const std::string what = k.padding + " " + k.activation + " kernel " + std::to_string(k.kernel) + " stride " +
                                 std::to_string(k.stride) + " dilation " + std::to_string(k.dilation) +
                                 (k.depthwise ? " depthwise" : "");
        const int64_t ci = 3, perInput = k.depthwise ? 2 : 4, co = k.depthwise ? ci * 2 : 4;
        const Tensor w = makeTensor(ML::F32, {k.kernel, k.kernel, ci, perInput},
                                    noise(size_t(k.kernel * k.kernel * ci * perInput), 1));
        const std::vector<float> bias = noise(size_t(co), 2);
        Layers m(ci);
        json config{{"kernel_size", {k.kernel, k.kernel}}, {"strides", {k.stride, k.stride}},
                    {"padding", k.padding},                {"dilation_rate", {k.dilation, k.dilation}},
                    {"activation", k.activation},          {"use_bias", k.bias}};
        config[k.depthwise ? "depth_multiplier" : "filters"] = perInput;
        m.output(m.add(k.depthwise ? "DepthwiseConv2D" : "Conv2D", config, {"x"}, "F_0"));
        m.weight(k.depthwise ? "F_0/depthwise_kernel" : "F_0/kernel", w.shape, w.values);
        if (k.bias) m.weight("F_0/bias", {co}, bias);
        tf::ImportOptions options;
        if (k.fixedSize) options.inputShapes["x"] = {1, k.height, k.width, ci};
        const Tensor x = noiseTensor({1, k.height, k.width, ci}, 3);
        const Pads pads = k.padding == "same" ? samePads(x.shape, k.kernel, k.kernel, k.stride, k.dilation) : Pads{};
        Tensor want = convolution(x, w, k.stride, k.dilation, pads, k.depthwise);
        for (size_t i = 0; i < want.values.size(); ++i)
            want.values[i] = kActivations.at(k.activation)(want.values[i] + (k.bias ? bias[i % size_t(co)] : 0.0f));
        expectClose(m.run({x}, options).outputs.at(0), want, what, 1e-5f);
    }
}

// Layers that map each pixel's channels on their own. Catches each activation, per-channel weight
// and Dense kernel mapped or laid out wrongly (the channels are the second axis in the network).
TEST(LayersImport, PerPixelLayers) {
    const int64_t c = 3;
    const std::vector<float> alpha{0.1f, -0.5f, 2.0f}, gamma{1.5f, 0.5f, -1.0f}, beta{0.1f, 0.2f, 0.3f},
        mean{0.2f, -0.1f, 0.0f}, variance{0.5f, 2.0f, 1.0f}, dense = noise(size_t(c * 2), 4), denseBias{0.5f, -0.5f};
    using Weights = std::vector<std::tuple<std::string, std::vector<int64_t>, std::vector<float>>>;
    using Ref = std::function<float(const float* pixel, size_t out)>;  // output channel of an input pixel
    struct Case {
        std::string className;
        json config;
        Weights weights;
        Ref want;
        int64_t channels = c;  // of the output
    };
    std::vector<Case> cases = {
        {"Activation", {{"activation", "softmax"}}, {},
         [](const float* p, size_t i) { return std::exp(p[i]) / (std::exp(p[0]) + std::exp(p[1]) + std::exp(p[2])); }},
        {"LeakyReLU", {{"alpha", 0.1}}, {}, [](const float* p, size_t i) { return p[i] > 0 ? p[i] : 0.1f * p[i]; }},
        {"ReLU", {{"max_value", 0.5}}, {}, [](const float* p, size_t i) { return std::clamp(p[i], 0.0f, 0.5f); }},
        {"PReLU", {{"shared_axes", {1, 2}}}, {{"alpha", {1, 1, c}, alpha}},
         [&](const float* p, size_t i) { return p[i] > 0 ? p[i] : alpha[i] * p[i]; }},
        {"Rescaling", {{"scale", 2.0}, {"offset", -0.5}}, {}, [](const float* p, size_t i) { return 2 * p[i] - 0.5f; }},
        {"BatchNormalization", {{"axis", -1}, {"epsilon", 0.01}},
         {{"gamma", {c}, gamma}, {"beta", {c}, beta}, {"moving_mean", {c}, mean}, {"moving_variance", {c}, variance}},
         [&](const float* p, size_t i) {
             return (p[i] - mean[i]) / std::sqrt(variance[i] + 0.01f) * gamma[i] + beta[i];
         }},
        {"Dense", {{"units", 2}, {"activation", "relu"}}, {{"kernel", {c, 2}, dense}, {"bias", {2}, denseBias}},
         [&](const float* p, size_t o) {
             return std::max(denseBias[o] + p[0] * dense[o] + p[1] * dense[2 + o] + p[2] * dense[4 + o], 0.0f);
         },
         2},
    };
    for (const auto& [name, activation] : kActivations) {
        auto f = activation;
        cases.push_back({"Activation", {{"activation", name}}, {}, [f](const float* p, size_t i) { return f(p[i]); }});
    }
    std::vector<float> values = noise(3 * 4 * c, 5);
    for (float& v : values) v *= 8;  // past the bends of relu6 and hard_sigmoid
    const Tensor x = makeTensor(ML::F32, {1, 3, 4, c}, values);
    for (const Case& k : cases) {
        Layers m(c);
        m.output(m.add(k.className, k.config, {"x"}, "layer"));
        for (const auto& [suffix, shape, values] : k.weights) m.weight("layer/" + suffix, shape, values);
        const Tensor want = generate({1, 3, 4, k.channels}, [&](int64_t, int64_t y, int64_t xx, int64_t o) {
            return k.want(&x.values[size_t((y * 4 + xx) * c)], size_t(o));
        });
        expectClose(m.run({x}).outputs.at(0), want, k.className + " " + k.config.dump(), 1e-5f);
    }
}

// Layers that move pixels. Catches resizing with half-pixel centres or sizes swapped, PixelShuffle
// in CRD order or with the wrong block, pool pads before the odd one or counted in the average,
// padding and cropping edges swapped.
TEST(LayersImport, SpatialLayers) {
    const Tensor x = noiseTensor({1, 5, 7, 16}, 6);
    auto shifted = [&](int64_t h, int64_t w, int64_t dy, int64_t dx) {  // x moved down dy, right dx
        return generate({1, h, w, 16},
                        [&](int64_t n, int64_t y, int64_t xx, int64_t c) { return at(x, n, y - dy, xx - dx, c); });
    };
    auto same = [&](int64_t k, int64_t s) { return samePads(x.shape, k, k, s); };
    const struct {
        std::string className;
        json config;
        Tensor want;
    } cases[] = {
        {"UpSampling2D", {{"size", {2, 2}}, {"interpolation", "nearest"}}, resize(x, 10, 14, "asymmetric", false)},
        {"UpSampling2D", {{"size", {3, 2}}, {"interpolation", "bilinear"}}, resize(x, 15, 14, "asymmetric", true)},
        {"PixelShuffle2x", {{"scale", 2}}, depthToSpace(x, 2)},
        {"PixelShuffle4x", json::object(), depthToSpace(x, 4)},
        {"MaxPooling2D", {{"pool_size", {2, 2}}, {"padding", "valid"}}, pool(x, 2, 2, 2, {}, true)},
        {"MaxPooling2D", {{"pool_size", {3, 3}}, {"strides", {2, 2}}, {"padding", "same"}},
         pool(x, 3, 3, 2, same(3, 2), true)},
        {"AveragePooling2D", {{"pool_size", {2, 2}}, {"padding", "same"}}, pool(x, 2, 2, 2, same(2, 2), false)},
        {"AveragePooling2D", {{"pool_size", 3}, {"strides", 1}, {"padding", "same"}},
         pool(x, 3, 3, 1, same(3, 1), false)},
        {"ZeroPadding2D", {{"padding", {{1, 2}, {0, 3}}}}, shifted(8, 10, 1, 0)},
        {"Cropping2D", {{"cropping", {{1, 0}, {2, 1}}}}, shifted(4, 4, -1, -2)},
    };
    for (const auto& k : cases) {
        Layers m(16);
        m.output(m.add(k.className, k.config, {"x"}));
        expectClose(m.run({x}).outputs.at(0), k.want, k.className + " " + k.config.dump(), 1e-5f);
    }
}

// Merges and the functional graph: several consumers, n-ary merges, axes mapped to N,C,H,W, a
// shared layer applied twice, the element order of Flatten and Reshape. Catches merges mapped to
// the wrong op or taking two of three inputs, the concatenation axis not remapped, the inbound node
// index ignored, Flatten in N,C,H,W order.
TEST(LayersImport, MergesAndGraphStructure) {
    const int64_t c = 2;
    const Tensor x = noiseTensor({1, 3, 4, c}, 7);
    auto relu = [](float v) { return std::max(v, 0.0f); };
    const struct {
        std::string className;
        std::function<float(float, float)> want;  // of x and relu(x), per element; the third input is 0.5 x
    } merges[] = {
        {"Add", [](float a, float b) { return a + b + 0.5f * a; }},
        {"Subtract", [](float a, float b) { return a - b; }},
        {"Multiply", [](float a, float b) { return a * b * 0.5f * a; }},
        {"Average", [](float a, float b) { return (a + b + 0.5f * a) / 3; }},
    };
    for (const auto& k : merges) {
        Layers m(c);
        std::vector<std::string> from{"x", m.add("Activation", {{"activation", "relu"}}, {"x"})};
        if (k.className != "Subtract") from.push_back(m.add("MultiplyBeta", {{"beta", 0.5}}, {"x"}));
        m.output(m.add(k.className, json::object(), from));
        std::vector<float> want;
        for (float v : x.values) want.push_back(k.want(v, relu(v)));
        expectClose(m.run({x}).outputs.at(0), x.shape, want, k.className, 1e-5f);
    }
    // Concatenation of x, relu(x), x along channels (-1 and 3) and along width (2).
    for (int axis : {-1, 3, 2}) {
        Layers m(c);
        m.output(
            m.add("Concatenate", {{"axis", axis}}, {"x", m.add("Activation", {{"activation", "relu"}}, {"x"}), "x"}));
        const bool width = axis == 2;
        const Tensor want =
            generate({1, 3, width ? 12 : 4, width ? c : 3 * c}, [&](int64_t n, int64_t y, int64_t xx, int64_t i) {
                const int64_t piece = width ? xx / 4 : i / c;
                const float v = at(x, n, y, width ? xx % 4 : xx, width ? i : i % c);
                return piece == 1 ? relu(v) : v;
            });
        expectClose(m.run({x}).outputs.at(0), want, "concatenate on axis " + std::to_string(axis), 0.0f);
    }
    // A layer applied twice (two inbound nodes), the second time to its own first output.
    {
        Layers m(c);
        const std::string twice = m.add("Rescaling", {{"scale", 2.0}, {"offset", -0.25}}, {"x"}, "twice");
        m.layers[1]["inbound_nodes"].push_back({{twice, 0, 0, json::object()}});
        m.output(twice, 1);
        std::vector<float> want;
        for (float v : x.values) want.push_back(2 * (2 * v - 0.25f) - 0.25f);
        expectClose(m.run({x}).outputs.at(0), x.shape, want, "shared layer", 1e-5f);
    }
    // Flatten and Dense read N,H,W,C order; Reshape back to 4-D restores the layout.
    Layers m(c);
    const std::vector<float> kernel = noise(x.values.size() * 2, 8);
    m.output(m.add("Dense", {{"units", 2}, {"use_bias", false}}, {m.add("Flatten", json::object(), {"x"})}, "fc"));
    m.weight("fc/kernel", {int64_t(x.values.size()), 2}, kernel);
    m.output(m.add("Reshape", {{"target_shape", {4, 3, c}}}, {"x"}));
    tf::ImportOptions fixed;
    fixed.inputShapes["x"] = x.shape;
    const Imported r = m.run({x}, fixed);
    std::vector<float> dense(2, 0.0f);
    for (size_t i = 0; i < x.values.size(); ++i)
        for (size_t o = 0; o < 2; ++o) dense[o] += x.values[i] * kernel[i * 2 + o];
    expectClose(r.outputs.at(0), {1, 2}, dense, "flatten and dense");
    expectClose(r.outputs.at(1), {1, 4, 3, c}, x.values, "reshape", 0.0f);
}

TEST(LayersImport, SignaturesAndSequentialModels) {
    // Functional: 4-D inputs and outputs in N,C,H,W with free extents; fixed by --input-shape.
    TempDir dir;
    Layers m(12, "LR");
    const std::string up = m.add("UpSampling2D", {{"size", {2, 2}}}, {"LR"}, "UP");
    m.output(m.add("PixelShuffle2x", {{"scale", 2}}, {up}, "SR"));
    m.output(up);
    const tf::Model functional = tf::readModel(m.write(dir / "f"));
    const std::vector<tf::TensorSignature> in = tf::networkInputs(functional), out = tf::networkOutputs(functional);
    ASSERT_EQ(in.size(), 1u);
    EXPECT_EQ(std::tuple(in[0].name, in[0].shape), std::tuple(std::string("LR"), std::vector<int64_t>{-1, 12, -1, -1}));
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(std::tuple(out[0].name, out[0].shape),
              std::tuple(std::string("SR"), std::vector<int64_t>{-1, 3, -1, -1}));
    tf::ImportOptions fixed;
    fixed.inputShapes["LR"] = {1, 5, 6, 3};
    EXPECT_THROW(tf::networkOutputs(functional, fixed), tf::ImportError);  // 3 channels, not 12
    fixed.inputShapes["LR"] = {1, 5, 6, 12};
    const std::vector<tf::TensorSignature> fixedOut = tf::networkOutputs(functional, fixed);
    EXPECT_EQ(std::tuple(fixedOut[0].shape, fixedOut[1].shape),
              std::tuple(std::vector<int64_t>{1, 3, 20, 24}, std::vector<int64_t>{1, 12, 10, 12}));

    // Sequential: the first layer carries the input's shape; the input is named after it.
    const json pad{{"class_name", "ZeroPadding2D"},
                   {"config", {{"name", "pad"}, {"padding", 1}, {"batch_input_shape", {nullptr, 4, 4, 1}}}}};
    const json gmax{{"class_name", "GlobalMaxPooling2D"}, {"config", {{"name", "gmax"}}}};
    const json sequential{
        {"format", "layers-model"},
        {"weightsManifest", json::array()},
        {"modelTopology", {{"class_name", "Sequential"}, {"config", {{"name", "s"}, {"layers", {pad, gmax}}}}}}};
    std::ofstream(dir / "model.json") << sequential.dump();
    const tf::Model seq = tf::readModel(dir / "model.json");
    EXPECT_EQ(tf::networkInputs(seq).at(0).name, "pad_input");
    EXPECT_EQ(tf::networkOutputs(seq).at(0).shape, (std::vector<int64_t>{-1, 1}));
    const std::vector<float> values = noise(16, 9);  // the padding's zeros count when all are negative
    const float most = *std::max_element(values.begin(), values.end());
    expectClose(importAndRun(dir / "model.json", {makeTensor(ML::F32, {1, 4, 4, 1}, values)}).outputs.at(0), {1, 1},
                {std::max(0.0f, most)}, "sequential", 0.0f);
}

TEST(LayersImport, RefusalsNameTheLayer) {
    const struct {
        std::string className;
        json config;
        std::vector<std::string> fragments;
    } cases[] = {
        {"SeparableConv2D", json::object(), {"layer odd", "unknown layer class SeparableConv2D"}},
        {"Lambda", {{"function", "x"}}, {"layer odd", "Lambda layers hold Python code"}},
        {"Conv2D", {{"filters", 2}, {"kernel_size", {1, 1}}}, {"layer odd", "no weight named odd/kernel"}},
        {"Conv2D",
         {{"filters", 2}, {"kernel_size", {1, 1}}, {"data_format", "channels_first"}},
         {"odd", "channels_first"}},
        {"Activation", {{"activation", "sparkle"}}, {"odd", "unknown activation sparkle"}},
        {"UpSampling2D", {{"interpolation", "bicubic"}}, {"odd", "bicubic"}},
        {"LeakyReLU", {{"alpha", 1e300}}, {"odd", "alpha is out of range"}},
        {"ReLU", {{"negative_slope", "steep"}}, {"odd", "negative_slope is not a number"}},
        {"Concatenate", {{"axis", 1.5}}, {"odd", "axis is not an integer"}},
    };
    for (const auto& k : cases) {
        Layers m(2);
        m.output(m.add(k.className, k.config, {"x"}, "odd"));
        if (k.config.contains("data_format"))
            m.weight("odd/kernel", {1, 1, 2, 2}, noise(4, 1)), m.weight("odd/bias", {2}, {0, 0});
        const std::string error = m.importError();
        for (const std::string& f : k.fragments)
            EXPECT_NE(error.find(f), std::string::npos) << k.className << ": " << error;
    }
}

// Catches the network's input or output range not scaled (0..255 networks), no clipping, the
// area downscale before an enhancement missing or averaging padding at odd edges, the fixed
// execution size not resized back, and the family's type or size not kept.
TEST(Adapters, RangeCastsSizesAndTheDownscaleStep) {
    TempDir dir;
    const fs::path net = writeTinyUpscaler(dir / "net");
    const int64_t h = 5, w = 7;
    std::vector<float> values(size_t(3 * h * w));
    for (size_t i = 0; i < values.size(); ++i) values[i] = float(i % 11) / 10.0f;  // 0..1
    const Tensor image = makeTensor(ML::F16, {1, h, w, 3}, values);
    auto clip = [](float v) { return std::clamp(v, 0.0f, 1.0f); };
    tf::Adapter fixedSize = tf::adapterNamed("esrgan-thick-x2");
    fixedSize.fixedHeight = 6, fixedSize.fixedWidth = 4;
    using Ref = std::function<float(int64_t, int64_t, int64_t)>;  // of output pixel and channel
    const struct {
        const tf::Adapter* adapter;
        int64_t outH, outW;
        Ref want;  // nullptr: shape only
    } cases[] = {
        // 0..255 network: 2v - 0.1 in 0..1 units, clipped at both ends.
        {&tf::adapterNamed("esrgan-medium-x2"), 2 * h, 2 * w,
         [&](int64_t y, int64_t x, int64_t c) { return clip(2 * at(image, 0, y / 2, x / 2, c) - 0.1f); }},
        // 0..1 network: 2v - 25.5 is below 0 everywhere.
        {&tf::adapterNamed("esrgan-thick-x2"), 2 * h, 2 * w, [](int64_t, int64_t, int64_t) { return 0.0f; }},
        // Same size: the area average of each 2x2 block (what lies inside at odd edges), upscaled.
        {&tf::adapterNamed("esrgan-medium-enhance"), h, w,
         [&](int64_t y, int64_t x, int64_t c) {
             float sum = 0;
             int n = 0;
             for (int64_t by = y / 2 * 2; by < std::min(y / 2 * 2 + 2, h); ++by)
                 for (int64_t bx = x / 2 * 2; bx < std::min(x / 2 * 2 + 2, w); ++bx)
                     sum += at(image, 0, by, bx, c), ++n;
             return clip(2 * sum / float(n) - 0.1f);
         }},
        {&fixedSize, 2 * h, 2 * w, nullptr},
    };
    for (const auto& k : cases) {
        const Tensor out = importAndRun(net, {image}, {}, k.adapter).outputs.at(0);
        EXPECT_EQ(out.type, ML::F16) << k.adapter->name;
        if (k.want)
            expectClose(out,
                        generate({1, k.outH, k.outW, 3},
                                 [&](int64_t, int64_t y, int64_t x, int64_t c) { return k.want(y, x, c); }),
                        k.adapter->name, 2e-3f);
        else
            EXPECT_EQ(out.shape, (std::vector<int64_t>{1, k.outH, k.outW, 3})) << k.adapter->name;
    }
    // Through a fixed execution size a flat image stays flat.
    const Tensor grey = makeTensor(ML::F16, {1, h, w, 3}, std::vector<float>(values.size(), 0.25f));
    for (const float want : {0.0f, 0.4f}) {  // 0..1, then 0..255 network range
        fixedSize.inHigh = fixedSize.outHigh = want == 0 ? 1 : 255;
        const Tensor flat = importAndRun(net, {grey}, {}, &fixedSize).outputs.at(0);
        for (float v : flat.values) ASSERT_NEAR(v, want, 1e-3f);
    }
    // An enhancement whose scale does not undo its downscale is refused.
    tf::Adapter wrong = tf::adapterNamed("esrgan-medium-enhance");
    wrong.scale = 4;
    EXPECT_THROW(tf::importAdapted(tf::readModel(net), wrong), tf::ImportError);
    EXPECT_THROW(tf::adapterNamed("esrgan-huge-x9"), tf::ImportError);
}

TEST(RealNetworks, GplNetworksOnlyWhenNamedAndMissingOnesAreNotes) {
    TempDir dir;
    writeTinyUpscaler(dir / "nets" / "up" / "x2");
    const std::vector<tf::NetworkSource> sources{
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
        const tf::RealNetworks real = tf::writeRealNetworks(out.path(), dir / "nets", sources, k.with);
        EXPECT_EQ(listFiles(out.path()), k.written);
        EXPECT_EQ(real.notes.size(), k.notes);
        EXPECT_EQ(real.records.size(), k.written.size());
    }
    const tf::RealNetworks none = tf::writeRealNetworks(dir / "out", dir / "nowhere", sources, {});
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
    // The upscalers found are imported; the rest are the 17 stand-ins and helpers of a bare package.
    for (const auto& [id, record] : index.items()) {
        EXPECT_EQ(record["kind"] == "imported", id.rfind("esrgan_medium_", 0) == 0) << id;
        EXPECT_TRUE(fs::is_regular_file(dir / "pkg" / "models" / record["onnx"].get<std::string>())) << id;
    }
    for (const char* helper : {"mask_blur", "kalman_cv", "warp_affine_crop"}) EXPECT_EQ(index[helper]["kind"], "helper");
    EXPECT_EQ(index["depth_standin"]["kind"], "stand-in");
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
    for (float v : Network(dir / "pkg" / "models" / "esrgan_medium_2x.onnx").run1({grey}).values)
        EXPECT_NEAR(v, 0.9f, 1e-3f);

    // No networks folder (from the environment): one line, stand-ins only.
    r = runPkg("default \"" + (dir / "bare").string() + "\"");
    ::unsetenv("QUILLON_NETWORKS");
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out.rfind("Real networks skipped: " + (dir / "elsewhere").string() + " does not exist", 0), 0u)
        << r.out;
    // Without real networks the package lists the same stand-ins and helpers, and nothing imported.
    std::set<std::string> expected;
    for (const auto& [name, entry] : index.items())
        if (entry["kind"] != "imported") expected.insert(name);
    const json bareIndex = json::parse(ML::readBinaryFile(dir / "bare" / "models" / "networks.json"))["models"];
    std::set<std::string> bare;
    for (const auto& [name, entry] : bareIndex.items()) bare.insert(name);
    EXPECT_EQ(bare, expected);
    EXPECT_LT(bare.size(), index.size());
}

TEST(RealNetworks, ImportCommandWritesAFileOrNothing) {
    TempDir dir;
    const std::string net = "\"" + writeTinyUpscaler(dir / "net").string() + "\"";
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
        {"default \"" + (dir / "pkg").string() + "\" --with rvm", 2, "--with rvm: no such network"},
    };
    for (const auto& k : failures) {
        const CliResult r = runPkg(k.args);
        EXPECT_EQ(r.code, k.code) << k.args;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
        EXPECT_NE(r.err.find(k.fragment), std::string::npos) << r.err;
        EXPECT_TRUE(listFiles(dir / "out").empty()) << k.args;
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
