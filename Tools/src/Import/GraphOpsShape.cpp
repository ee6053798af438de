// Shapes, slicing, joining, gathering and TF1 conditionals. Ops that only move axes keep the
// layout of their input (remapping their axes and pads); those that reinterpret the data order
// (Reshape, GatherNd, ...) take their input in TensorFlow's order. Shape arithmetic on values known
// at import time is done here and never reaches the graph.
#include <algorithm>
#include <climits>
#include <numeric>

#include "GraphOps.h"

namespace qpkg::tfjs::graph {

namespace {

constexpr int64_t kMaxIndex = INT64_MAX;

// Elements of h at the outer product of per-axis index lists.
Host take(const Host& h, const std::vector<std::vector<int64_t>>& index) {
    const size_t rank = h.shape.size();
    Host out{h.type, {}, {}};
    for (const auto& list : index) out.shape.push_back(static_cast<int64_t>(list.size()));
    std::vector<int64_t> stride(rank, 1);
    for (size_t i = rank; i-- > 1;) stride[i - 1] = stride[i] * h.shape[i];
    const int64_t count = product(out.shape);
    std::vector<size_t> at(rank, 0);
    for (int64_t o = 0; o < count; ++o) {
        int64_t src = 0;
        for (size_t i = 0; i < rank; ++i) src += index[i][at[i]] * stride[i];
        out.v.push_back(h.v[static_cast<size_t>(src)]);
        for (size_t i = rank; i-- > 0;) {
            if (++at[i] < index[i].size()) break;
            at[i] = 0;
        }
    }
    return out;
}

std::vector<int64_t> iota(int64_t n, int64_t from = 0) {
    std::vector<int64_t> v(static_cast<size_t>(std::max<int64_t>(n, 0)));
    std::iota(v.begin(), v.end(), from);
    return v;
}

int normalizedAxis(Context& c, int64_t axis, int rank) {
    if (axis < -rank || axis >= rank)
        c.fail("axis " + std::to_string(axis) + " is out of range for rank " + std::to_string(rank));
    return static_cast<int>(axis < 0 ? axis + rank : axis);
}

// The layout after inserting a new TensorFlow axis a: the ONNX position that keeps TensorFlow's
// order or gives N,C,H,W when there is one, else the one after every axis before a.
std::pair<Perm, int> insertAxis(const Perm& perm, int rank, int a) {
    const Perm base = perm.empty() ? identityPerm(rank) : perm;
    Perm shifted;
    for (int axis : base) shifted.push_back(axis >= a ? axis + 1 : axis);
    std::vector<std::pair<Perm, int>> options;
    for (int p = 0; p <= rank; ++p) {
        Perm candidate = shifted;
        candidate.insert(candidate.begin() + p, a);
        options.emplace_back(candidate, p);
    }
    for (const auto& o : options)
        if (isIdentity(o.first)) return {{}, o.second};
    for (const auto& o : options)
        if (o.first == kNCHW) return o;
    const int p = static_cast<int>(std::count_if(base.begin(), base.end(), [&](int axis) { return axis < a; }));
    return {normalized(options[static_cast<size_t>(p)].first, rank + 1), p};
}

// One input axis of a StridedSlice: its indices, or a single index when the axis goes away.
struct AxisSlice {
    bool full = true;  // the whole axis, in order
    int64_t begin = 0, end = 0, stride = 1;
    bool beginMask = false, endMask = false, shrink = false;

    // The indices taken from an axis of extent n (TensorFlow's clamping).
    std::vector<int64_t> indices(int64_t n) const {
        if (full) return iota(n);
        if (shrink) return {begin < 0 ? begin + n : begin};
        std::vector<int64_t> out;
        auto clampTo = [&](int64_t x, int64_t lo, int64_t hi) { return std::min(std::max(x < 0 ? x + n : x, lo), hi); };
        if (stride > 0) {
            const int64_t from = beginMask ? 0 : clampTo(begin, 0, n), to = endMask ? n : clampTo(end, 0, n);
            for (int64_t i = from; i < to; i += stride) out.push_back(i);
        } else {
            const int64_t from = beginMask ? n - 1 : clampTo(begin, -1, n - 1),
                          to = endMask ? -1 : clampTo(end, -1, n - 1);
            for (int64_t i = from; i > to; i += stride) out.push_back(i);
        }
        return out;
    }
};

struct SlicePlan {
    std::vector<AxisSlice> axes;  // one per input axis
    std::vector<int> newAxes;     // positions of inserted axes in the output (TensorFlow order)
};

SlicePlan stridedPlan(Context& c, int rank) {
    const std::vector<int64_t> begin = c.ints(c.in(1), "the begin of a StridedSlice");
    const std::vector<int64_t> end = c.ints(c.in(2), "the end of a StridedSlice");
    const std::vector<int64_t> strides = c.ints(c.in(3), "the strides of a StridedSlice");
    if (begin.size() != end.size() || begin.size() != strides.size()) c.fail("begin, end and strides differ in length");
    const int64_t beginMask = c.intAttr("begin_mask", 0), endMask = c.intAttr("end_mask", 0);
    const int64_t ellipsisMask = c.intAttr("ellipsis_mask", 0), newAxisMask = c.intAttr("new_axis_mask", 0);
    const int64_t shrinkMask = c.intAttr("shrink_axis_mask", 0);
    const int n = static_cast<int>(begin.size());
    int consuming = 0;  // slice entries that consume an input axis, the ellipsis aside
    for (int i = 0; i < n; ++i)
        if (!(ellipsisMask >> i & 1) && !(newAxisMask >> i & 1)) ++consuming;
    SlicePlan plan;
    plan.axes.resize(static_cast<size_t>(rank));
    int axis = 0, out = 0;
    bool sawEllipsis = false;
    for (int i = 0; i < n; ++i) {
        if (ellipsisMask >> i & 1) {
            if (sawEllipsis) c.fail("more than one ellipsis");
            sawEllipsis = true;
            const int covered = rank - consuming;
            axis += covered;
            out += covered;
            continue;
        }
        if (newAxisMask >> i & 1) {
            plan.newAxes.push_back(out++);
            continue;
        }
        if (axis >= rank) c.fail("more slice entries than input axes");
        AxisSlice& s = plan.axes[static_cast<size_t>(axis++)];
        s.begin = begin[static_cast<size_t>(i)];
        s.end = end[static_cast<size_t>(i)];
        s.stride = strides[static_cast<size_t>(i)];
        if (s.stride == 0) c.fail("a stride of 0");
        s.beginMask = beginMask >> i & 1;
        s.endMask = endMask >> i & 1;
        s.shrink = shrinkMask >> i & 1;
        s.full = !s.shrink && s.stride == 1 && s.beginMask && s.endMask;
        if (!s.shrink) ++out;
    }
    return plan;
}

// The output shape of a slice along the plan (TensorFlow order), before new axes are added.
std::vector<int64_t> slicedShape(const SlicePlan& plan, const std::vector<int64_t>& shape) {
    std::vector<int64_t> out;
    for (size_t i = 0; i < plan.axes.size(); ++i) {
        const AxisSlice& s = plan.axes[i];
        if (s.shrink) continue;
        out.push_back(shape[i] < 0 ? -1 : static_cast<int64_t>(s.indices(shape[i]).size()));
    }
    return out;
}

std::vector<int64_t> withNewAxes(std::vector<int64_t> shape, const std::vector<int>& newAxes) {
    for (int p : newAxes) shape.insert(shape.begin() + std::min<size_t>(static_cast<size_t>(p), shape.size()), 1);
    return shape;
}

// Values of the inputs from..to (exclusive), all foldable.
bool allFoldable(Context& c, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i)
        if (!foldable(c.in(i))) return false;
    return true;
}

Host concatHosts(const std::vector<Host>& hs, int axis) {
    Host out{hs[0].type, hs[0].shape, {}};
    out.shape[static_cast<size_t>(axis)] = 0;
    for (const Host& h : hs) out.shape[static_cast<size_t>(axis)] += h.shape[static_cast<size_t>(axis)];
    const int64_t outer = product(std::vector<int64_t>(hs[0].shape.begin(), hs[0].shape.begin() + axis));
    for (int64_t o = 0; o < outer; ++o)
        for (const Host& h : hs) {
            const int64_t block = product(std::vector<int64_t>(h.shape.begin() + axis, h.shape.end()));
            out.v.insert(out.v.end(), h.v.begin() + o * block, h.v.begin() + (o + 1) * block);
        }
    return out;
}

}  // namespace

std::vector<ValuePtr> ops::identity(Context& c) { return {c.inputs.at(0)}; }

std::vector<ValuePtr> ops::noOp(Context&) { return {}; }

std::vector<ValuePtr> ops::switchOp(Context& c) {
    Value& pred = c.in(1);
    if (!pred.isConst())
        c.fail(
            "the condition of this conditional is known only at run time; give the inputs it depends on "
            "fixed values at import time (quillon-pkg import --const NAME=VALUE)");
    const bool taken = c.constant(pred, "the condition").v.at(0) != 0;
    return taken ? std::vector<ValuePtr>{c.deadValue(), c.inputs[0]}
                 : std::vector<ValuePtr>{c.inputs[0], c.deadValue()};
}

std::vector<ValuePtr> ops::merge(Context& c) {
    std::vector<size_t> live;
    for (size_t i = 0; i < c.inputCount(); ++i)
        if (!c.in(i).dead) live.push_back(i);
    if (live.empty()) return {c.deadValue(), c.deadValue()};
    if (live.size() > 1) c.fail("more than one of its inputs is live: the conditional cannot be resolved");
    return {c.inputs[live[0]], c.constantValue(Host{DType::Int, {}, {static_cast<double>(live[0])}})};
}

std::vector<ValuePtr> ops::shape(Context& c) {
    Value& x = c.in(0);
    if (x.staticShape())
        return {c.constantValue(Host{DType::Int, {x.rank()}, std::vector<double>(x.shape.begin(), x.shape.end())})};
    if (!x.ranked) return {c.make(c.g.op("Shape", {c.plain(x)}), DType::Int, {-1})};
    std::string s = c.g.op("Shape", {c.held(x)});
    const Perm p = normalized(x.perm, x.rank());
    if (!p.empty()) {
        const Perm inv = inverse(p);
        s = c.g.op("Gather", {s, c.i64(std::vector<int64_t>(inv.begin(), inv.end()))}, {attrInt("axis", 0)});
    }
    return {c.make(s, DType::Int, {x.rank()})};
}

std::vector<ValuePtr> ops::size(Context& c) {
    Value& x = c.in(0);
    if (x.staticShape()) return {c.constantValue(Host{DType::Int, {}, {static_cast<double>(product(x.shape))}})};
    return {c.make(c.g.op("ReduceProd", {c.g.op("Shape", {c.held(x)})}, {attrInt("keepdims", 0)}), DType::Int, {})};
}

std::vector<ValuePtr> ops::reshape(Context& c) {
    Value& x = c.in(0);
    Value& target = c.in(1);
    if (target.isConst()) {
        std::vector<int64_t> dims = c.ints(target, "the shape");
        const int64_t known = x.staticShape() ? product(x.shape) : -1;
        const auto free = std::find(dims.begin(), dims.end(), -1);
        if (free != dims.end() && known >= 0) {
            int64_t rest = 1;
            for (int64_t d : dims)
                if (d != -1) rest *= d;
            if (rest > 0) *free = known / rest;
        }
        if (foldable(x)) {
            Host h = c.constant(x, "the input");
            if (product(dims) != h.count()) c.fail("the new shape does not hold the input's elements");
            h.shape = dims;
            return {c.constantValue(std::move(h))};
        }
        // Where the layout moves only extents of 1 the data are already in TensorFlow's order.
        const Perm p = normalized(x.perm, x.rank());
        const bool inOrder = p.empty() || sameDataOrder(x.shape, p, identityPerm(x.rank()));
        const std::string in = inOrder ? c.held(x) : c.plain(x);
        const bool zero = std::find(dims.begin(), dims.end(), 0) != dims.end();
        return {
            c.make(c.g.op("Reshape", {in, c.i64(c.ints(target, "the shape"))}, {attrInt("allowzero", zero ? 1 : 0)}),
                   x.type, dims)};
    }
    const std::string out = c.g.op("Reshape", {c.plain(x), c.plain(target)});
    if (target.ranked && target.rank() == 1 && target.shape[0] >= 0)
        return {c.make(out, x.type, std::vector<int64_t>(static_cast<size_t>(target.shape[0]), -1))};
    return {c.unranked(out, x.type)};
}

std::vector<ValuePtr> ops::squeeze(Context& c) {
    Value& x = c.in(0);
    std::vector<int64_t> dims = c.intsAttr("squeeze_dims");
    if (dims.empty()) dims = c.intsAttr("axis");
    if (!x.ranked) {
        if (!dims.empty()) c.fail("the input's rank is unknown");
        return {c.unranked(c.g.op("Squeeze", {c.plain(x)}), x.type)};
    }
    std::vector<int> axes;
    if (dims.empty()) {
        for (int i = 0; i < x.rank(); ++i) {
            if (x.shape[static_cast<size_t>(i)] < 0)
                c.fail("squeezes every axis of extent 1, and some extents are unknown");
            if (x.shape[static_cast<size_t>(i)] == 1) axes.push_back(i);
        }
    } else {
        for (int64_t d : dims) axes.push_back(normalizedAxis(c, d, x.rank()));
    }
    std::sort(axes.begin(), axes.end());
    axes.erase(std::unique(axes.begin(), axes.end()), axes.end());
    std::vector<int64_t> shape;
    for (int i = 0; i < x.rank(); ++i)
        if (std::find(axes.begin(), axes.end(), i) == axes.end()) shape.push_back(x.shape[static_cast<size_t>(i)]);
    if (axes.empty()) return {c.inputs[0]};
    if (foldable(x)) {
        Host h = c.constant(x, "the input");
        h.shape = shape;
        return {c.constantValue(std::move(h))};
    }
    std::vector<int64_t> onnx;
    for (int a : axes) onnx.push_back(onnxAxis(x, a));
    std::sort(onnx.begin(), onnx.end());
    return {c.make(c.g.op("Squeeze", {c.held(x), c.i64(onnx)}), x.type, shape, withoutAxes(x.perm, x.rank(), axes))};
}

std::vector<ValuePtr> ops::expandDims(Context& c) {
    Value& x = c.in(0);
    const int64_t axis = c.ints(c.in(1), "the axis").at(0);
    if (!x.ranked) {
        if (axis < 0) c.fail("the input's rank is unknown");
        return {c.unranked(c.g.op("Unsqueeze", {c.plain(x), c.i64({axis})}), x.type)};
    }
    const int a = normalizedAxis(c, axis, x.rank() + 1);
    std::vector<int64_t> shape = x.shape;
    shape.insert(shape.begin() + a, 1);
    if (foldable(x)) {
        Host h = c.constant(x, "the input");
        h.shape = shape;
        return {c.constantValue(std::move(h))};
    }
    const auto [perm, position] = insertAxis(normalized(x.perm, x.rank()), x.rank(), a);
    return {c.make(c.g.op("Unsqueeze", {c.held(x), c.i64({position})}), x.type, shape, perm)};
}

std::vector<ValuePtr> ops::transpose(Context& c) {
    Value& x = c.in(0);
    const std::vector<int64_t> p64 = c.ints(c.in(1), "the permutation");
    const Perm p(p64.begin(), p64.end());
    const int rank = static_cast<int>(p.size());
    if (x.ranked && x.rank() != rank) c.fail("the permutation does not match the input's rank");
    if (foldable(x)) return {c.constantValue(transposedHost(c.constant(x, "the input"), p))};
    // No data move: the result is x itself, described in the new axis order.
    const Perm inv = inverse(p);
    const Perm held = normalized(x.perm, rank).empty() ? identityPerm(rank) : x.perm;
    Perm result;
    for (int axis : held) result.push_back(inv[static_cast<size_t>(axis)]);
    std::vector<int64_t> shape(static_cast<size_t>(rank), -1);
    if (x.ranked)
        for (int i = 0; i < rank; ++i)
            shape[static_cast<size_t>(i)] = x.shape[static_cast<size_t>(p[static_cast<size_t>(i)])];
    return {c.make(c.held(x), x.type, shape, result)};
}

std::vector<ValuePtr> ops::concat(Context& c) {
    const bool axisFirst = c.node->op == "Concat";
    const size_t n = c.inputCount() - 1;
    Value& axisValue = c.in(axisFirst ? 0 : n);
    std::vector<Value*> values;
    for (size_t i = 0; i < n; ++i) values.push_back(&c.in(axisFirst ? i + 1 : i));
    if (values.size() == 1) return {c.inputs[axisFirst ? 1 : 0]};
    int rank = -1;
    for (Value* v : values)
        if (v->ranked) rank = v->rank();
    const int64_t rawAxis = c.ints(axisValue, "the axis").at(0);
    if (rank < 0) {
        std::vector<std::string> names;
        for (Value* v : values) names.push_back(c.plain(*v));
        return {c.unranked(c.g.op("Concat", names, {attrInt("axis", rawAxis)}), values[0]->type)};
    }
    const int axis = normalizedAxis(c, rawAxis, rank);
    bool fold = true;
    for (Value* v : values) fold = fold && foldable(*v);
    if (fold) {
        std::vector<Host> hs;
        for (Value* v : values) hs.push_back(c.constant(*v, "an input"));
        return {c.constantValue(concatHosts(hs, axis))};
    }
    std::vector<const Value*> views(values.begin(), values.end());
    const Perm perm = commonLayout(c, views, rank);
    std::vector<std::string> names;
    std::vector<int64_t> shape(static_cast<size_t>(rank), -1);
    int64_t total = 0;
    for (Value* v : values) {
        if (v->rank() != rank) c.fail("inputs of different ranks");
        names.push_back(c.inLayout(*v, perm));
        const int64_t d = v->shape[static_cast<size_t>(axis)];
        total = (total < 0 || d < 0) ? -1 : total + d;
        for (int i = 0; i < rank; ++i)
            if (i != axis && v->shape[static_cast<size_t>(i)] >= 0)
                shape[static_cast<size_t>(i)] = v->shape[static_cast<size_t>(i)];
    }
    shape[static_cast<size_t>(axis)] = total;
    Value layout;
    layout.ranked = true;
    layout.shape = shape;
    layout.perm = perm;
    const std::string out = c.g.op("Concat", names, {attrInt("axis", onnxAxis(layout, axis))});
    return {c.make(out, values[0]->type, shape, perm)};
}

std::vector<ValuePtr> ops::pack(Context& c) {
    const size_t n = c.inputCount();
    Value& first = c.in(0);
    if (!first.ranked) c.fail("the inputs' rank is unknown");
    const int axis = normalizedAxis(c, c.intAttr("axis", 0), first.rank() + 1);
    std::vector<int64_t> shape = first.shape;
    shape.insert(shape.begin() + axis, static_cast<int64_t>(n));
    if (allFoldable(c, 0, n)) {
        std::vector<Host> hs;
        for (size_t i = 0; i < n; ++i) {
            Host h = c.constant(c.in(i), "an input");
            h.shape.insert(h.shape.begin() + axis, 1);
            hs.push_back(std::move(h));
        }
        return {c.constantValue(concatHosts(hs, axis))};
    }
    std::vector<std::string> names;
    for (size_t i = 0; i < n; ++i) names.push_back(c.g.op("Unsqueeze", {c.plain(c.in(i)), c.i64({axis})}));
    return {c.make(n == 1 ? names[0] : c.g.op("Concat", names, {attrInt("axis", axis)}), first.type, shape)};
}

std::vector<ValuePtr> ops::unpack(Context& c) {
    Value& x = c.in(0);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int axis = normalizedAxis(c, c.intAttr("axis", 0), x.rank());
    const int64_t num = c.intAttr("num", x.shape[static_cast<size_t>(axis)]);
    if (num <= 0) c.fail("the number of outputs is unknown");
    std::vector<int64_t> shape = x.shape;
    shape.erase(shape.begin() + axis);
    const Perm perm = withoutAxes(x.perm, x.rank(), {axis});
    const int onnx = onnxAxis(x, axis);
    std::vector<ValuePtr> out;
    if (foldable(x)) {
        const Host h = c.constant(x, "the input");
        for (int64_t k = 0; k < num; ++k) {
            std::vector<std::vector<int64_t>> index;
            for (int i = 0; i < x.rank(); ++i)
                index.push_back(i == axis ? std::vector<int64_t>{k} : iota(h.shape[static_cast<size_t>(i)]));
            Host piece = take(h, index);
            piece.shape = shape;
            out.push_back(c.constantValue(std::move(piece)));
        }
        return out;
    }
    const std::vector<std::string> pieces =
        num == 1 ? std::vector<std::string>{c.held(x)}
                 : c.g.ops("Split", {c.held(x)}, static_cast<int>(num), {attrInt("axis", onnx)});
    for (const std::string& piece : pieces)
        out.push_back(c.make(c.g.op("Squeeze", {piece, c.i64({onnx})}), x.type, shape, perm));
    return out;
}

namespace {

std::vector<ValuePtr> splitInto(Context& c, Value& x, int64_t rawAxis, std::vector<int64_t> sizes) {
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int axis = normalizedAxis(c, rawAxis, x.rank());
    const int64_t extent = x.shape[static_cast<size_t>(axis)];
    const auto free = std::find(sizes.begin(), sizes.end(), -1);
    if (free != sizes.end()) {
        if (extent < 0) c.fail("a split size of -1 on an axis of unknown extent");
        *free = extent - (std::accumulate(sizes.begin(), sizes.end(), int64_t{0}) + 1);
    }
    const std::vector<std::string> pieces = c.g.ops("Split", {c.held(x), c.i64(sizes)}, static_cast<int>(sizes.size()),
                                                   {attrInt("axis", onnxAxis(x, axis))});
    std::vector<ValuePtr> out;
    for (size_t i = 0; i < pieces.size(); ++i) {
        std::vector<int64_t> shape = x.shape;
        shape[static_cast<size_t>(axis)] = sizes[i];
        out.push_back(c.make(pieces[i], x.type, shape, x.perm));
    }
    return out;
}

}  // namespace

std::vector<ValuePtr> ops::split(Context& c) {
    Value& x = c.in(1);
    const int64_t axis = c.ints(c.in(0), "the axis").at(0);
    const int64_t n = c.intAttr("num_split", 1);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int64_t extent = x.shape[static_cast<size_t>(normalizedAxis(c, axis, x.rank()))];
    if (extent < 0) {  // equal pieces of an extent known only at run time
        const std::vector<std::string> pieces =
            c.g.ops("Split", {c.held(x)}, static_cast<int>(n), {attrInt("axis", onnxAxis(x, axis))});
        std::vector<ValuePtr> out;
        for (const std::string& p : pieces) out.push_back(c.make(p, x.type, x.shape, x.perm));
        return out;
    }
    if (n <= 0 || extent % n != 0) c.fail("the axis does not split into " + std::to_string(n) + " equal pieces");
    return splitInto(c, x, axis, std::vector<int64_t>(static_cast<size_t>(n), extent / n));
}

std::vector<ValuePtr> ops::splitV(Context& c) {
    return splitInto(c, c.in(0), c.ints(c.in(2), "the axis").at(0), c.ints(c.in(1), "the split sizes"));
}

std::vector<ValuePtr> ops::slice(Context& c) {
    Value& x = c.in(0);
    Value& begin = c.in(1);
    Value& size = c.in(2);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int rank = x.rank();
    std::vector<int64_t> shape(static_cast<size_t>(rank), -1);
    if (begin.isConst() && size.isConst()) {
        const std::vector<int64_t> b = c.ints(begin, "the begin"), s = c.ints(size, "the size");
        std::vector<std::vector<int64_t>> index;
        for (int i = 0; i < rank; ++i) {
            const int64_t d = x.shape[static_cast<size_t>(i)];
            shape[static_cast<size_t>(i)] = s[static_cast<size_t>(i)] >= 0 ? s[static_cast<size_t>(i)]
                                            : d < 0                        ? -1
                                                                           : d - b[static_cast<size_t>(i)];
            index.push_back(iota(shape[static_cast<size_t>(i)], b[static_cast<size_t>(i)]));
        }
        if (foldable(x)) return {c.constantValue(take(c.constant(x, "the input"), index))};
        std::vector<int64_t> starts, ends, axes;
        for (int i = 0; i < rank; ++i) {
            const int64_t bi = b[static_cast<size_t>(i)], si = s[static_cast<size_t>(i)];
            if (bi == 0 && (si == -1 || si == x.shape[static_cast<size_t>(i)])) continue;
            starts.push_back(bi);
            ends.push_back(si == -1 ? kMaxIndex : bi + si);
            axes.push_back(onnxAxis(x, i));
        }
        if (axes.empty()) return {c.inputs[0]};
        return {c.make(c.g.op("Slice", {c.held(x), c.i64(starts), c.i64(ends), c.i64(axes)}), x.type, shape, x.perm)};
    }
    // Bounds known at run time: TensorFlow's order, each with its ONNX axis.
    std::vector<int64_t> axes;
    for (int i = 0; i < rank; ++i) axes.push_back(onnxAxis(x, i));
    const std::string b = c.plain(begin), s = c.plain(size);
    const std::string ends =
        c.g.op("Where", {c.g.op("Equal", {s, c.i64Scalar(-1)}), c.i64Scalar(kMaxIndex), c.g.op("Add", {b, s})});
    return {c.make(c.g.op("Slice", {c.held(x), b, ends, c.i64(axes)}), x.type, shape, x.perm)};
}

std::vector<ValuePtr> ops::stridedSlice(Context& c) {
    Value& x = c.in(0);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const SlicePlan plan = stridedPlan(c, x.rank());
    std::vector<int> shrunk;
    for (int i = 0; i < x.rank(); ++i)
        if (plan.axes[static_cast<size_t>(i)].shrink) shrunk.push_back(i);
    const std::vector<int64_t> sliced = slicedShape(plan, x.shape);
    const std::vector<int64_t> shape = withNewAxes(sliced, plan.newAxes);
    if (foldable(x)) {
        const Host h = c.constant(x, "the input");
        std::vector<std::vector<int64_t>> index;
        for (int i = 0; i < x.rank(); ++i) {
            index.push_back(plan.axes[static_cast<size_t>(i)].indices(h.shape[static_cast<size_t>(i)]));
            for (int64_t k : index.back())
                if (k < 0 || k >= h.shape[static_cast<size_t>(i)])
                    c.fail("index " + std::to_string(k) + " is out of range");
        }
        Host out = take(h, index);
        out.shape = shape;
        return {c.constantValue(std::move(out))};
    }
    // New axes go in TensorFlow's order, so their input does too.
    const bool plain = !plan.newAxes.empty();
    Value* current = &x;
    ValuePtr tmp;
    if (plain && !normalized(x.perm, x.rank()).empty()) {
        tmp = c.make(c.plain(x), x.type, x.shape);
        current = tmp.get();
    }
    std::vector<int64_t> starts, ends, axes, steps;
    for (int i = 0; i < x.rank(); ++i) {
        const AxisSlice& s = plan.axes[static_cast<size_t>(i)];
        if (s.full) continue;
        const int64_t lowest = s.stride > 0 ? 0 : kMaxIndex, highest = s.stride > 0 ? kMaxIndex : INT64_MIN;
        starts.push_back(s.shrink ? s.begin : s.beginMask ? lowest : s.begin);
        ends.push_back(s.shrink ? (s.begin == -1 ? kMaxIndex : s.begin + 1) : s.endMask ? highest : s.end);
        steps.push_back(s.shrink ? 1 : s.stride);
        axes.push_back(onnxAxis(*current, i));
    }
    std::string out = c.held(*current);
    if (!axes.empty()) out = c.g.op("Slice", {out, c.i64(starts), c.i64(ends), c.i64(axes), c.i64(steps)});
    Perm perm = current->perm;
    if (!shrunk.empty()) {
        std::vector<int64_t> onnx;
        for (int a : shrunk) onnx.push_back(onnxAxis(*current, a));
        std::sort(onnx.begin(), onnx.end());
        out = c.g.op("Squeeze", {out, c.i64(onnx)});
        perm = withoutAxes(perm, x.rank(), shrunk);
    }
    if (!plan.newAxes.empty()) {
        const std::vector<int64_t> at(plan.newAxes.begin(), plan.newAxes.end());
        out = c.g.op("Unsqueeze", {out, c.i64(at)});
    }
    return {c.make(out, x.type, shape, perm)};
}

std::vector<ValuePtr> ops::pad(Context& c) {
    Value& x = c.in(0);
    Value& paddings = c.in(1);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int rank = x.rank();
    const Perm p = normalized(x.perm, rank).empty() ? identityPerm(rank) : x.perm;
    std::string mode = "constant";
    if (c.node->op == "MirrorPad") {
        const std::string m = c.stringAttr("mode", "REFLECT");
        if (m != "REFLECT") c.fail("mirror padding mode " + m + " is not supported");
        mode = "reflect";
    }
    std::vector<int64_t> shape = x.shape;
    std::string pads;
    if (paddings.isConst()) {
        const std::vector<int64_t> tf = c.ints(paddings, "the paddings");
        if (tf.size() != static_cast<size_t>(2 * rank)) c.fail("paddings do not match the input's rank");
        if (std::all_of(tf.begin(), tf.end(), [](int64_t v) { return v == 0; })) return {c.inputs[0]};
        std::vector<int64_t> onnx(static_cast<size_t>(2 * rank));
        for (int j = 0; j < rank; ++j) {
            onnx[static_cast<size_t>(j)] = tf[static_cast<size_t>(2 * p[static_cast<size_t>(j)])];
            onnx[static_cast<size_t>(rank + j)] = tf[static_cast<size_t>(2 * p[static_cast<size_t>(j)] + 1)];
        }
        for (int i = 0; i < rank; ++i)
            if (shape[static_cast<size_t>(i)] >= 0)
                shape[static_cast<size_t>(i)] += tf[static_cast<size_t>(2 * i)] + tf[static_cast<size_t>(2 * i + 1)];
        pads = c.i64(onnx);
    } else {
        std::vector<int64_t> order(static_cast<size_t>(2 * rank));
        for (int j = 0; j < rank; ++j) {
            order[static_cast<size_t>(j)] = 2 * p[static_cast<size_t>(j)];
            order[static_cast<size_t>(rank + j)] = 2 * p[static_cast<size_t>(j)] + 1;
        }
        const std::string flat = c.g.op("Reshape", {c.plain(paddings), c.i64({-1})});
        pads = c.g.op("Gather", {flat, c.i64(order)}, {attrInt("axis", 0)});
        std::fill(shape.begin(), shape.end(), -1);
    }
    std::vector<std::string> inputs{c.held(x), pads};
    if (c.inputCount() > 2) inputs.push_back(c.held(c.in(2)));
    return {c.make(c.g.op("Pad", inputs, {attrString("mode", mode)}), x.type, shape, x.perm)};
}

std::vector<ValuePtr> ops::tile(Context& c) {
    Value& x = c.in(0);
    Value& multiples = c.in(1);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const int rank = x.rank();
    const Perm p = normalized(x.perm, rank).empty() ? identityPerm(rank) : x.perm;
    std::vector<int64_t> shape(static_cast<size_t>(rank), -1);
    std::string reps;
    if (multiples.isConst()) {
        const std::vector<int64_t> m = c.ints(multiples, "the multiples");
        std::vector<int64_t> onnx;
        for (int axis : p) onnx.push_back(m.at(static_cast<size_t>(axis)));
        for (int i = 0; i < rank; ++i)
            if (x.shape[static_cast<size_t>(i)] >= 0)
                shape[static_cast<size_t>(i)] = x.shape[static_cast<size_t>(i)] * m[static_cast<size_t>(i)];
        reps = c.i64(onnx);
    } else {
        reps = c.g.op("Gather", {c.plain(multiples), c.i64(std::vector<int64_t>(p.begin(), p.end()))},
                      {attrInt("axis", 0)});
    }
    return {c.make(c.g.op("Tile", {c.held(x), reps}), x.type, shape, x.perm)};
}

std::vector<ValuePtr> ops::fill(Context& c) {
    Value& dims = c.in(0);
    Value& value = c.in(1);
    if (dims.isConst() && foldable(value)) {
        const std::vector<int64_t> d = c.ints(dims, "the dimensions");
        if (product(d) <= (1 << 16)) {
            const Host v = c.constant(value, "the value");
            return {c.constantValue(Host{v.type, d, std::vector<double>(static_cast<size_t>(product(d)), v.v.at(0))})};
        }
    }
    const std::string out = c.g.op("Expand", {c.plain(value), c.plain(dims)});
    if (dims.isConst()) return {c.make(out, value.type, c.ints(dims, "the dimensions"))};
    if (dims.ranked && dims.rank() == 1 && dims.shape[0] >= 0)
        return {c.make(out, value.type, std::vector<int64_t>(static_cast<size_t>(dims.shape[0]), -1))};
    return {c.unranked(out, value.type)};
}

namespace {

std::vector<ValuePtr> filledLike(Context& c, double fillValue) {
    Value& x = c.in(0);
    if (x.staticShape() && product(x.shape) <= (1 << 16))
        return {c.constantValue(
            Host{x.type, x.shape, std::vector<double>(static_cast<size_t>(product(x.shape)), fillValue)})};
    if (x.type == DType::Bool) c.fail("boolean tensors of run-time shape are not supported");
    const std::string out = c.g.op("ConstantOfShape", {c.g.op("Shape", {c.held(x)})},
                                   {attrScalarTensor("value", mlType(x.type), fillValue)});
    return {x.ranked ? c.make(out, x.type, x.shape, x.perm) : c.unranked(out, x.type)};
}

}  // namespace

std::vector<ValuePtr> ops::zerosLike(Context& c) { return filledLike(c, 0.0); }
std::vector<ValuePtr> ops::onesLike(Context& c) { return filledLike(c, 1.0); }

std::vector<ValuePtr> ops::broadcastTo(Context& c) {
    Value& x = c.in(0);
    Value& target = c.in(1);
    int rank = -1;
    std::vector<int64_t> shape;
    if (target.isConst()) {
        shape = c.ints(target, "the shape");
        rank = static_cast<int>(shape.size());
    } else if (target.ranked && target.rank() == 1 && target.shape[0] >= 0) {
        rank = static_cast<int>(target.shape[0]);
        shape.assign(static_cast<size_t>(rank), -1);
    }
    const Perm p = normalized(x.perm, x.rank());
    if (rank >= 0 && x.rank() == rank && !p.empty()) {  // stays in x's layout
        const std::string dims =
            target.isConst() ? [&] {
                std::vector<int64_t> onnx;
                for (int axis : p) onnx.push_back(shape[static_cast<size_t>(axis)]);
                return c.i64(onnx);
            }()
                             : c.g.op("Gather", {c.plain(target), c.i64(std::vector<int64_t>(p.begin(), p.end()))},
                                      {attrInt("axis", 0)});
        return {c.make(c.g.op("Expand", {c.held(x), dims}), x.type, shape, p)};
    }
    const std::string out = c.g.op("Expand", {c.plain(x), c.plain(target)});
    return {rank >= 0 ? c.make(out, x.type, shape) : c.unranked(out, x.type)};
}

std::vector<ValuePtr> ops::range(Context& c) {
    Value& start = c.in(0);
    Value& limit = c.in(1);
    Value& delta = c.in(2);
    if (foldable(start) && foldable(limit) && foldable(delta)) {
        const double s = c.constant(start, "").v.at(0), l = c.constant(limit, "").v.at(0),
                     d = c.constant(delta, "").v.at(0);
        if (d == 0) c.fail("a delta of 0");
        Host h{start.type, {0}, {}};
        for (double x = s; d > 0 ? x < l : x > l; x += d) h.v.push_back(x);
        h.shape[0] = h.count();
        return {c.constantValue(std::move(h))};
    }
    return {c.make(c.g.op("Range", {c.plain(start), c.plain(limit), c.plain(delta)}), start.type, {-1})};
}

std::vector<ValuePtr> ops::gather(Context& c) {
    Value& params = c.in(0);
    Value& indices = c.in(1);
    if (c.intAttr("batch_dims", 0) != 0) c.fail("batch_dims other than 0 are not supported");
    if (!params.ranked || !indices.ranked) c.fail("the inputs' ranks are unknown");
    const int64_t rawAxis = c.node->op == "GatherV2" ? c.ints(c.in(2), "the axis").at(0) : 0;
    const int axis = normalizedAxis(c, rawAxis, params.rank());
    std::vector<int64_t> shape(params.shape.begin(), params.shape.begin() + axis);
    shape.insert(shape.end(), indices.shape.begin(), indices.shape.end());
    shape.insert(shape.end(), params.shape.begin() + axis + 1, params.shape.end());
    if (foldable(params) && foldable(indices)) {
        const Host h = c.constant(params, "the params");
        std::vector<int64_t> picks = c.ints(indices, "the indices");
        for (int64_t& k : picks) {
            const int64_t n = h.shape[static_cast<size_t>(axis)];
            if (k < -n || k >= n) c.fail("index " + std::to_string(k) + " is out of range");
            if (k < 0) k += n;
        }
        std::vector<std::vector<int64_t>> index;
        for (int i = 0; i < params.rank(); ++i)
            index.push_back(i == axis ? picks : iota(h.shape[static_cast<size_t>(i)]));
        Host out = take(h, index);
        out.shape = shape;
        return {c.constantValue(std::move(out))};
    }
    if (indices.rank() == 0)  // one index: the axis goes away, the layout stays
        return {c.make(c.g.op("Gather", {c.held(params), c.held(indices)}, {attrInt("axis", onnxAxis(params, axis))}),
                       params.type, shape, withoutAxes(params.perm, params.rank(), {axis}))};
    return {c.make(c.g.op("Gather", {c.plain(params), c.plain(indices)}, {attrInt("axis", axis)}), params.type, shape)};
}

std::vector<ValuePtr> ops::gatherNd(Context& c) {
    Value& params = c.in(0);
    Value& indices = c.in(1);
    const std::string out = c.g.op("GatherND", {c.plain(params), c.plain(indices)});
    if (params.ranked && indices.ranked && indices.rank() > 0 && indices.shape.back() >= 0) {
        std::vector<int64_t> shape(indices.shape.begin(), indices.shape.end() - 1);
        shape.insert(shape.end(), params.shape.begin() + indices.shape.back(), params.shape.end());
        return {c.make(out, params.type, shape)};
    }
    return {c.unranked(out, params.type)};
}

}  // namespace qpkg::tfjs::graph
