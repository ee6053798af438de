// Convolutions, pooling, resizing, depth/space moves and matrix products. The image ops take
// their input in N,C,H,W and leave their result there; kernels are written in ONNX's order at
// import time (halves stay halves).
#include <algorithm>
#include <array>
#include <climits>

#include "GraphOps.h"

namespace qpkg::tfjs::graph {

namespace {

constexpr int64_t kMaxIndex = INT64_MAX;

// Spatial extents (H, W) of a 4-D value in TensorFlow's order; -1 where unknown.
std::pair<int64_t, int64_t> spatial(const Value& x) {
    if (!x.ranked || x.rank() != 4) return {-1, -1};
    return {x.shape[1], x.shape[2]};
}

std::vector<int64_t> shape4(const Value& x) {
    return x.ranked && x.rank() == 4 ? x.shape : std::vector<int64_t>(4, -1);
}

// Two spatial entries (H, W) of an N,H,W,C attribute list such as strides or ksize.
std::pair<int64_t, int64_t> hw(Context& c, const std::string& name, int64_t fallback) {
    const std::vector<int64_t> v = c.intsAttr(name);
    if (v.empty()) return {fallback, fallback};
    if (v.size() != 4) c.fail(name + " must have 4 entries");
    if (v[0] != 1 || v[3] != 1) c.fail(name + " over the batch or channel axis is not supported");
    if (v[1] < 1 || v[2] < 1 || v[1] > (1 << 20) || v[2] > (1 << 20)) c.fail(name + " must be whole numbers from 1");
    return {v[1], v[2]};
}

void requireNhwc(Context& c) {
    const std::string format = c.stringAttr("data_format", "NHWC");
    if (format != "NHWC") c.fail("data format " + format + " is not supported");
}

// Padding attributes of a windowed op and the output extent along the spatial axes.
struct Window {
    std::vector<onnx::AttributeProto> attrs;
    int64_t outH = -1, outW = -1;
};

Window window(Context& c, const Value& x, std::pair<int64_t, int64_t> kernel, std::pair<int64_t, int64_t> stride,
              std::pair<int64_t, int64_t> dilation, const std::string& padding,
              const std::vector<int64_t>& explicitPads = {}) {
    const auto [h, w] = spatial(x);
    constexpr int64_t kLargest = int64_t{1} << 20;
    for (const auto& [name, v] : {std::pair{"kernel", kernel}, std::pair{"strides", stride}, std::pair{"dilations", dilation}})
        if (v.first < 1 || v.second < 1 || v.first > kLargest || v.second > kLargest)
            c.fail(std::string(name) + " must be whole numbers from 1 to " + std::to_string(kLargest));
    for (int64_t p : explicitPads)
        if (p < 0 || p > kLargest) c.fail("explicit_paddings must be whole numbers from 0 to " + std::to_string(kLargest));
    Window out;
    auto extent = [](int64_t in, int64_t k, int64_t s, int64_t d, int64_t before, int64_t after) {
        return in < 0 ? int64_t{-1} : (in + before + after - ((k - 1) * d + 1)) / s + 1;
    };
    if (padding == "VALID") {
        out.outH = extent(h, kernel.first, stride.first, dilation.first, 0, 0);
        out.outW = extent(w, kernel.second, stride.second, dilation.second, 0, 0);
    } else if (padding == "SAME") {
        if (h >= 0 && w >= 0) {
            const auto ph = samePads(h, kernel.first, stride.first, dilation.first);
            const auto pw = samePads(w, kernel.second, stride.second, dilation.second);
            if (ph.first || ph.second || pw.first || pw.second)
                out.attrs.push_back(attrInts("pads", {ph.first, pw.first, ph.second, pw.second}));
        } else {
            out.attrs.push_back(attrString("auto_pad", "SAME_UPPER"));
        }
        out.outH = h < 0 ? -1 : (h + stride.first - 1) / stride.first;
        out.outW = w < 0 ? -1 : (w + stride.second - 1) / stride.second;
    } else if (padding == "EXPLICIT") {
        if (explicitPads.size() != 8) c.fail("explicit_paddings must have 8 entries");
        const int64_t t = explicitPads[2], b = explicitPads[3], l = explicitPads[4], r = explicitPads[5];
        out.attrs.push_back(attrInts("pads", {t, l, b, r}));
        out.outH = extent(h, kernel.first, stride.first, dilation.first, t, b);
        out.outW = extent(w, kernel.second, stride.second, dilation.second, l, r);
    } else {
        c.fail("padding \"" + padding + "\" is not supported");
    }
    out.attrs.push_back(attrInts("strides", {stride.first, stride.second}));
    return out;
}

std::vector<int64_t> filterShape(Context& c, const Value& filter) {
    if (!filter.staticShape() || filter.rank() != 4)
        c.fail("the filter's shape must be known when the graph is imported");
    for (int64_t d : filter.shape)
        if (d < 1) c.fail("the filter has an empty extent");
    return filter.shape;
}

// Applies fused_ops after a BiasAdd (already applied) from input index arg on: FusedBatchNorm,
// activations and Prelu. y is held with rank and layout given.
std::string applyFused(Context& c, std::string y, const std::vector<std::string>& fused, size_t first, size_t arg,
                       int rank, const Perm& perm) {
    for (size_t i = first; i < fused.size(); ++i) {
        const std::string& op = fused[i];
        if (op == "FusedBatchNorm") {
            if (rank != 2 && perm != kNCHW) c.fail("batch normalisation needs the channel axis second");
            std::vector<std::string> in{y};
            for (int k = 0; k < 4; ++k) in.push_back(c.plain(c.in(arg++)));
            y = c.g.op("BatchNormalization", in,
                       {attrFloat("epsilon", static_cast<float>(c.floatAttr("epsilon", 1e-3)))});
        } else if (op == "Prelu") {
            y = c.g.op("PRelu", {y, c.aligned(c.in(arg++), rank, perm)});
        } else if (op == "BiasAdd") {
            y = c.g.op("Add", {y, c.aligned(c.in(arg++), rank, perm)});
        } else {
            y = activation(c, op, y);
        }
    }
    return y;
}

// A 2-D convolution of x (any layout) by the node's filter (input 1) and fused ops (inputs 2...).
ValuePtr convolve(Context& c, Value& x, bool depthwise, std::pair<int64_t, int64_t> dilation) {
    requireNhwc(c);
    Value& filter = c.in(1);
    const std::vector<int64_t> fs = filterShape(c, filter);
    const int64_t kh = fs[0], kw = fs[1];
    const auto stride = hw(c, "strides", 1);
    const Window win =
        window(c, x, {kh, kw}, stride, dilation, c.stringAttr("padding", "VALID"), c.intsAttr("explicit_paddings"));

    std::string weights;
    int64_t group = 1, outChannels = 0;
    if (depthwise) {
        // H,W,C,M to C*M,1,H,W: channel c's m-th output is output channel c*M+m, as in TensorFlow.
        Value reshaped = filter;
        reshaped.name.clear();
        reshaped.copies.clear();
        reshaped.perm.clear();
        reshaped.shape = {kh, kw, 1, fs[2] * fs[3]};
        if (!filter.isConst()) reshaped.name = c.g.op("Reshape", {c.plain(filter), c.i64(reshaped.shape)});
        weights = c.inLayout(reshaped, {3, 2, 0, 1});
        group = fs[2];
        outChannels = fs[2] * fs[3];
    } else {
        weights = c.inLayout(filter, {3, 2, 0, 1});
        const int64_t inChannels = shape4(x)[3];
        group = inChannels > 0 && inChannels != fs[2] ? inChannels / fs[2] : 1;
        outChannels = fs[3];
    }
    std::vector<std::string> inputs{c.inLayout(x, kNCHW), weights};
    const std::vector<std::string> fused = c.stringsAttr("fused_ops");
    size_t first = 0, arg = 2;
    if (!fused.empty() && fused[0] == "BiasAdd" && c.in(2).rank() == 1) {  // the convolution's own bias
        inputs.push_back(c.plain(c.in(2)));
        first = 1;
        arg = 3;
    }
    std::vector<onnx::AttributeProto> attrs = win.attrs;
    attrs.push_back(attrInts("kernel_shape", {kh, kw}));
    attrs.push_back(attrInts("dilations", {dilation.first, dilation.second}));
    attrs.push_back(attrInt("group", group));
    const std::string y = applyFused(c, c.g.op("Conv", inputs, attrs), fused, first, arg, 4, kNCHW);
    return c.make(y, DType::Float, {shape4(x)[0], win.outH, win.outW, outChannels}, kNCHW);
}

std::pair<int64_t, int64_t> dilations(Context& c) { return hw(c, "dilations", 1); }

std::vector<ValuePtr> pool(Context& c, const char* onnxOp) {
    requireNhwc(c);
    Value& x = c.in(0);
    const auto kernel = hw(c, "ksize", 1);
    const Window win = window(c, x, kernel, hw(c, "strides", 1), {1, 1}, c.stringAttr("padding", "VALID"));
    std::vector<onnx::AttributeProto> attrs = win.attrs;
    attrs.push_back(attrInts("kernel_shape", {kernel.first, kernel.second}));
    const std::vector<int64_t> s = shape4(x);
    return {c.make(c.g.op(onnxOp, {c.inLayout(x, kNCHW)}, attrs), x.type, {s[0], win.outH, win.outW, s[3]}, kNCHW)};
}

std::vector<ValuePtr> resize(Context& c, bool linear) {
    Value& x = c.in(0);
    Value& size = c.in(1);
    const std::vector<int64_t> s = shape4(x);
    const std::string xn = c.inLayout(x, kNCHW);
    int64_t outH = -1, outW = -1;
    std::string sizes;
    if (size.isConst()) {
        const std::vector<int64_t> hw = c.ints(size, "the size");
        outH = hw.at(0);
        outW = hw.at(1);
    }
    if (size.isConst() && s[0] >= 0 && s[3] >= 0) {
        sizes = c.i64({s[0], s[3], outH, outW});
    } else {
        const std::string nc = c.g.op("Slice", {c.g.op("Shape", {xn}), c.i64({0}), c.i64({2})});
        sizes = c.g.op("Concat", {nc, c.plain(size)}, {attrInt("axis", 0)});
    }
    const bool alignCorners = c.boolAttr("align_corners", false), halfPixel = c.boolAttr("half_pixel_centers", false);
    std::vector<onnx::AttributeProto> attrs;
    if (linear) {
        attrs.push_back(attrString("mode", "linear"));
        attrs.push_back(attrString("coordinate_transformation_mode", alignCorners ? "align_corners"
                                                                     : halfPixel  ? "half_pixel"
                                                                                  : "asymmetric"));
    } else {
        attrs.push_back(attrString("mode", "nearest"));
        attrs.push_back(attrString("coordinate_transformation_mode", alignCorners ? "align_corners"
                                                                     : halfPixel  ? "half_pixel"
                                                                                  : "asymmetric"));
        // TensorFlow takes floor((x + 0.5) * scale) for half-pixel centres: the half-pixel source
        // coordinate rounded half up.
        attrs.push_back(attrString("nearest_mode", alignCorners || halfPixel ? "round_prefer_ceil" : "floor"));
    }
    const std::string y = c.g.op("Resize", {xn, "", "", sizes}, attrs);
    return {c.make(y, x.type, {s[0], outH, outW, s[3]}, kNCHW)};
}

// The ONNX value of a matrix operand, its last two axes swapped when asked.
std::string matrix(Context& c, Value& v, bool swapLast) {
    if (!swapLast) return c.plain(v);
    if (!v.ranked || v.rank() < 2) c.fail("a transposed operand of unknown rank");
    Perm p = identityPerm(v.rank());
    std::swap(p[p.size() - 1], p[p.size() - 2]);
    return c.inLayout(v, p);
}

std::vector<ValuePtr> matrixProduct(Context& c, bool adjA, bool adjB) {
    Value& a = c.in(0);
    Value& b = c.in(1);
    std::string y = c.g.op("MatMul", {matrix(c, a, adjA), matrix(c, b, adjB)});
    if (!a.ranked || !b.ranked || a.rank() < 2 || b.rank() < 2) return {c.unranked(y, a.type)};
    const int rank = std::max(a.rank(), b.rank());
    std::vector<int64_t> shape(static_cast<size_t>(rank), -1);
    const auto& as = a.shape;
    const auto& bs = b.shape;
    shape[static_cast<size_t>(rank - 2)] = adjA ? as[as.size() - 1] : as[as.size() - 2];
    shape[static_cast<size_t>(rank - 1)] = adjB ? bs[bs.size() - 2] : bs[bs.size() - 1];
    const std::vector<int64_t>& longer = a.rank() >= b.rank() ? as : bs;
    for (int i = 0; i < rank - 2; ++i) shape[static_cast<size_t>(i)] = longer[static_cast<size_t>(i)];
    const std::vector<std::string> fused = c.stringsAttr("fused_ops");
    y = applyFused(c, y, fused, 0, 2, rank, {});
    return {c.make(y, a.type, shape)};
}

bool isDepthwise(const std::string& op) { return op == "DepthwiseConv2dNative" || op == "FusedDepthwiseConv2dNative"; }

}  // namespace

std::vector<ValuePtr> ops::conv2d(Context& c) { return {convolve(c, c.in(0), false, dilations(c))}; }

std::vector<ValuePtr> ops::depthwiseConv2d(Context& c) { return {convolve(c, c.in(0), true, dilations(c))}; }

std::vector<ValuePtr> ops::conv2dBackpropInput(Context& c) {
    requireNhwc(c);
    const std::vector<int64_t> sizes = c.ints(c.in(0), "the output size");
    Value& filter = c.in(1);
    Value& x = c.in(2);
    if (sizes.size() != 4) c.fail("the output size must have 4 entries");
    const std::vector<int64_t> fs = filterShape(c, filter);
    const auto stride = hw(c, "strides", 1);
    if (dilations(c) != std::make_pair(int64_t{1}, int64_t{1}))
        c.fail("dilated transposed convolutions are not supported");
    const std::string padding = c.stringAttr("padding", "VALID");
    if (padding != "SAME" && padding != "VALID") c.fail("padding \"" + padding + "\" is not supported");
    const auto [inH, inW] = spatial(x);
    // The convolution this one inverts maps the output (sizes) to the input: its padding.
    auto pads = [&](int64_t out, int64_t in, int64_t k, int64_t s) {
        if (in < 0) in = padding == "SAME" ? (out + s - 1) / s : (out - k + s) / s;
        const int64_t full = s * (in - 1) + k;
        const int64_t before = padding == "SAME" ? samePads(out, k, s, 1).first : 0;
        const int64_t rest = full - out - before;
        return std::array<int64_t, 3>{before, std::max<int64_t>(rest, 0), std::max<int64_t>(-rest, 0)};
    };
    const auto ph = pads(sizes[1], inH, fs[0], stride.first), pw = pads(sizes[2], inW, fs[1], stride.second);
    const std::string y =
        c.g.op("ConvTranspose", {c.inLayout(x, kNCHW), c.inLayout(filter, {3, 2, 0, 1})},
               {attrInts("kernel_shape", {fs[0], fs[1]}), attrInts("strides", {stride.first, stride.second}),
                attrInts("pads", {ph[0], pw[0], ph[1], pw[1]}), attrInts("output_padding", {ph[2], pw[2]})});
    return {c.make(y, DType::Float, sizes, kNCHW)};
}

std::vector<ValuePtr> ops::spaceToBatch(Context& c) {
    c.fail("only supported where it opens a dilated convolution (SpaceToBatchND, convolution, BatchToSpaceND)");
}

std::vector<ValuePtr> ops::batchToSpace(Context& c) {
    const Node* conv = c.node->conv;
    if (!conv)
        c.fail("only supported where it closes a dilated convolution (SpaceToBatchND, convolution, BatchToSpaceND)");
    const size_t n = c.inputCount();
    Value& paddings = c.in(n - 4);
    Value& crops = c.in(n - 3);
    const std::vector<int64_t> block = c.ints(c.in(n - 2), "the block shape");
    if (block.size() != 2) c.fail("the block shape must have 2 entries");
    if (c.ints(c.in(n - 1), "the block shape of the SpaceToBatchND") != block)
        c.fail("SpaceToBatchND and BatchToSpaceND have different block shapes");
    Value& x = c.in(0);
    const std::vector<int64_t> s = shape4(x);

    // Pad x as SpaceToBatchND does; a convolution dilated by the block then computes what the
    // convolution of the batched phases computes, and the crops come off the end.
    std::string xn = c.inLayout(x, kNCHW);
    std::vector<int64_t> padded = s;
    if (paddings.isConst()) {
        const std::vector<int64_t> p = c.ints(paddings, "the paddings");
        if (std::any_of(p.begin(), p.end(), [](int64_t v) { return v != 0; }))
            xn = c.g.op("Pad", {xn, c.i64({0, 0, p[0], p[2], 0, 0, p[1], p[3]})});
        for (int i = 0; i < 2; ++i)
            if (padded[static_cast<size_t>(i + 1)] >= 0)
                padded[static_cast<size_t>(i + 1)] += p[static_cast<size_t>(2 * i)] + p[static_cast<size_t>(2 * i + 1)];
    } else {
        const std::string flat =
            c.g.op("Concat", {c.i64({0}), c.g.op("Reshape", {c.plain(paddings), c.i64({-1})})}, {attrInt("axis", 0)});
        xn = c.g.op("Pad", {xn, c.g.op("Gather", {flat, c.i64({0, 0, 1, 3, 0, 0, 2, 4})}, {attrInt("axis", 0)})});
        padded[1] = padded[2] = -1;
    }
    ValuePtr in = c.make(xn, x.type, padded, kNCHW);

    const Node* self = c.node;
    const std::vector<ValuePtr> saved = c.inputs;
    c.node = conv;
    c.inputs.assign(saved.begin(), saved.end() - 4);
    if (hw(c, "strides", 1) != std::make_pair(int64_t{1}, int64_t{1}) || c.stringAttr("padding", "VALID") != "VALID")
        c.fail("a dilated convolution must have stride 1 and VALID padding");
    ValuePtr y = convolve(c, *in, isDepthwise(conv->op), {block[0], block[1]});
    c.node = self;
    c.inputs = saved;

    std::vector<int64_t> shape = y->shape;
    std::string out = c.held(*y);
    if (crops.isConst()) {
        const std::vector<int64_t> k = c.ints(crops, "the crops");
        if (std::any_of(k.begin(), k.end(), [](int64_t v) { return v != 0; }))
            out = c.g.op("Slice", {out, c.i64({k[0], k[2]}),
                                   c.i64({k[1] ? -k[1] : kMaxIndex, k[3] ? -k[3] : kMaxIndex}), c.i64({2, 3})});
        for (int i = 0; i < 2; ++i)
            if (shape[static_cast<size_t>(i + 1)] >= 0)
                shape[static_cast<size_t>(i + 1)] -= k[static_cast<size_t>(2 * i)] + k[static_cast<size_t>(2 * i + 1)];
    } else {
        const std::string flat = c.g.op("Reshape", {c.plain(crops), c.i64({-1})});
        const std::string starts = c.g.op("Gather", {flat, c.i64({0, 2})}, {attrInt("axis", 0)});
        const std::string trail = c.g.op("Gather", {flat, c.i64({1, 3})}, {attrInt("axis", 0)});
        const std::string ends =
            c.g.op("Where", {c.g.op("Equal", {trail, c.i64Scalar(0)}), c.i64Scalar(kMaxIndex), c.g.op("Neg", {trail})});
        out = c.g.op("Slice", {out, starts, ends, c.i64({2, 3})});
        shape[1] = shape[2] = -1;
    }
    return {c.make(out, y->type, shape, kNCHW)};
}

std::vector<ValuePtr> ops::maxPool(Context& c) { return pool(c, "MaxPool"); }
std::vector<ValuePtr> ops::avgPool(Context& c) { return pool(c, "AveragePool"); }

std::vector<ValuePtr> ops::resizeBilinear(Context& c) { return resize(c, true); }
std::vector<ValuePtr> ops::resizeNearest(Context& c) { return resize(c, false); }

std::vector<ValuePtr> ops::depthToSpace(Context& c) {
    requireNhwc(c);
    Value& x = c.in(0);
    const int64_t b = c.intAttr("block_size", 2);
    std::vector<int64_t> s = shape4(x);
    const std::string y =
        c.g.op("DepthToSpace", {c.inLayout(x, kNCHW)}, {attrInt("blocksize", b), attrString("mode", "DCR")});
    return {c.make(y, x.type,
                   {s[0], s[1] < 0 ? -1 : s[1] * b, s[2] < 0 ? -1 : s[2] * b, s[3] < 0 ? -1 : s[3] / (b * b)}, kNCHW)};
}

std::vector<ValuePtr> ops::spaceToDepth(Context& c) {
    requireNhwc(c);
    Value& x = c.in(0);
    const int64_t b = c.intAttr("block_size", 2);
    std::vector<int64_t> s = shape4(x);
    const std::string y = c.g.op("SpaceToDepth", {c.inLayout(x, kNCHW)}, {attrInt("blocksize", b)});
    return {c.make(y, x.type, {s[0], s[1] < 0 ? -1 : s[1] / b, s[2] < 0 ? -1 : s[2] / b, s[3] < 0 ? -1 : s[3] * b * b},
                   kNCHW)};
}

std::vector<ValuePtr> ops::matMul(Context& c) {
    return matrixProduct(c, c.boolAttr("transpose_a", false), c.boolAttr("transpose_b", false));
}

std::vector<ValuePtr> ops::batchMatMul(Context& c) {
    return matrixProduct(c, c.boolAttr("adj_x", false), c.boolAttr("adj_y", false));
}

std::vector<ValuePtr> ops::fusedBatchNorm(Context& c) {
    requireNhwc(c);
    Value& x = c.in(0);
    std::vector<std::string> in{c.inLayout(x, kNCHW)};
    for (size_t i = 1; i <= 4; ++i) in.push_back(c.plain(c.in(i)));
    const std::string y =
        c.g.op("BatchNormalization", in, {attrFloat("epsilon", static_cast<float>(c.floatAttr("epsilon", 1e-3)))});
    return {c.make(y, x.type, shape4(x), kNCHW)};
}

}  // namespace qpkg::tfjs::graph
