// Element-wise arithmetic, activations, comparisons, casts and reductions. They keep whatever
// layout their operands come in; constant operands are written in that layout, lower-rank
// operands are lined up as TensorFlow broadcasts them.
#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "GraphOps.h"

namespace qpkg::tfjs::graph {

namespace {

double asFloat32(double x) { return static_cast<double>(static_cast<float>(x)); }

// Element-wise f over constants, broadcasting as TensorFlow does.
Host foldElementwise(Context& c, const std::vector<const Value*>& operands, DType outType,
                     const std::function<double(const std::vector<double>&)>& f) {
    std::vector<Host> hs;
    for (const Value* v : operands) hs.push_back(c.constant(*v, "an operand"));
    std::vector<int64_t> shape;
    size_t rank = 0;
    for (const Host& h : hs) rank = std::max(rank, h.shape.size());
    shape.assign(rank, 1);
    for (const Host& h : hs)
        for (size_t i = 0; i < h.shape.size(); ++i) {
            int64_t& o = shape[rank - h.shape.size() + i];
            if (h.shape[i] != 1) {
                if (o != 1 && o != h.shape[i]) c.fail("operands of incompatible shapes");
                o = h.shape[i];
            }
        }
    Host out{outType, shape, std::vector<double>(static_cast<size_t>(product(shape)))};
    std::vector<int64_t> index(rank, 0);
    std::vector<double> args(hs.size());
    for (size_t o = 0; o < out.v.size(); ++o) {
        for (size_t k = 0; k < hs.size(); ++k) {
            const Host& h = hs[k];
            int64_t at = 0;
            for (size_t i = 0; i < h.shape.size(); ++i) {
                const int64_t d = h.shape[i];
                at = at * d + (d == 1 ? 0 : index[rank - h.shape.size() + i]);
            }
            args[k] = h.v[static_cast<size_t>(at)];
        }
        const double r = f(args);
        out.v[o] = outType == DType::Float ? asFloat32(r) : r;
        for (size_t i = rank; i-- > 0;) {
            if (++index[i] < shape[i]) break;
            index[i] = 0;
        }
    }
    return out;
}

// Lines the operands up (common rank and layout) and emits the op built by emit.
ValuePtr elementwise(Context& c, const std::vector<Value*>& operands, DType outType,
                     const std::function<std::string(const std::vector<std::string>&)>& emit) {
    std::vector<const Value*> views(operands.begin(), operands.end());
    std::vector<int64_t> shape;
    const bool ranked = broadcastShape(views, shape);
    const int rank = static_cast<int>(shape.size());
    const Perm perm = ranked ? commonLayout(c, views, rank) : Perm{};
    std::vector<std::string> names;
    for (Value* v : operands) names.push_back(ranked ? c.aligned(*v, rank, perm) : c.plain(*v));
    const std::string out = emit(names);
    return ranked ? c.make(out, outType, shape, perm) : c.unranked(out, outType);
}

bool isComparison(Binary op) {
    switch (op) {
        case Binary::Equal:
        case Binary::NotEqual:
        case Binary::Less:
        case Binary::LessEqual:
        case Binary::Greater:
        case Binary::GreaterEqual:
        case Binary::And:
        case Binary::Or: return true;
        default: return false;
    }
}

double hostBinary(Context& c, Binary op, DType type, double a, double b) {
    const bool ints = type == DType::Int;
    switch (op) {
        case Binary::Add: return a + b;
        case Binary::Sub: return a - b;
        case Binary::Mul: return a * b;
        case Binary::Div:
            if (ints && b == 0) c.fail("integer division by zero");
            return ints ? std::trunc(a / b) : a / b;
        case Binary::FloorDiv:
            if (ints && b == 0) c.fail("integer division by zero");
            return std::floor(a / b);
        case Binary::FloorMod:
            if (ints && b == 0) c.fail("integer division by zero");
            return a - std::floor(a / b) * b;
        case Binary::Max: return std::max(a, b);
        case Binary::Min: return std::min(a, b);
        case Binary::Pow: return std::pow(a, b);
        case Binary::SquaredDifference: return (a - b) * (a - b);
        case Binary::Equal: return a == b;
        case Binary::NotEqual: return a != b;
        case Binary::Less: return a < b;
        case Binary::LessEqual: return a <= b;
        case Binary::Greater: return a > b;
        case Binary::GreaterEqual: return a >= b;
        case Binary::And: return a != 0 && b != 0;
        case Binary::Or: return a != 0 || b != 0;
        case Binary::Prelu: return a > 0 ? a : a * b;
        case Binary::Atan2: return std::atan2(a, b);
    }
    return 0;
}

std::string emitBinary(Context& c, Binary op, DType type, const std::string& x, const std::string& y) {
    GraphBuilder& g = c.g;
    switch (op) {
        case Binary::Add: return g.op("Add", {x, y});
        case Binary::Sub: return g.op("Sub", {x, y});
        case Binary::Mul: return g.op("Mul", {x, y});
        case Binary::Div: return g.op("Div", {x, y});  // integers: truncation, as TensorFlow's Div
        case Binary::FloorDiv: {
            if (type != DType::Int) return g.op("Floor", {g.op("Div", {x, y})});
            // Truncated quotient, one less where the remainder is non-zero and of the other sign.
            const std::string q = g.op("Div", {x, y});
            const std::string r = g.op("Sub", {x, g.op("Mul", {q, y})});
            const std::string zero = c.i64Scalar(0);
            const std::string off = g.op("And", {g.op("Not", {g.op("Equal", {r, zero})}),
                                                 g.op("Xor", {g.op("Less", {r, zero}), g.op("Less", {y, zero})})});
            return g.op("Sub", {q, g.op("Cast", {off}, {attrInt("to", onnx::TensorProto::INT64)})});
        }
        case Binary::FloorMod:
            if (type == DType::Int) return g.op("Mod", {x, y});  // the sign of the divisor, as floor division
            return g.op("Sub", {x, g.op("Mul", {g.op("Floor", {g.op("Div", {x, y})}), y})});
        case Binary::Max: return g.op("Max", {x, y});
        case Binary::Min: return g.op("Min", {x, y});
        case Binary::Pow: return g.op("Pow", {x, y});
        case Binary::SquaredDifference: {
            const std::string d = g.op("Sub", {x, y});
            return g.op("Mul", {d, d});
        }
        case Binary::Equal: return g.op("Equal", {x, y});
        case Binary::NotEqual: return g.op("Not", {g.op("Equal", {x, y})});
        case Binary::Less: return g.op("Less", {x, y});
        case Binary::LessEqual: return g.op("LessOrEqual", {x, y});
        case Binary::Greater: return g.op("Greater", {x, y});
        case Binary::GreaterEqual: return g.op("GreaterOrEqual", {x, y});
        case Binary::And: return g.op("And", {x, y});
        case Binary::Or: return g.op("Or", {x, y});
        case Binary::Prelu: return g.op("PRelu", {x, y});
        case Binary::Atan2: {
            // atan(num / den), moved by pi where den < 0; where den = 0, sign(num) * pi/2.
            const std::string &num = x, &den = y;
            const float pi = 3.14159265358979f;
            const std::string zero = g.scalarF32(0.0f), base = g.op("Atan", {g.op("Div", {num, den})});
            const std::string left = g.op("Where", {g.op("GreaterOrEqual", {num, zero}), g.addScalar(base, pi),
                                                    g.addScalar(base, -pi)});
            const std::string vertical = g.mulScalar(g.op("Sign", {num}), pi / 2);
            return g.op("Where", {g.op("Greater", {den, zero}), base,
                                  g.op("Where", {g.op("Less", {den, zero}), left, vertical})});
        }
    }
    return {};
}

// Import-time versions of the unary ops that shape arithmetic and folded constants need.
bool hostUnary(Unary op, double& x) {
    switch (op) {
        case Unary::Relu: x = std::max(x, 0.0); return true;
        case Unary::Relu6: x = std::min(std::max(x, 0.0), 6.0); return true;
        case Unary::Neg: x = -x; return true;
        case Unary::Abs: x = std::fabs(x); return true;
        case Unary::Sqrt: x = std::sqrt(x); return true;
        case Unary::Rsqrt: x = 1.0 / std::sqrt(x); return true;
        case Unary::Square: x = x * x; return true;
        case Unary::Reciprocal: x = 1.0 / x; return true;
        case Unary::Floor: x = std::floor(x); return true;
        case Unary::Ceil: x = std::ceil(x); return true;
        case Unary::Round: x = std::nearbyint(x); return true;  // half to even, the default rounding
        case Unary::Sign: x = (x > 0) - (x < 0); return true;
        case Unary::Exp: x = std::exp(x); return true;
        case Unary::Log: x = std::log(x); return true;
        case Unary::Not: x = x == 0; return true;
        default: return false;
    }
}

std::string emitUnary(Context& c, Unary op, const std::string& x) {
    GraphBuilder& g = c.g;
    switch (op) {
        case Unary::Relu: return g.op("Relu", {x});
        case Unary::Relu6: return g.clip(x, 0.0f, 6.0f);
        case Unary::Elu: return g.op("Elu", {x});
        case Unary::Selu:
            return g.op("Selu", {x},
                        {attrFloat("alpha", 1.6732632423543772f), attrFloat("gamma", 1.0507009873554805f)});
        case Unary::LeakyRelu:
            return g.op("LeakyRelu", {x}, {attrFloat("alpha", static_cast<float>(c.floatAttr("alpha", 0.2)))});
        case Unary::Sigmoid: return g.op("Sigmoid", {x});
        case Unary::Tanh: return g.op("Tanh", {x});
        case Unary::Exp: return g.op("Exp", {x});
        case Unary::Log: return g.op("Log", {x});
        case Unary::Log1p: return g.op("Log", {g.addScalar(x, 1.0f)});
        case Unary::Neg: return g.op("Neg", {x});
        case Unary::Abs: return g.op("Abs", {x});
        case Unary::Sqrt: return g.op("Sqrt", {x});
        case Unary::Rsqrt: return g.op("Reciprocal", {g.op("Sqrt", {x})});
        case Unary::Square: return g.op("Mul", {x, x});
        case Unary::Reciprocal: return g.op("Reciprocal", {x});
        case Unary::Floor: return g.op("Floor", {x});
        case Unary::Ceil: return g.op("Ceil", {x});
        case Unary::Round: return g.op("Round", {x});
        case Unary::Sign: return g.op("Sign", {x});
        case Unary::Softplus: return g.op("Softplus", {x});
        case Unary::Softsign: return g.op("Softsign", {x});
        case Unary::Sin: return g.op("Sin", {x});
        case Unary::Cos: return g.op("Cos", {x});
        case Unary::Erf: return g.op("Erf", {x});
        case Unary::Not: return g.op("Not", {x});
        case Unary::IsNan: return g.op("IsNaN", {x});
    }
    return {};
}

// A copy of v's description (shape, layout) for a new ONNX value of another type.
ValuePtr like(Context& c, const Value& v, const std::string& name, DType type) {
    return v.ranked ? c.make(name, type, v.shape, v.perm) : c.unranked(name, type);
}

// Axes of a reduction or arg-op in TensorFlow's numbering, non-negative, sorted, unique.
std::vector<int> tfAxes(Context& c, const Value& x, const Value& axesValue) {
    const std::vector<int64_t> raw = c.ints(axesValue, "the axes");
    if (!x.ranked) c.fail("the input's rank is unknown");
    std::vector<int> axes;
    for (int64_t a : raw) {
        if (a < -x.rank() || a >= x.rank()) c.fail("axis " + std::to_string(a) + " is out of range");
        axes.push_back(static_cast<int>(a < 0 ? a + x.rank() : a));
    }
    std::sort(axes.begin(), axes.end());
    axes.erase(std::unique(axes.begin(), axes.end()), axes.end());
    return axes;
}

// The description of x with the axes taken out, or set to 1 when kept.
ValuePtr reduced(Context& c, const Value& x, const std::vector<int>& axes, bool keep, const std::string& name,
                 DType type) {
    std::vector<int64_t> shape;
    for (int i = 0; i < x.rank(); ++i) {
        const bool gone = std::find(axes.begin(), axes.end(), i) != axes.end();
        if (!gone)
            shape.push_back(x.shape[static_cast<size_t>(i)]);
        else if (keep)
            shape.push_back(1);
    }
    return c.make(name, type, shape, keep ? x.perm : withoutAxes(x.perm, x.rank(), axes));
}

std::vector<int64_t> onnxAxes(const Value& x, const std::vector<int>& axes) {
    std::vector<int64_t> out;
    for (int a : axes) out.push_back(onnxAxis(x, a));
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<ValuePtr> argReduce(Context& c, const char* onnxOp) {
    Value& x = c.in(0);
    const std::vector<int> axes = tfAxes(c, x, c.in(1));
    if (axes.size() != 1) c.fail("expects one axis");
    const std::string out =
        c.g.op(onnxOp, {c.held(x)}, {attrInt("axis", onnxAxis(x, axes[0])), attrInt("keepdims", 0)});
    return {reduced(c, x, axes, false, out, DType::Int)};
}

std::vector<ValuePtr> softmaxLike(Context& c, const char* onnxOp) {
    Value& x = c.in(0);
    if (!x.ranked) return {c.unranked(c.g.op(onnxOp, {c.plain(x)}, {attrInt("axis", -1)}), x.type)};
    return {like(c, x, c.g.op(onnxOp, {c.held(x)}, {attrInt("axis", onnxAxis(x, -1))}), x.type)};
}

}  // namespace

std::vector<ValuePtr> ops::binary(Context& c, Binary op) {
    Value& a = c.in(0);
    Value& b = c.in(1);
    if (a.type != b.type && !(op == Binary::Prelu)) c.fail("operands of different element types");
    const DType outType = isComparison(op) ? DType::Bool : a.type;
    if (foldable(a) && foldable(b))
        return {c.constantValue(foldElementwise(c, {&a, &b}, outType, [&](const std::vector<double>& v) {
            return hostBinary(c, op, a.type, v[0], v[1]);
        }))};
    return {elementwise(c, {&a, &b}, outType,
                        [&](const std::vector<std::string>& n) { return emitBinary(c, op, a.type, n[0], n[1]); })};
}

std::vector<ValuePtr> ops::unary(Context& c, Unary op) {
    Value& x = c.in(0);
    const DType outType = op == Unary::IsNan ? DType::Bool : x.type;
    double probe = 0;
    if (foldable(x) && hostUnary(op, probe)) {
        Host h = c.constant(x, "the operand");
        for (double& v : h.v) {
            hostUnary(op, v);
            if (h.type == DType::Float) v = asFloat32(v);
        }
        return {c.constantValue(std::move(h))};
    }
    return {like(c, x, emitUnary(c, op, c.held(x)), outType)};
}

std::vector<ValuePtr> ops::addN(Context& c) {
    std::vector<Value*> operands;
    for (size_t i = 0; i < c.inputCount(); ++i) operands.push_back(&c.in(i));
    if (operands.size() == 1) return {c.inputs[0]};
    return {elementwise(c, operands, operands[0]->type,
                        [&](const std::vector<std::string>& n) { return c.g.op("Sum", n); })};
}

std::vector<ValuePtr> ops::select(Context& c) {
    Value* cond = &c.in(0);
    Value& a = c.in(1);
    Value& b = c.in(2);
    Value rows;
    // Select with a vector condition picks whole rows.
    if (c.node->op == "Select" && cond->rank() == 1 && a.rank() > 1) {
        std::vector<int64_t> axes(static_cast<size_t>(a.rank() - 1));
        std::iota(axes.begin(), axes.end(), 1);
        std::vector<int64_t> shape(static_cast<size_t>(a.rank()), 1);
        shape[0] = cond->shape[0];
        rows = *c.make(c.g.op("Unsqueeze", {c.plain(*cond), c.i64(axes)}), DType::Bool, shape);
        cond = &rows;
    }
    return {
        elementwise(c, {cond, &a, &b}, a.type, [&](const std::vector<std::string>& n) { return c.g.op("Where", n); })};
}

std::vector<ValuePtr> ops::clipByValue(Context& c) {
    Value& x = c.in(0);
    return {elementwise(c, {&x, &c.in(1), &c.in(2)}, x.type, [&](const std::vector<std::string>& n) {
        return c.g.op("Max", {c.g.op("Min", {n[0], n[2]}), n[1]});
    })};
}

std::vector<ValuePtr> ops::cast(Context& c) {
    Value& x = c.in(0);
    const DType to = c.typeAttr("DstT", DType::Float);
    if (to == x.type) return {c.inputs[0]};
    if (foldable(x)) {
        Host h = c.constant(x, "the operand");
        h.type = to;
        for (double& v : h.v) v = to == DType::Bool ? (v != 0) : to == DType::Int ? std::trunc(v) : asFloat32(v);
        return {c.constantValue(std::move(h))};
    }
    return {like(c, x, c.g.op("Cast", {c.held(x)}, {attrInt("to", onnxType(to))}), to)};
}

std::vector<ValuePtr> ops::reduce(Context& c, Reduction op) {
    Value& x = c.in(0);
    const std::vector<int> axes = tfAxes(c, x, c.in(1));
    const bool keep = c.boolAttr("keep_dims", false);
    if (axes.empty()) return {c.inputs[0]};
    const std::vector<int64_t> onnx = onnxAxes(x, axes);
    std::string out;
    const std::vector<onnx::AttributeProto> keepAttr{attrInt("keepdims", keep ? 1 : 0)};
    switch (op) {
        case Reduction::Sum: out = c.g.op("ReduceSum", {c.held(x), c.i64(onnx)}, keepAttr); break;
        case Reduction::Mean: out = c.g.op("ReduceMean", {c.held(x)}, {attrInts("axes", onnx), keepAttr[0]}); break;
        case Reduction::Max: out = c.g.op("ReduceMax", {c.held(x)}, {attrInts("axes", onnx), keepAttr[0]}); break;
        case Reduction::Min: out = c.g.op("ReduceMin", {c.held(x)}, {attrInts("axes", onnx), keepAttr[0]}); break;
        case Reduction::Prod: out = c.g.op("ReduceProd", {c.held(x)}, {attrInts("axes", onnx), keepAttr[0]}); break;
    }
    return {reduced(c, x, axes, keep, out, x.type)};
}

std::vector<ValuePtr> ops::argMax(Context& c) { return argReduce(c, "ArgMax"); }
std::vector<ValuePtr> ops::argMin(Context& c) { return argReduce(c, "ArgMin"); }

std::vector<ValuePtr> ops::topK(Context& c) {
    Value& x = c.in(0);
    Value& k = c.in(1);
    if (!x.ranked) c.fail("the input's rank is unknown");
    const std::string kk = k.isConst() ? c.i64({c.ints(k, "k").at(0)}) : c.g.op("Reshape", {c.plain(k), c.i64({1})});
    const std::vector<std::string> outs = c.g.ops(
        "TopK", {c.held(x), kk}, 2, {attrInt("axis", onnxAxis(x, -1)), attrInt("largest", 1), attrInt("sorted", 1)});
    std::vector<int64_t> shape = x.shape;
    shape.back() = k.isConst() ? c.ints(k, "k").at(0) : -1;
    return {c.make(outs[0], x.type, shape, x.perm), c.make(outs[1], DType::Int, shape, x.perm)};
}

std::vector<ValuePtr> ops::softmax(Context& c) { return softmaxLike(c, "Softmax"); }
std::vector<ValuePtr> ops::logSoftmax(Context& c) { return softmaxLike(c, "LogSoftmax"); }

}  // namespace qpkg::tfjs::graph
