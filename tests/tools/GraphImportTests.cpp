// The importer on graph models: tiny TensorFlow.js graphs written in the test, imported, run with
// ONNX Runtime and compared with values worked out here (by hand or with TinyTfjs's references).
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

#include "TinyTfjs.h"

using namespace tooltest;

namespace {

// Runs node "y" of a graph whose input "x" has the shape of x.
Tensor runY(const Tensor& x, const std::function<void(Graph&)>& build) {
    Graph g;
    g.input("x", x.shape);
    build(g);
    g.output("y");
    return g.run({x}).outputs.at(0);
}

}  // namespace

// Catches SAME pads put before the odd one (odd extents, stride 2, known or only at run time),
// explicit pads read in the wrong order, dilation dropped, filters permuted wrongly (H,W,I,O and
// depthwise H,W,C,M with a multiplier), a fused op dropped or fed the wrong weight, halves widened.
TEST(GraphImport, ConvolutionsMatchTensorFlowsArithmetic) {
    struct Case {
        std::string what, op;
        std::vector<int64_t> x, w;  // input N,H,W,C; filter
        int64_t stride, dilation;
        std::string padding;
        std::vector<std::string> fused;
        bool freeSize = false, half = false;
        Pads pads = {};  // EXPLICIT's
    };
    const std::vector<Case> cases = {
        {"SAME, stride 2, odd extents", "Conv2D", {1, 7, 5, 3}, {4, 2, 3, 2}, 2, 1, "SAME", {}},
        {"SAME, stride 2, extents known at run time", "Conv2D", {1, 7, 5, 3}, {4, 2, 3, 2}, 2, 1, "SAME", {}, true},
        {"VALID, dilated", "Conv2D", {1, 7, 6, 2}, {3, 3, 2, 3}, 1, 2, "VALID", {}},
        {"EXPLICIT", "Conv2D", {1, 4, 4, 2}, {3, 3, 2, 2}, 1, 1, "EXPLICIT", {}, false, false, {1, 2, 0, 1}},
        {"bias and Relu6, halves", "_FusedConv2D", {1, 5, 5, 3}, {3, 3, 3, 4}, 1, 1, "SAME", {"BiasAdd", "Relu6"},
         false, true},
        {"bias and Prelu", "_FusedConv2D", {1, 4, 4, 2}, {1, 1, 2, 3}, 1, 1, "VALID", {"BiasAdd", "Prelu"}},
        {"bias and LeakyRelu", "_FusedConv2D", {1, 4, 4, 2}, {1, 1, 2, 3}, 1, 1, "VALID", {"BiasAdd", "LeakyRelu"}},
        {"batch norm and Relu, even filter", "_FusedConv2D", {1, 4, 3, 2}, {2, 2, 2, 3}, 1, 1, "SAME",
         {"FusedBatchNorm", "Relu"}},
        {"depthwise, multiplier 2, SAME, stride 2, odd, bias", "FusedDepthwiseConv2dNative", {1, 7, 5, 3},
         {3, 3, 3, 2}, 2, 1, "SAME", {"BiasAdd"}},
    };
    for (const Case& k : cases) {
        const bool depthwise = k.op.find("Depthwise") != std::string::npos;
        const int64_t channels = depthwise ? k.w[2] * k.w[3] : k.w[3];
        const Tensor x = noiseTensor(k.x, 1),
                     w = makeTensor(ML::F32, k.w, iota(k.w[0] * k.w[1] * k.w[2] * k.w[3], -1.0f, 0.125f));
        const std::vector<float> bias = iota(channels, -0.5f, 0.25f), alpha = iota(channels, 0.1f, 0.2f),
                                 scale = iota(channels, 0.5f, 0.5f), offset = iota(channels, 1.0f, -0.75f),
                                 mean = iota(channels, -0.2f, 0.3f), variance = iota(channels, 0.5f, 1.0f);
        Graph g;
        g.input("x", k.freeSize ? std::vector<int64_t>{1, -1, -1, k.x[3]} : k.x);
        std::vector<std::string> in{"x", g.weight("w", k.w, w.values, k.half)};
        for (const std::string& op : k.fused) {
            if (op == "BiasAdd") in.push_back(g.weight("bias", {channels}, bias));
            if (op == "Prelu") in.push_back(g.weight("alpha", {channels}, alpha));
            if (op == "FusedBatchNorm")
                for (const auto& [name, v] : {std::pair{"s", scale}, {"o", offset}, {"m", mean}, {"v", variance}})
                    in.push_back(g.weight(name, {channels}, v));
        }
        json attr = {{"strides", Ints({1, k.stride, k.stride, 1})},
                     {"dilations", Ints({1, k.dilation, k.dilation, 1})},
                     {"padding", S(k.padding)},
                     {"leakyrelu_alpha", F(0.1)},
                     {"epsilon", F(0.001)},
                     {"fused_ops", Strs(k.fused)}};
        const Pads& p = k.pads;
        if (k.padding == "EXPLICIT") attr["explicit_paddings"] = Ints({0, 0, p[0], p[1], p[2], p[3], 0, 0});
        g.node("y", k.op, in, attr);
        g.output("y");

        const Pads pads = k.padding == "SAME" ? samePads(k.x, k.w[0], k.w[1], k.stride, k.dilation) : p;
        Tensor want = convolution(x, w, k.stride, k.dilation, pads, depthwise);
        for (size_t i = 0; i < want.values.size(); ++i) {
            const size_t c = i % size_t(channels);
            float& v = want.values[i];
            for (const std::string& op : k.fused) {
                if (op == "BiasAdd") v += bias[c];
                if (op == "Relu") v = std::max(v, 0.0f);
                if (op == "Relu6") v = std::min(std::max(v, 0.0f), 6.0f);
                if (op == "Prelu") v = v > 0 ? v : v * alpha[c];
                if (op == "LeakyRelu") v = v > 0 ? v : v * 0.1f;
                if (op == "FusedBatchNorm") v = (v - mean[c]) * scale[c] / std::sqrt(variance[c] + 0.001f) + offset[c];
            }
        }
        const Imported r = g.run({x});
        expectClose(r.outputs.at(0), want, k.what);
        EXPECT_EQ(r.count("Transpose"), 0) << k.what;
        bool halves = false;
        for (const auto& t : r.proto.graph().initializer()) halves |= t.data_type() == onnx::TensorProto::FLOAT16;
        EXPECT_EQ(halves, k.half) << k.what;
    }
}

// TensorFlow's dilated convolution: pad to a multiple of the block, convolve the phases, put them
// back and crop. Catches block or pads misread, the pattern not folded into one dilated Conv.
TEST(GraphImport, SpaceToBatchAroundAConvolutionIsADilatedConvolution) {
    const Tensor x = noiseTensor({1, 7, 7, 2}, 2), w = makeTensor(ML::F32, {3, 3, 2, 1}, iota(18, -1.0f, 0.125f));
    Graph g;
    g.input("x", x.shape);
    g.node("s2b", "SpaceToBatchND", {"x", g.vec("block", {2, 2}), g.ints("pads", {2, 2}, {0, 1, 0, 1})});
    g.node("conv", "DepthwiseConv2dNative", {"s2b", g.weight("w", w.shape, w.values)},
           {{"strides", Ints({1, 1, 1, 1})}, {"padding", S("VALID")}});
    g.node("y", "BatchToSpaceND", {"conv", g.vec("block2", {2, 2}), g.ints("crops", {2, 2}, {0, 1, 0, 1})});
    g.output("y");
    const Imported r = g.run({x});
    expectClose(r.outputs.at(0), convolution(x, w, 1, 2, {}, true), "dilated");
    EXPECT_EQ(r.count("Conv"), 1);
}

// Conv2DBackpropInput, SAME, stride 2, to 5x5: the convolution it inverts pads 1 on top and left.
// Catches the filter's H,W,out,in not transposed for ConvTranspose, pads or output size wrong.
TEST(GraphImport, TransposedConvolutionScattersTheInput) {
    const Tensor x = noiseTensor({1, 3, 3, 2}, 3), w = makeTensor(ML::F32, {3, 3, 1, 2}, iota(18, -1.0f, 0.125f));
    std::vector<float> want(25, 0.0f);
    for (int64_t y = 0; y < 3; ++y)
        for (int64_t xx = 0; xx < 3; ++xx)
            for (int64_t ky = 0; ky < 3; ++ky)
                for (int64_t kx = 0; kx < 3; ++kx) {
                    const int64_t oy = y * 2 - 1 + ky, ox = xx * 2 - 1 + kx;
                    for (int64_t i = 0; i < 2 && oy >= 0 && ox >= 0 && oy < 5 && ox < 5; ++i)
                        want[size_t(oy * 5 + ox)] += at(x, 0, y, xx, i) * w.values[size_t((ky * 3 + kx) * 2 + i)];
                }
    const Tensor y = runY(x, [&](Graph& g) {
        g.node("y", "Conv2DBackpropInput", {g.vec("size", {1, 5, 5, 1}), g.weight("w", w.shape, w.values), "x"},
               {{"strides", Ints({1, 2, 2, 1})}, {"padding", S("SAME")}});
    });
    expectClose(y, {1, 5, 5, 1}, want, "transposed");
}

// Catches pooling pads on the wrong side or counted in the average, H and W swapped, and each
// coordinate mode of both resizes mapped to the wrong ONNX mode or rounding.
TEST(GraphImport, PoolingAndResizingFollowTensorFlowsCoordinates) {
    const Tensor x = noiseTensor({1, 5, 7, 2}, 4);
    const Pads same = samePads(x.shape, 3, 2, 2);  // W: 0 before, 1 after
    const json pool = {{"ksize", Ints({1, 3, 2, 1})}, {"strides", Ints({1, 2, 2, 1})}, {"padding", S("SAME")}};
    const json half = {{"half_pixel_centers", B(true)}}, align = {{"align_corners", B(true)}};
    const struct {
        std::string op;
        json attr;
        Tensor want;
    } cases[] = {
        {"MaxPool", pool, tooltest::pool(x, 3, 2, 2, same, true)},
        {"AvgPool", pool, tooltest::pool(x, 3, 2, 2, same, false)},
        {"ResizeBilinear", json::object(), resize(x, 8, 4, "asymmetric", true)},
        {"ResizeBilinear", half, resize(x, 8, 4, "half_pixel", true)},
        {"ResizeBilinear", align, resize(x, 8, 4, "align_corners", true)},
        {"ResizeNearestNeighbor", json::object(), resize(x, 8, 4, "asymmetric", false)},
        {"ResizeNearestNeighbor", half, resize(x, 8, 4, "half_pixel", false)},
        {"ResizeNearestNeighbor", align, resize(x, 8, 4, "align_corners", false)},
    };
    for (const auto& k : cases) {
        const Tensor y = runY(x, [&](Graph& g) {
            std::vector<std::string> in{"x"};
            if (k.op != "MaxPool" && k.op != "AvgPool") in.push_back(g.vec("size", {8, 4}));
            g.node("y", k.op, in, k.attr);
        });
        expectClose(y, k.want, k.op + " " + k.attr.dump());
    }
}

// x arrives as N,C,H,W; its operands are constants of every broadcasting shape (brought to its
// layout without a Transpose) or a second input (one Transpose). Catches operands broadcast along
// the wrong axis and the ops ONNX lacks composed wrongly. (Ops mapped one to one are left out.)
TEST(GraphImport, ElementwiseOpsBroadcastInChannelsFirstLayout) {
    const Tensor x = noiseTensor({1, 3, 4, 2}, 5), y = makeTensor(ML::F32, {4, 2}, iota(8, 0.5f, 0.25f));
    enum Operand { PerChannel, PerRowAndChannel, Scalar, Input };
    const struct {
        std::string op;
        Operand operand;
        std::function<float(float, float)> f;
    } cases[] = {
        {"AddV2", PerChannel, [](float a, float b) { return a + b; }},
        {"Sub", PerRowAndChannel, [](float a, float b) { return a - b; }},
        {"Mul", Scalar, [](float a, float b) { return a * b; }},
        {"RealDiv", Input, [](float a, float b) { return a / b; }},
        {"SquaredDifference", Input, [](float a, float b) { return (a - b) * (a - b); }},
        {"FloorDiv", PerChannel, [](float a, float b) { return std::floor(a / b); }},
        {"FloorMod", PerRowAndChannel, [](float a, float b) { return a - std::floor(a / b) * b; }},
        {"Prelu", PerChannel, [](float a, float b) { return a > 0 ? a : a * b; }},
        {"Atan2", PerChannel, [](float a, float b) { return std::atan2(a, b); }},
    };
    for (const auto& k : cases) {
        Graph g;
        g.input("x", x.shape);
        const std::string b = k.operand == PerChannel         ? g.weight("b", {2}, {0.75f, -1.5f})
                              : k.operand == PerRowAndChannel ? g.weight("b", {4, 2}, y.values)
                              : k.operand == Scalar           ? g.weight("b", {}, {2.0f})
                                                              : g.input("b", {4, 2});
        g.output(g.node("z", k.op, {"x", b}));
        const Imported r = g.run(k.operand == Input ? std::vector<Tensor>{x, y} : std::vector<Tensor>{x});
        const Tensor want = generate(x.shape, [&](int64_t n, int64_t h, int64_t w, int64_t c) {
            const float bv = k.operand == PerChannel ? (c ? -1.5f : 0.75f)
                             : k.operand == Scalar   ? 2.0f
                                                     : y.values[size_t(w * 2 + c)];
            return k.f(at(x, n, h, w, c), bv);
        });
        expectClose(r.outputs.at(0), want, k.op);
        EXPECT_EQ(r.count("Transpose"), k.operand == Input) << k.op;
    }
}

// Catches the unary ops ONNX lacks composed wrongly (ops mapped one to one are left out), an
// attribute dropped, and Select or LogicalAnd taking the wrong branch.
TEST(GraphImport, UnaryOpsAndSelection) {
    const Tensor x = noiseTensor({1, 2, 3, 2}, 6);
    const json toFloat = {{"SrcT", {{"type", "DT_BOOL"}}}, {"DstT", {{"type", "DT_FLOAT"}}}};
    const struct {
        std::string what;
        std::function<void(Graph&)> build;  // node "y" from input "x"
        std::function<float(float)> f;
    } cases[] = {
        {"Relu6 of 8x (past 6)",
         [](Graph& g) { g.node("y", "Relu6", {g.node("p", "Mul", {"x", g.weight("k", {}, {8})})}); },
         [](float v) { return std::min(std::max(v * 8, 0.0f), 6.0f); }},
        {"LeakyRelu", [](Graph& g) { g.node("y", "LeakyRelu", {"x"}, {{"alpha", F(0.3)}}); },
         [](float v) { return v > 0 ? v : 0.3f * v; }},
        {"Square", [](Graph& g) { g.node("y", "Square", {"x"}); }, [](float v) { return v * v; }},
        {"Rsqrt of |x| + 1",
         [](Graph& g) { g.node("y", "Rsqrt", {g.node("p", "AddV2", {g.node("a", "Abs", {"x"}), g.weight("k", {}, {1})})}); },
         [](float v) { return 1 / std::sqrt(std::fabs(v) + 1); }},
        {"SelectV2(x > 0.25, x, -x)",
         [](Graph& g) {
             const std::string big = g.node("big", "Greater", {"x", g.weight("k", {}, {0.25f})});
             g.node("y", "SelectV2", {big, "x", g.node("n", "Neg", {"x"})});
         },
         [](float v) { return v > 0.25f ? v : -v; }},
        {"LogicalAnd(x > -0.5, x < 0.5) cast to float",
         [&](Graph& g) {
             const std::string gt = g.node("gt", "Greater", {"x", g.weight("lo", {}, {-0.5f})}),
                               lt = g.node("lt", "Less", {"x", g.weight("hi", {}, {0.5f})});
             g.node("y", "Cast", {g.node("and", "LogicalAnd", {gt, lt})}, toFloat);
         },
         [](float v) { return float(v > -0.5f && v < 0.5f); }},
    };
    for (const auto& k : cases) {
        std::vector<float> want;
        for (float v : x.values) want.push_back(k.f(v));
        expectClose(runY(x, k.build), x.shape, want, k.what);
    }
}

// x(0, h, w, c) = (h*3 + w)*4 + c for a 1x2x3x4 input: every expected element is worked out from
// its indices. Catches axes not remapped to N,C,H,W (concat, split, pad, tile, gather, the slice
// masks), pads read in the wrong order, and the DepthToSpace order. (Reshape: below, with shapes known at run time.)
TEST(GraphImport, ShapeOpsMoveTheRightElements) {
    const Tensor x = makeTensor(ML::F32, {1, 2, 3, 4}, iota(24));
    auto ix = [](int64_t h, int64_t w, int64_t c) { return float((h * 3 + w) * 4 + c); };
    auto cat = [&](int64_t h, int64_t w, int64_t c) { return c < 4 ? ix(h, w, c) : -ix(h, w, c - 4); };  // x, -x
    auto of = [&](std::vector<int64_t> shape, std::function<float(int64_t, int64_t, int64_t)> f) {
        return generate(shape, [&](int64_t, int64_t h, int64_t w, int64_t c) { return f(h, w, c); }).values;
    };
    using Names = std::vector<std::string>;
    using Build = std::function<void(Graph&)>;  // makes node "y" from input "x"
    auto strided = [](std::vector<int32_t> b, std::vector<int32_t> e, std::vector<int32_t> s, json masks) -> Build {
        return [=](Graph& g) {
            const int64_t n = int64_t(b.size());
            g.node("y", "StridedSlice", {"x", g.ints("b", {n}, b), g.ints("e", {n}, e), g.ints("s", {n}, s)}, masks);
        };
    };
    auto op = [](const std::string& type, std::function<Names(Graph&)> inputs, json attr = json::object()) -> Build {
        return [=](Graph& g) { g.node("y", type, inputs(g), attr); };
    };
    auto secondOf = [](const std::string& type, std::function<Names(Graph&)> inputs) -> Build {
        return [=](Graph& g) {
            g.node("pieces", type, inputs(g), {{"num_split", I(2)}});
            g.node("y", "Identity", {"pieces:1"});
        };
    };
    auto withNeg = [](Graph& g) { return Names{"x", g.node("n", "Neg", {"x"}), g.scalar("a", -1)}; };
    const struct {
        std::string what;
        Build build;
        std::vector<int64_t> shape;
        std::vector<float> want;
    } cases[] = {
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
        {"Transpose to N,C,H,W", op("Transpose", [](Graph& g) { return Names{"x", g.vec("p", {0, 3, 1, 2})}; }),
         {1, 4, 2, 3}, of({1, 4, 2, 3}, [&](int64_t c, int64_t h, int64_t w) { return ix(h, w, c); })},
        {"ConcatV2 on the channels", op("ConcatV2", withNeg), {1, 2, 3, 8}, of({1, 2, 3, 8}, cat)},
        {"DepthToSpace by 2 of 8 channels",
         op("DepthToSpace", [&](Graph& g) { return Names{g.node("c", "ConcatV2", withNeg(g))}; },
            {{"block_size", I(2)}}),
         {1, 4, 6, 2}, depthToSpace(makeTensor(ML::F32, {1, 2, 3, 8}, of({1, 2, 3, 8}, cat)), 2).values},
        {"Unpack the channels, Pack two",
         [](Graph& g) {
             g.node("u", "Unpack", {"x"}, {{"axis", I(3)}, {"num", I(4)}});
             g.node("y", "Pack", {"u:3", "u"}, {{"axis", I(0)}});
         },
         {2, 1, 2, 3}, {3, 7, 11, 15, 19, 23, 0, 4, 8, 12, 16, 20}},
        {"SplitV [1, -1] on W, second piece",
         secondOf("SplitV", [](Graph& g) { return Names{"x", g.vec("sz", {1, -1}), g.scalar("a", 2)}; }),
         {1, 2, 2, 4}, of({1, 2, 2, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w + 1, c); })},
        {"Split in two on C, second piece", secondOf("Split", [](Graph& g) { return Names{g.scalar("a", 3), "x"}; }),
         {1, 2, 3, 2}, of({1, 2, 3, 2}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w, c + 2); })},
        {"PadV2 with 9, H before, W after",
         op("PadV2",
            [](Graph& g) { return Names{"x", g.ints("p", {4, 2}, {0, 0, 1, 0, 0, 1, 0, 0}), g.weight("k", {}, {9})}; }),
         {1, 3, 4, 4},
         of({1, 3, 4, 4}, [&](int64_t h, int64_t w, int64_t c) { return h == 0 || w == 3 ? 9 : ix(h - 1, w, c); })},
        {"MirrorPad W by 1, reflecting",
         op("MirrorPad", [](Graph& g) { return Names{"x", g.ints("p", {4, 2}, {0, 0, 0, 0, 1, 1, 0, 0})}; },
            {{"mode", S("REFLECT")}}),
         {1, 2, 5, 4}, of({1, 2, 5, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w % 4 ? w - 1 : 1, c); })},
        {"Tile W twice", op("Tile", [](Graph& g) { return Names{"x", g.vec("m", {1, 1, 2, 1})}; }), {1, 2, 6, 4},
         of({1, 2, 6, 4}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w % 3, c); })},
        {"ExpandDims, Squeeze",
         op("Squeeze", [](Graph& g) { return Names{g.node("e", "ExpandDims", {"x", g.scalar("a", -1)})}; },
            {{"squeeze_dims", Ints({0})}}),
         {2, 3, 4, 1}, iota(24)},
        {"GatherV2 channels 3 and 0",
         op("GatherV2", [](Graph& g) { return Names{"x", g.vec("i", {3, 0}), g.scalar("a", 3)}; }), {1, 2, 3, 2},
         of({1, 2, 3, 2}, [&](int64_t h, int64_t w, int64_t c) { return ix(h, w, c ? 0 : 3); })},
        {"GatherNd two pixels",
         op("GatherNd", [](Graph& g) { return Names{"x", g.ints("i", {2, 3}, {0, 1, 2, 0, 0, 1})}; }), {2, 4},
         {20, 21, 22, 23, 4, 5, 6, 7}},
        {"BroadcastTo a new batch", op("BroadcastTo", [](Graph& g) { return Names{"x", g.vec("s", {2, 2, 3, 4})}; }),
         {2, 2, 3, 4}, of({2, 2, 3, 4}, ix)},
        {"ZerosLike plus Fill",
         op("AddV2",
            [](Graph& g) {
                return Names{g.node("z", "ZerosLike", {"x"}),
                             g.node("f", "Fill", {g.vec("d", {1, 2, 3, 4}), g.weight("v", {}, {2.5f})})};
            }),
         {1, 2, 3, 4}, std::vector<float>(24, 2.5f)},
    };
    for (const auto& k : cases) expectClose(runY(x, k.build), k.shape, k.want, k.what);
}

// a = [[1, -2, 0.5], [3, 0.25, -1]] times b = [[0.5, -1], [2, 0.25], [-0.5, 1.5]], worked out by hand.
// Catches transpose_b / adj_x ignored, and the fused bias (per column) or Relu dropped.
TEST(GraphImport, MatrixProductsTransposeTheirOperandsWhenAsked) {
    const std::vector<float> a = {1, -2, 0.5f, 3, 0.25f, -1}, b = {0.5f, -1, 2, 0.25f, -0.5f, 1.5f};
    const struct {
        std::string op;
        std::vector<int64_t> aShape, bShape;
        json attr;
        std::vector<float> want;
    } cases[] = {
        // b read as 2x3 and transposed: a times [[0.5, 0.25], [-1, -0.5], [2, 1.5]].
        {"MatMul", {2, 3}, {2, 3}, {{"transpose_b", B(true)}}, {3.5f, 2, -0.75f, -0.875f}},
        // a b = [[-3.75, -0.75], [2.5, -4.4375]], plus [0.5, 5], Relu.
        {"_FusedMatMul", {2, 3}, {3, 2}, {{"fused_ops", Strs({"BiasAdd", "Relu"})}}, {0, 4.25f, 3, 0.5625f}},
        // a read as 3x2 and transposed: [[1, 0.5, 0.25], [-2, 3, -1]] times b.
        {"BatchMatMulV2", {1, 3, 2}, {1, 3, 2}, {{"adj_x", B(true)}}, {1.375f, -0.5f, 5.5f, 1.25f}},
    };
    for (const auto& k : cases) {
        const Tensor y = runY(makeTensor(ML::F32, k.aShape, a), [&](Graph& g) {
            std::vector<std::string> in{"x", g.weight("b", k.bShape, b)};
            if (k.op == "_FusedMatMul") in.push_back(g.weight("bias", {2}, {0.5f, 5}));
            g.node("y", k.op, in, k.attr);
        });
        expectClose(y, k.aShape.size() == 3 ? std::vector<int64_t>{1, 2, 2} : std::vector<int64_t>{2, 2}, k.want, k.op);
    }
}

// Reshape x (N,H,W,C with H free) to [H*W, C] with H read from its shape, as Keras graphs do.
// Catches Shape or Size giving N,C,H,W order or int64, and the shape arithmetic folded wrongly.
TEST(GraphImport, ShapesKnownOnlyAtRunTimeFlowThroughShapeArithmetic) {
    Graph g;
    g.input("x", {1, -1, 3, 4});
    g.node("shape", "Shape", {"x"}, {{"out_type", {{"type", "DT_INT32"}}}});
    g.node("h", "StridedSlice", {"shape", g.vec("b", {1}), g.vec("e", {2}), g.vec("s", {1})},
           {{"shrink_axis_mask", I(1)}});
    g.node("dims", "Pack", {g.node("hw", "Mul", {"h", g.scalar("three", 3)}), g.scalar("four", 4)}, {{"axis", I(0)}});
    g.node("y", "Reshape", {g.node("r", "Relu", {"x"}), "dims"});
    g.node("size", "Size", {"x"}, {{"out_type", {{"type", "DT_INT32"}}}});
    for (const char* o : {"y", "shape", "size"}) g.output(o);
    const Imported r = g.run({makeTensor(ML::F32, {1, 5, 3, 4}, iota(60))});
    expectClose(r.outputs.at(0), {15, 4}, iota(60), "reshaped");
    EXPECT_EQ(r.outputs.at(1).type, ML::I32);
    expectClose(r.outputs.at(1), {4}, {1, 5, 3, 4}, "shape in TensorFlow's order");
    expectClose(r.outputs.at(2), {}, {60}, "size");
}

// Catches reduction axes not remapped to N,C,H,W (negative ones included), keep_dims ignored,
// each reduction mapped to the wrong ONNX op, ArgMax's type, TopK's order and Softmax's axis.
TEST(GraphImport, ReductionsArgMaxAndTopK) {
    const Tensor x = makeTensor(ML::F32, {1, 2, 3, 4}, iota(24));  // x(h, w, c) = (h*3 + w)*4 + c
    const struct {
        std::string op;
        std::vector<int32_t> axes;
        bool keep;
        std::vector<int64_t> shape;
        std::vector<float> want;
    } cases[] = {
        {"Mean", {1, 2}, true, {1, 1, 1, 4}, {10, 11, 12, 13}},
        {"Sum", {3}, false, {1, 2, 3}, {6, 22, 38, 54, 70, 86}},
        {"Max", {-1}, false, {1, 2, 3}, {3, 7, 11, 15, 19, 23}},
        {"Prod", {1}, false, {1, 3, 4}, {0, 13, 28, 45, 64, 85, 108, 133, 160, 189, 220, 253}},
        {"ArgMax", {2}, false, {1, 2, 4}, std::vector<float>(8, 2)},
    };
    for (const auto& k : cases) {
        const Tensor y = runY(x, [&](Graph& g) {
            g.node("y", k.op, {"x", g.ints("axes", {int64_t(k.axes.size())}, k.axes)},
                   {{"keep_dims", B(k.keep)}, {"output_type", {{"type", "DT_INT32"}}}});
        });
        EXPECT_EQ(y.type, k.op == "ArgMax" ? ML::I32 : ML::F32) << k.op;
        expectClose(y, k.shape, k.want, k.op);
    }
    Graph g;
    g.input("x", {1, 1, 2, 3});
    g.node("top", "TopKV2", {"x", g.scalar("k", 2)}, {{"sorted", B(true)}});
    g.node("soft", "Softmax", {"x"});
    for (const char* o : {"top", "top:1", "soft"}) g.output(o);
    const std::vector<float> v = {0.5f, 2, -1, 3, 1, 2};
    const Imported r = g.run({makeTensor(ML::F32, {1, 1, 2, 3}, v)});
    expectClose(r.outputs.at(0), {1, 1, 2, 2}, {2, 0.5f, 3, 2}, "top values");
    expectClose(r.outputs.at(1), {1, 1, 2, 2}, {1, 0, 0, 2}, "top indices");
    std::vector<float> soft;
    for (size_t i = 0; i < 6; ++i)
        soft.push_back(std::exp(v[i]) /
                       (std::exp(v[i / 3 * 3]) + std::exp(v[i / 3 * 3 + 1]) + std::exp(v[i / 3 * 3 + 2])));
    expectClose(r.outputs.at(2), {1, 1, 2, 3}, soft, "softmax");
}

// Floor division and modulo round towards minus infinity, a float cast to int32 truncates, and
// int32 outputs stay int32 (ONNX's Div and Mod on integers would not).
TEST(GraphImport, IntegersKeepTensorFlowsSemantics) {
    Graph g;
    g.input("n", {4}, "DT_INT32");
    g.node("q", "FloorDiv", {"n", g.scalar("two", 2)});
    g.node("m", "FloorMod", {"n", g.scalar("three", 3)});
    g.node("f", "Cast", {"n"}, {{"SrcT", {{"type", "DT_INT32"}}}, {"DstT", {{"type", "DT_FLOAT"}}}});
    g.node("t", "Cast", {g.node("h", "Mul", {"f", g.weight("k", {}, {0.45f})})},
           {{"SrcT", {{"type", "DT_FLOAT"}}}, {"DstT", {{"type", "DT_INT32"}}}});
    for (const char* o : {"q", "m", "t"}) g.output(o);
    const Imported r = g.run({makeTensor(ML::I32, {4}, {-7, 7, -8, 5})});
    for (const Tensor& t : r.outputs) EXPECT_EQ(t.type, ML::I32);
    expectClose(r.outputs.at(0), {4}, {-4, 3, -4, 2}, "floor division");
    expectClose(r.outputs.at(1), {4}, {2, 1, 1, 2}, "floor modulo");
    expectClose(r.outputs.at(2), {4}, {-3, 3, -3, 2}, "truncating cast");
}

// if ratio == 1: y = x else: y = Relu(x) * 2, as a TF1 Switch/Merge pair. Catches the wrong side
// taken, both sides written, and a run-time condition not refused.
TEST(GraphImport, ConditionalsResolveWhenTheirConditionIsFixed) {
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
        const Imported r = g.run({x}, options);
        expectClose(r.outputs.at(0), {1, 2, 2, 1}, want, "ratio " + std::to_string(ratio));
        EXPECT_EQ(r.count("Mul"), ratio == 1.0f ? 0 : 1) << "only the taken side is written";
    }
    const std::string error = g.importError();
    EXPECT_NE(error.find("node 'sw' (op Switch)"), std::string::npos) << error;
    EXPECT_NE(error.find("depends on ratio: give them fixed values at import time"), std::string::npos) << error;
}

// Refused ops name node and op; cut before them, the rest imports. Outputs keep TensorFlow's
// names, even one the ONNX graph builder would give its second node ("Neg_1").
TEST(GraphImport, RefusesOpsItCannotConvertNamingTheNode) {
    const std::pair<std::string, std::string> cases[] = {
        {"NonMaxSuppressionV5", "the importer does not know this op"},
        {"Enter", "loops and tensor arrays are not supported"},
        {"TensorListReserve", "loops and tensor arrays are not supported"},
        {"TensorArrayV3", "loops and tensor arrays are not supported"},
    };
    for (const auto& [op, message] : cases) {
        Graph g;
        g.input("x", {3});
        g.node("Neg_1", "Relu", {"x"});
        g.node("post/process", op, {"Neg_1"});
        g.node("y", "Identity", {"post/process"});
        const std::string error = g.importError();
        EXPECT_NE(error.find("Cannot import node 'post/process' (op " + op + "): " + message), std::string::npos)
            << error;
        g.output("Neg_1");
        g.output(g.node("z", "Neg", {"x"}));
        const Imported r = g.run({makeTensor(ML::F32, {3}, {-1, 0.5f, 2})});
        ASSERT_EQ(r.proto.graph().output_size(), 2);
        EXPECT_EQ(r.proto.graph().output(0).name(), "Neg_1");
        EXPECT_EQ(r.proto.graph().output(1).name(), "z");
        expectClose(r.outputs.at(0), {3}, {0, 0.5f, 2}, op);
        expectClose(r.outputs.at(1), {3}, {1, -0.5f, -2}, op);
    }
}

TEST(GraphImport, BrokenFilesEndInImportError) {
    Graph good, badAttr, dangling;
    good.input("x", {2});
    good.node("y", "Mul", {"x", good.weight("w", {2}, {1, 2})});
    badAttr.input("x", {1, 2});
    badAttr.node("y", "Squeeze", {"x"}, {{"squeeze_dims", {{"list", {{"i", {"zero"}}}}}}});
    dangling.node("y", "Relu", {"nowhere"});
    const struct {
        std::string what;
        const Graph& graph;
        std::function<void(const fs::path&)> breakIt;
    } cases[] = {
        {"bad JSON", good, [](const fs::path& d) { std::ofstream(d / "model.json") << "{\"modelTopology\": {"; }},
        {"missing shard", good, [](const fs::path& d) { fs::remove(d / "w.bin"); }},
        {"short shard", good, [](const fs::path& d) { fs::resize_file(d / "w.bin", fs::file_size(d / "w.bin") - 1); }},
        {"over-long shard", good, [](const fs::path& d) { std::ofstream(d / "w.bin", std::ios::app) << 'x'; }},
        {"malformed attribute", badAttr, [](const fs::path&) {}},
        {"input from a node that is not there", dangling, [](const fs::path&) {}},
    };
    TempDir intact;
    EXPECT_EQ(importError(good.write(intact.path())), "");  // so that each row fails for its own fault
    for (const auto& k : cases) {
        TempDir dir;
        const fs::path file = k.graph.write(dir.path());
        k.breakIt(dir.path());
        EXPECT_NE(importError(file), "") << k.what;
    }
}
