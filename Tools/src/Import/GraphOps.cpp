#include "GraphOps.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <numeric>
#include <set>

#include "ImportError.h"

namespace qpkg::tfjs::graph {

namespace {

template <Binary Op>
std::vector<ValuePtr> binaryOp(Context& c) {
    return ops::binary(c, Op);
}
template <Unary Op>
std::vector<ValuePtr> unaryOp(Context& c) {
    return ops::unary(c, Op);
}
template <Reduction Op>
std::vector<ValuePtr> reduceOp(Context& c) {
    return ops::reduce(c, Op);
}

// Every TensorFlow op the importer converts. Placeholder and Const are the importer's own.
const std::map<std::string, Converter>& converters() {
    static const std::map<std::string, Converter> table = {
        // Convolutions, pooling, resizing, matrix products.
        {"Conv2D", ops::conv2d},
        {"_FusedConv2D", ops::conv2d},
        {"DepthwiseConv2dNative", ops::depthwiseConv2d},
        {"FusedDepthwiseConv2dNative", ops::depthwiseConv2d},
        {"Conv2DBackpropInput", ops::conv2dBackpropInput},
        {"SpaceToBatchND", ops::spaceToBatch},
        {"BatchToSpaceND", ops::batchToSpace},
        {"MaxPool", ops::maxPool},
        {"AvgPool", ops::avgPool},
        {"ResizeBilinear", ops::resizeBilinear},
        {"ResizeNearestNeighbor", ops::resizeNearest},
        {"DepthToSpace", ops::depthToSpace},
        {"SpaceToDepth", ops::spaceToDepth},
        {"MatMul", ops::matMul},
        {"_FusedMatMul", ops::matMul},
        {"BatchMatMul", ops::batchMatMul},
        {"BatchMatMulV2", ops::batchMatMul},
        {"FusedBatchNorm", ops::fusedBatchNorm},
        {"FusedBatchNormV2", ops::fusedBatchNorm},
        {"FusedBatchNormV3", ops::fusedBatchNorm},
        // Element-wise arithmetic and comparisons.
        {"Add", binaryOp<Binary::Add>},
        {"AddV2", binaryOp<Binary::Add>},
        {"BiasAdd", binaryOp<Binary::Add>},
        {"Sub", binaryOp<Binary::Sub>},
        {"Mul", binaryOp<Binary::Mul>},
        {"RealDiv", binaryOp<Binary::Div>},
        {"Div", binaryOp<Binary::Div>},
        {"FloorDiv", binaryOp<Binary::FloorDiv>},
        {"FloorMod", binaryOp<Binary::FloorMod>},
        {"Maximum", binaryOp<Binary::Max>},
        {"Minimum", binaryOp<Binary::Min>},
        {"Pow", binaryOp<Binary::Pow>},
        {"SquaredDifference", binaryOp<Binary::SquaredDifference>},
        {"Equal", binaryOp<Binary::Equal>},
        {"NotEqual", binaryOp<Binary::NotEqual>},
        {"Less", binaryOp<Binary::Less>},
        {"LessEqual", binaryOp<Binary::LessEqual>},
        {"Greater", binaryOp<Binary::Greater>},
        {"GreaterEqual", binaryOp<Binary::GreaterEqual>},
        {"LogicalAnd", binaryOp<Binary::And>},
        {"LogicalOr", binaryOp<Binary::Or>},
        {"Prelu", binaryOp<Binary::Prelu>},
        {"Atan2", binaryOp<Binary::Atan2>},
        {"AddN", ops::addN},
        {"Select", ops::select},
        {"SelectV2", ops::select},
        {"Cast", ops::cast},
        {"ClipByValue", ops::clipByValue},
        // Activations and other element-wise functions.
        {"Relu", unaryOp<Unary::Relu>},
        {"Relu6", unaryOp<Unary::Relu6>},
        {"Elu", unaryOp<Unary::Elu>},
        {"Selu", unaryOp<Unary::Selu>},
        {"LeakyRelu", unaryOp<Unary::LeakyRelu>},
        {"Sigmoid", unaryOp<Unary::Sigmoid>},
        {"Tanh", unaryOp<Unary::Tanh>},
        {"Exp", unaryOp<Unary::Exp>},
        {"Log", unaryOp<Unary::Log>},
        {"Log1p", unaryOp<Unary::Log1p>},
        {"Neg", unaryOp<Unary::Neg>},
        {"Abs", unaryOp<Unary::Abs>},
        {"Sqrt", unaryOp<Unary::Sqrt>},
        {"Rsqrt", unaryOp<Unary::Rsqrt>},
        {"Square", unaryOp<Unary::Square>},
        {"Reciprocal", unaryOp<Unary::Reciprocal>},
        {"Inv", unaryOp<Unary::Reciprocal>},
        {"Floor", unaryOp<Unary::Floor>},
        {"Ceil", unaryOp<Unary::Ceil>},
        {"Round", unaryOp<Unary::Round>},
        {"Sign", unaryOp<Unary::Sign>},
        {"Softplus", unaryOp<Unary::Softplus>},
        {"Softsign", unaryOp<Unary::Softsign>},
        {"Sin", unaryOp<Unary::Sin>},
        {"Cos", unaryOp<Unary::Cos>},
        {"Erf", unaryOp<Unary::Erf>},
        {"LogicalNot", unaryOp<Unary::Not>},
        {"IsNan", unaryOp<Unary::IsNan>},
        // Reductions and selections along an axis.
        {"Sum", reduceOp<Reduction::Sum>},
        {"Mean", reduceOp<Reduction::Mean>},
        {"Max", reduceOp<Reduction::Max>},
        {"Min", reduceOp<Reduction::Min>},
        {"Prod", reduceOp<Reduction::Prod>},
        {"ArgMax", ops::argMax},
        {"ArgMin", ops::argMin},
        {"TopKV2", ops::topK},
        {"Softmax", ops::softmax},
        {"LogSoftmax", ops::logSoftmax},
        // Shapes, slicing, joining, gathering.
        {"Identity", ops::identity},
        {"StopGradient", ops::identity},
        {"Snapshot", ops::identity},
        {"NoOp", ops::noOp},
        {"Shape", ops::shape},
        {"Size", ops::size},
        {"Reshape", ops::reshape},
        {"Squeeze", ops::squeeze},
        {"ExpandDims", ops::expandDims},
        {"Transpose", ops::transpose},
        {"ConcatV2", ops::concat},
        {"Concat", ops::concat},
        {"Pack", ops::pack},
        {"Unpack", ops::unpack},
        {"Split", ops::split},
        {"SplitV", ops::splitV},
        {"Slice", ops::slice},
        {"StridedSlice", ops::stridedSlice},
        {"Pad", ops::pad},
        {"PadV2", ops::pad},
        {"MirrorPad", ops::pad},
        {"Tile", ops::tile},
        {"Fill", ops::fill},
        {"ZerosLike", ops::zerosLike},
        {"OnesLike", ops::onesLike},
        {"BroadcastTo", ops::broadcastTo},
        {"Range", ops::range},
        {"Gather", ops::gather},
        {"GatherV2", ops::gather},
        {"GatherNd", ops::gatherNd},
        // TF1 conditionals, resolved at import time.
        {"Switch", ops::switchOp},
        {"Merge", ops::merge},
    };
    return table;
}

std::string base64Decode(const std::string& in) {
    static const std::string chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    int bits = 0;
    uint32_t acc = 0;  // fewer than 8 pending bits between characters
    for (char ch : in) {
        const size_t k = chars.find(ch);
        if (k == std::string::npos) continue;  // padding and line breaks
        acc = (acc << 6) | static_cast<uint32_t>(k);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<char>((acc >> bits) & 0xff));
            acc &= (1u << bits) - 1;
        }
    }
    return out;
}

int64_t jsonInt(const nlohmann::json& j) { return jsonInteger(j, "an integer attribute"); }

double jsonFloat(const nlohmann::json& j) {
    if (j.is_string()) {  // "NaN", "Infinity", "-Infinity" as the JSON writer of protobuf spells them
        const std::string s = j.get<std::string>();
        if (s == "NaN") return NAN;
        if (s == "Infinity") return INFINITY;
        if (s == "-Infinity") return -INFINITY;
        return std::stod(s);
    }
    return j.get<double>();
}

// The Reshape target that brings a tensor held in layout `from` to layout `to` when only extents
// of 1 change places (an extent known only at run time must keep its place); empty when it takes a
// Transpose.
std::vector<int64_t> reshapeTarget(const std::vector<int64_t>& shape, const Perm& from, const Perm& to) {
    if (!sameDataOrder(shape, from, to) || std::find(shape.begin(), shape.end(), 0) != shape.end()) return {};
    std::vector<int64_t> dims;
    int free = 0;
    for (size_t j = 0; j < to.size(); ++j) {
        const int64_t d = shape[static_cast<size_t>(to[j])];
        if (d >= 0)
            dims.push_back(d);
        else if (from[j] == to[j])
            dims.push_back(0);  // Reshape copies it from the same place
        else if (++free == 1)
            dims.push_back(-1);
        else
            return {};
    }
    return dims;
}

// Constants up to this many elements are computed with at import time.
constexpr int64_t kFoldLimit = 1 << 16;

Host permuted(const Host& h, const std::vector<int64_t>& shape, const Perm& perm) {
    Host out{h.type, shape, h.v};
    if (perm.empty()) return out;
    const size_t rank = shape.size();
    std::vector<int64_t> stride(rank, 1);
    for (size_t i = rank; i-- > 1;) stride[i - 1] = stride[i] * shape[i];
    std::vector<int64_t> outStride(rank, 1);
    for (size_t j = 0; j < rank; ++j) out.shape[j] = shape[static_cast<size_t>(perm[j])];
    for (size_t j = rank; j-- > 1;) outStride[j - 1] = outStride[j] * out.shape[j];
    for (size_t o = 0; o < out.v.size(); ++o) {
        int64_t src = 0;
        for (size_t j = 0; j < rank; ++j)
            src += (static_cast<int64_t>(o) / outStride[j] % out.shape[j]) * stride[static_cast<size_t>(perm[j])];
        out.v[o] = h.v[static_cast<size_t>(src)];
    }
    return out;
}

}  // namespace

const Perm kNCHW = {0, 3, 1, 2};

bool foldable(const Value& v) {
    return v.host != nullptr || (v.weight != nullptr && v.weight->elementCount() <= kFoldLimit);
}

Host transposedHost(const Host& h, const Perm& perm) { return permuted(h, h.shape, perm); }

Converter converterFor(const std::string& op) {
    const auto it = converters().find(op);
    return it == converters().end() ? nullptr : it->second;
}

bool isLoopOp(const std::string& op) {
    static const std::set<std::string> loops = {"Enter",    "Exit",    "NextIteration",
                                                "LoopCond", "While",   "StatelessWhile",
                                                "RefEnter", "RefExit", "RefNextIteration"};
    return loops.count(op) != 0 || op.rfind("TensorList", 0) == 0 || op.rfind("TensorArray", 0) == 0;
}

int64_t Host::count() const { return static_cast<int64_t>(v.size()); }

std::vector<int64_t> Host::ints() const {
    std::vector<int64_t> out;
    for (double x : v) out.push_back(static_cast<int64_t>(std::llround(x)));
    return out;
}

bool Value::staticShape() const {
    return ranked && std::all_of(shape.begin(), shape.end(), [](int64_t d) { return d >= 0; });
}

bool sameDataOrder(const std::vector<int64_t>& shape, const Perm& from, const Perm& to) {
    std::vector<int> a, b;
    for (int axis : from)
        if (shape[static_cast<size_t>(axis)] != 1) a.push_back(axis);
    for (int axis : to)
        if (shape[static_cast<size_t>(axis)] != 1) b.push_back(axis);
    return a == b;
}

Perm identityPerm(int rank) {
    Perm p(static_cast<size_t>(std::max(rank, 0)));
    std::iota(p.begin(), p.end(), 0);
    return p;
}

bool isIdentity(const Perm& perm) {
    for (size_t i = 0; i < perm.size(); ++i)
        if (perm[i] != static_cast<int>(i)) return false;
    return true;
}

Perm normalized(const Perm& perm, int rank) {
    if (perm.empty() || isIdentity(perm) || static_cast<int>(perm.size()) != rank) return {};
    return perm;
}

Perm inverse(const Perm& perm) {
    Perm inv(perm.size());
    for (size_t i = 0; i < perm.size(); ++i) inv[static_cast<size_t>(perm[i])] = static_cast<int>(i);
    return inv;
}

int onnxAxis(const Value& v, int64_t a) {
    const int rank = v.rank();
    if (a < 0) a += rank;
    const Perm p = normalized(v.perm, rank);
    return p.empty() ? static_cast<int>(a) : inverse(p)[static_cast<size_t>(a)];
}

Perm withoutAxes(const Perm& perm, int rank, const std::vector<int>& removed) {
    if (normalized(perm, rank).empty()) return {};
    Perm out;
    for (int axis : perm) {
        if (std::find(removed.begin(), removed.end(), axis) != removed.end()) continue;
        out.push_back(axis -
                      static_cast<int>(std::count_if(removed.begin(), removed.end(), [&](int r) { return r < axis; })));
    }
    return normalized(out, static_cast<int>(out.size()));
}

std::vector<int64_t> heldShape(const Value& v) {
    const Perm p = normalized(v.perm, v.rank());
    if (p.empty()) return v.shape;
    std::vector<int64_t> out;
    for (int axis : p) out.push_back(v.shape[static_cast<size_t>(axis)]);
    return out;
}

int64_t product(const std::vector<int64_t>& shape) {
    int64_t n = 1;
    for (int64_t d : shape) n *= d;
    return n;
}

ML::u32 mlType(DType t) { return t == DType::Float ? ML::F32 : ML::I64; }

int onnxType(DType t) {
    switch (t) {
        case DType::Float: return onnx::TensorProto::FLOAT;
        case DType::Int: return onnx::TensorProto::INT64;
        default: return onnx::TensorProto::BOOL;
    }
}

DType dtypeOf(const std::string& tfType) {
    if (tfType == "DT_FLOAT" || tfType == "DT_HALF" || tfType == "DT_DOUBLE") return DType::Float;
    if (tfType == "DT_INT32" || tfType == "DT_INT64" || tfType == "DT_UINT8" || tfType == "DT_INT16" ||
        tfType == "DT_INT8")
        return DType::Int;
    if (tfType == "DT_BOOL") return DType::Bool;
    throw ImportError("element type " + tfType + " is not supported");
}

void Context::fail(const std::string& why) const {
    throw ImportError(model.file.string() + ": Cannot import node '" + (node ? node->name : std::string("?")) +
                      "' (op " + (node ? node->op : std::string("?")) + "): " + why);
}

Value& Context::in(size_t i) const {
    if (i >= inputs.size())
        fail("expected at least " + std::to_string(i + 1) + " inputs, found " + std::to_string(inputs.size()));
    return *inputs[i];
}

bool Context::hasAttr(const std::string& name) const { return node->attr && node->attr->contains(name); }

int64_t Context::intAttr(const std::string& name, int64_t fallback) const {
    if (!hasAttr(name)) return fallback;
    const nlohmann::json& a = node->attr->at(name);
    return a.contains("i") ? jsonInt(a.at("i")) : fallback;
}

double Context::floatAttr(const std::string& name, double fallback) const {
    if (!hasAttr(name)) return fallback;
    const nlohmann::json& a = node->attr->at(name);
    return a.contains("f") ? jsonFloat(a.at("f")) : fallback;
}

bool Context::boolAttr(const std::string& name, bool fallback) const {
    if (!hasAttr(name)) return fallback;
    const nlohmann::json& a = node->attr->at(name);
    return a.contains("b") ? a.at("b").get<bool>() : fallback;
}

std::string Context::stringAttr(const std::string& name, const std::string& fallback) const {
    if (!hasAttr(name)) return fallback;
    const nlohmann::json& a = node->attr->at(name);
    return a.contains("s") ? base64Decode(a.at("s").get<std::string>()) : fallback;
}

std::vector<int64_t> Context::intsAttr(const std::string& name) const {
    std::vector<int64_t> out;
    if (!hasAttr(name)) return out;
    const nlohmann::json& a = node->attr->at(name);
    if (a.contains("list") && a.at("list").contains("i"))
        for (const nlohmann::json& x : a.at("list").at("i")) out.push_back(jsonInt(x));
    return out;
}

std::vector<std::string> Context::stringsAttr(const std::string& name) const {
    std::vector<std::string> out;
    if (!hasAttr(name)) return out;
    const nlohmann::json& a = node->attr->at(name);
    if (a.contains("list") && a.at("list").contains("s"))
        for (const nlohmann::json& x : a.at("list").at("s")) out.push_back(base64Decode(x.get<std::string>()));
    return out;
}

DType Context::typeAttr(const std::string& name, DType fallback) const {
    if (!hasAttr(name) || !node->attr->at(name).contains("type")) return fallback;
    try {
        return dtypeOf(node->attr->at(name).at("type").get<std::string>());
    } catch (const ImportError& e) {
        fail(e.what());
    }
}

Host Context::constant(const Value& v, const std::string& what) const {
    if (v.host) return *v.host;
    if (!v.weight) fail(what + " must be known when the graph is imported");
    const Weight& w = *v.weight;
    Host h{v.type, w.shape, {}};
    if (w.type == WeightType::Float32)
        h.v.assign(w.f32.begin(), w.f32.end());
    else if (w.type == WeightType::String)
        fail("weight " + w.name + " holds strings");
    else
        h.v.assign(w.i32.begin(), w.i32.end());
    return h;
}

std::string Context::writeConstant(const Value& v, const std::vector<int64_t>& shape, const Perm& perm) {
    if (v.weight) {
        const Weight* src = v.weight;
        Weight reshaped;
        if (shape != src->shape) {
            reshaped = *src;
            reshaped.shape = shape;
            src = &reshaped;
        }
        const std::string name = addWeight(g, *src, std::vector<int64_t>(perm.begin(), perm.end()));
        return v.type == DType::Bool ? g.op("Cast", {name}, {qpkg::attrInt("to", onnx::TensorProto::BOOL)}) : name;
    }
    Host h = *v.host;
    h.shape = shape;
    h = permuted(h, shape, perm);
    onnx::TensorProto t;
    for (int64_t d : h.shape) t.add_dims(d);
    t.set_data_type(onnxType(h.type));
    for (double x : h.v) {
        if (h.type == DType::Float)
            t.add_float_data(static_cast<float>(x));
        else if (h.type == DType::Int)
            t.add_int64_data(static_cast<int64_t>(std::llround(x)));
        else
            t.add_int32_data(x != 0);
    }
    return g.initializer(std::move(t), "c");
}

std::string Context::held(Value& v) {
    if (v.dead) fail("a value of the untaken side of a conditional is used");
    if (v.name.empty()) {
        if (!v.isConst()) fail("internal error: a value has no ONNX name");
        const Perm p = normalized(v.perm, v.rank());
        v.name = writeConstant(v, v.shape, p);
        v.copies[p] = v.name;
    }
    return v.name;
}

std::string Context::inLayout(Value& v, const Perm& want) {
    const int rank = v.ranked ? v.rank() : static_cast<int>(want.size());
    const Perm target = normalized(want, rank), current = normalized(v.perm, rank);
    if (target == current) return held(v);
    const auto it = v.copies.find(target);
    if (it != v.copies.end()) return it->second;
    std::string out;
    if (v.isConst()) {
        out = writeConstant(v, v.shape, target);
    } else {
        const Perm from = current.empty() ? identityPerm(rank) : current;
        const Perm to = target.empty() ? identityPerm(rank) : target;
        const Perm inv = inverse(from);
        const std::vector<int64_t> dims = v.ranked ? reshapeTarget(v.shape, from, to) : std::vector<int64_t>{};
        if (!dims.empty()) {
            out = g.op("Reshape", {held(v), i64(dims)});
        } else {
            std::vector<int64_t> q;
            for (int axis : to) q.push_back(inv[static_cast<size_t>(axis)]);
            out = g.op("Transpose", {held(v)}, {qpkg::attrInts("perm", q)});
        }
    }
    v.copies[target] = out;
    return out;
}

std::string Context::aligned(Value& v, int rank, const Perm& perm) {
    const Perm target = normalized(perm, rank);
    if (!v.ranked || v.rank() == rank) return inLayout(v, target);
    if (target.empty()) return plain(v);  // ONNX broadcasting lines up trailing axes as TensorFlow's does
    if (v.rank() == 0) return held(v);
    std::vector<int64_t> expanded(static_cast<size_t>(rank - v.rank()), 1);
    expanded.insert(expanded.end(), v.shape.begin(), v.shape.end());
    if (v.isConst()) return writeConstant(v, expanded, target);
    std::vector<int64_t> axes(static_cast<size_t>(rank - v.rank()));
    std::iota(axes.begin(), axes.end(), 0);
    Value wide = *make(g.op("Unsqueeze", {plain(v), i64(axes)}), v.type, expanded);
    return inLayout(wide, target);
}

ValuePtr Context::unranked(const std::string& name, DType type) const {
    auto v = std::make_shared<Value>();
    v->name = name;
    v->type = type;
    return v;
}

ValuePtr Context::make(const std::string& name, DType type, std::vector<int64_t> shape, const Perm& perm) const {
    ValuePtr v = unranked(name, type);
    v->perm = normalized(perm, static_cast<int>(shape.size()));
    v->ranked = true;
    v->shape = std::move(shape);
    return v;
}

ValuePtr Context::constantValue(Host h) const {
    auto v = std::make_shared<Value>();
    v->type = h.type;
    v->ranked = true;
    v->shape = h.shape;
    if (h.type == DType::Int)
        for (double& x : h.v) x = static_cast<double>(static_cast<int64_t>(x));
    if (h.type == DType::Bool)
        for (double& x : h.v) x = x != 0 ? 1 : 0;
    v->host = std::make_shared<const Host>(std::move(h));
    return v;
}

ValuePtr Context::deadValue() const {
    auto v = std::make_shared<Value>();
    v->dead = true;
    return v;
}

bool broadcastShape(const std::vector<const Value*>& values, std::vector<int64_t>& out) {
    size_t rank = 0;
    for (const Value* v : values) {
        if (!v->ranked) return false;
        rank = std::max(rank, v->shape.size());
    }
    out.assign(rank, 1);
    for (const Value* v : values) {
        const size_t offset = rank - v->shape.size();
        for (size_t i = 0; i < v->shape.size(); ++i) {
            const int64_t d = v->shape[i];
            int64_t& o = out[offset + i];
            if (d == 1) continue;
            if (o == 1)
                o = d;
            else if (o != d)
                o = -1;  // unknown or (for TensorFlow) an error found at run time
        }
    }
    return true;
}

namespace {

// Whether bringing v to the layout (at the given rank) takes a Transpose.
bool needsTranspose(const Value& v, int rank, const Perm& perm) {
    if (v.isConst() || !v.ranked || v.rank() == 0) return false;
    const Perm target = normalized(perm, rank);
    if (v.rank() < rank) {
        if (target.empty()) return false;
        std::vector<int64_t> expanded(static_cast<size_t>(rank - v.rank()), 1);
        expanded.insert(expanded.end(), v.shape.begin(), v.shape.end());
        return reshapeTarget(expanded, identityPerm(rank), target).empty();
    }
    const Perm current = normalized(v.perm, rank);
    if (current == target || v.copies.count(target)) return false;
    return reshapeTarget(v.shape, current.empty() ? identityPerm(rank) : current,
                         target.empty() ? identityPerm(rank) : target)
        .empty();
}

// Ops that take their (first) input in TensorFlow's order.
bool wantsTensorFlowOrder(const std::string& op) {
    static const std::set<std::string> ops = {"Reshape",       "GatherNd", "MatMul", "_FusedMatMul", "BatchMatMul",
                                              "BatchMatMulV2", "Pack",     "Fill",   "Range"};
    return ops.count(op) != 0;
}

}  // namespace

Perm commonLayout(const Context& c, const std::vector<const Value*>& values, int rank) {
    std::vector<Perm> candidates;
    for (const Value* v : values) {
        const Perm p = normalized(v->perm, v->rank());
        if (!v->isConst() && v->rank() == rank && !p.empty() &&
            std::find(candidates.begin(), candidates.end(), p) == candidates.end())
            candidates.push_back(p);
    }
    if (candidates.empty()) return {};
    bool plainConsumers = c.node && !c.node->consumers.empty();
    if (c.node)
        for (const Node* n : c.node->consumers) plainConsumers = plainConsumers && wantsTensorFlowOrder(n->op);
    if (!plainConsumers)
        candidates.push_back({});
    else
        candidates.insert(candidates.begin(), Perm{});
    Perm best;
    int bestCost = INT_MAX;
    for (const Perm& p : candidates) {
        int cost = 0;
        for (const Value* v : values) cost += needsTranspose(*v, rank, p);
        if (cost < bestCost) {
            best = p;
            bestCost = cost;
        }
    }
    return best;
}

std::string activation(Context& c, const std::string& name, const std::string& x) {
    if (name == "Relu") return c.g.op("Relu", {x});
    if (name == "Relu6") return c.g.clip(x, 0.0f, 6.0f);
    if (name == "Elu") return c.g.op("Elu", {x});
    if (name == "Sigmoid") return c.g.op("Sigmoid", {x});
    if (name == "Tanh") return c.g.op("Tanh", {x});
    if (name == "LeakyRelu")
        return c.g.op("LeakyRelu", {x}, {attrFloat("alpha", static_cast<float>(c.floatAttr("leakyrelu_alpha", 0.2)))});
    c.fail("fused activation " + name + " is not supported");
}

std::pair<int64_t, int64_t> samePads(int64_t in, int64_t kernel, int64_t stride, int64_t dilation) {
    const int64_t out = (in + stride - 1) / stride;
    const int64_t total = std::max<int64_t>((out - 1) * stride + (kernel - 1) * dilation + 1 - in, 0);
    return {total / 2, total - total / 2};
}

}  // namespace qpkg::tfjs::graph
