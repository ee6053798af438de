#pragma once
// Private to the graph-model importer: the values flowing between converted TensorFlow nodes, the
// context a converter works in, and the converters themselves (one table in GraphOps.cpp).
//
// A value knows its TensorFlow shape as far as it is known at import time, and its layout: the
// order in which the ONNX tensor holds TensorFlow's axes (perm[j] is the TensorFlow axis at ONNX
// axis j; empty means TensorFlow's own order). Convolutions want N,C,H,W, i.e. perm {0,3,1,2};
// element-wise ops, concatenation, padding, reductions and the like work in whatever order their
// operands come, so only layout-sensitive ops (Reshape, GatherNd, MatMul, ...) and the graph's
// outputs pay for a Transpose.
//
// Values known at import time (weights, shape arithmetic, inputs fixed by ImportOptions) carry
// their elements and are written into the graph only where a node needs them, in the layout that
// node wants.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "GraphBuilder.h"
#include "Importer.h"
#include "TfjsModel.h"

namespace qpkg::tfjs::graph {

// TensorFlow element types as the importer holds them: int32 and int64 tensors become ONNX INT64
// (shapes, axes and indices need it), bool becomes ONNX BOOL.
enum class DType { Float, Int, Bool };

using Perm = std::vector<int>;

// Elements known at import time, in TensorFlow's order. Whole numbers and floats alike sit in
// doubles, which hold every int32 and float exactly.
struct Host {
    DType type = DType::Float;
    std::vector<int64_t> shape;
    std::vector<double> v;

    int64_t count() const;
    std::vector<int64_t> ints() const;
};

struct Value {
    std::string name;  // the ONNX value holding it; empty while a constant is not written yet
    DType type = DType::Float;
    bool ranked = false;
    std::vector<int64_t> shape;        // TensorFlow's order; -1 for an extent known only at run time
    Perm perm;                         // the layout (see above); empty: TensorFlow's order
    const Weight* weight = nullptr;    // a Const node's weight
    std::shared_ptr<const Host> host;  // the elements, where known at import time (small ones)
    bool dead = false;                 // the untaken side of a conditional

    int rank() const { return ranked ? static_cast<int>(shape.size()) : -1; }
    bool isConst() const { return weight != nullptr || host != nullptr; }
    bool staticShape() const;  // rank and every extent known
    // The written copies of the value by layout (a constant or a transposed copy).
    std::map<Perm, std::string> copies;
};
using ValuePtr = std::shared_ptr<Value>;

// One node of the GraphDef.
struct Node {
    std::string name, op;
    std::vector<std::pair<std::string, int>> inputs;  // data inputs: producing node and output index
    const nlohmann::json* attr = nullptr;
    // A BatchToSpaceND closing a SpaceToBatchND -> convolution -> BatchToSpaceND chain (a dilated
    // convolution): its inputs are then the chain's input, the convolution's other inputs,
    // the paddings, the crops, its block shape and the SpaceToBatchND's; conv is the convolution.
    const Node* conv = nullptr;
    std::vector<const Node*> consumers;  // nodes taking one of its outputs as a data input
};

class Context;
using Converter = std::vector<ValuePtr> (*)(Context&);

// The converter of an op type; null when the importer does not know it.
Converter converterFor(const std::string& op);
// Whether the op belongs to TensorFlow's loops or tensor arrays.
bool isLoopOp(const std::string& op);

class Context {
public:
    Context(GraphBuilder& g, const Model& model) : g(g), model(model) {}

    GraphBuilder& g;
    const Model& model;
    const Node* node = nullptr;    // the node being converted
    std::vector<ValuePtr> inputs;  // its data inputs, converted

    // Refusal naming the node being converted and its op.
    [[noreturn]] void fail(const std::string& why) const;

    // Data input i of the node being converted; fails when the node has fewer.
    Value& in(size_t i) const;
    size_t inputCount() const { return inputs.size(); }

    // Attributes of the node being converted.
    bool hasAttr(const std::string& name) const;
    int64_t intAttr(const std::string& name, int64_t fallback) const;
    double floatAttr(const std::string& name, double fallback) const;
    bool boolAttr(const std::string& name, bool fallback) const;
    std::string stringAttr(const std::string& name, const std::string& fallback) const;
    std::vector<int64_t> intsAttr(const std::string& name) const;
    std::vector<std::string> stringsAttr(const std::string& name) const;
    DType typeAttr(const std::string& name, DType fallback) const;

    // The elements of a value known at import time; fails (naming what) when it is not.
    Host constant(const Value& v, const std::string& what) const;
    std::vector<int64_t> ints(const Value& v, const std::string& what) const { return constant(v, what).ints(); }

    // The value in ONNX as it is held, in TensorFlow's order, or in the given layout (a Transpose,
    // a Reshape where only extents of 1 move, or a constant written in that order).
    std::string held(Value& v);
    std::string plain(Value& v) { return inLayout(v, {}); }
    std::string inLayout(Value& v, const Perm& perm);
    // The value brought to rank (extents of 1 in front, as TensorFlow broadcasts) in the layout.
    std::string aligned(Value& v, int rank, const Perm& perm);

    // New values.
    ValuePtr make(const std::string& name, DType type, std::vector<int64_t> shape, const Perm& perm = {}) const;
    ValuePtr unranked(const std::string& name, DType type) const;
    ValuePtr constantValue(Host h) const;
    ValuePtr deadValue() const;

    // Written constants.
    std::string i64(const std::vector<int64_t>& values) {
        return g.constI64(values, {static_cast<int64_t>(values.size())});
    }
    std::string i64Scalar(int64_t value) { return g.constI64({value}, {}); }

private:
    std::string writeConstant(const Value& v, const std::vector<int64_t>& shape, const Perm& perm);
};

// Layout helpers.
Perm identityPerm(int rank);
bool isIdentity(const Perm& perm);
Perm normalized(const Perm& perm, int rank);  // empty for TensorFlow's order
Perm inverse(const Perm& perm);
extern const Perm kNCHW;  // {0, 3, 1, 2}
// The ONNX axis holding TensorFlow axis a (negative a counts from the end).
int onnxAxis(const Value& v, int64_t a);
// The layout left when the TensorFlow axes in removed (sorted) are taken out.
Perm withoutAxes(const Perm& perm, int rank, const std::vector<int>& removed);
// Whether a tensor of that (TensorFlow) shape has its elements in the same order in both layouts:
// only extents of 1 change places (unknown extents count as more than 1).
bool sameDataOrder(const std::vector<int64_t>& shape, const Perm& from, const Perm& to);
// Extents in the order ONNX holds them.
std::vector<int64_t> heldShape(const Value& v);
int64_t product(const std::vector<int64_t>& shape);

ML::u32 mlType(DType t);
int onnxType(DType t);
DType dtypeOf(const std::string& tfType);  // "DT_FLOAT", ... ; throws for types the importer lacks

// Element-wise ops and reductions that share one converter each.
enum class Binary {
    Add, Sub, Mul, Div, FloorDiv, FloorMod, Max, Min, Pow, SquaredDifference, Equal, NotEqual, Less, LessEqual,
    Greater, GreaterEqual, And, Or, Prelu, Atan2
};
enum class Unary {
    Relu, Relu6, Elu, Selu, LeakyRelu, Sigmoid, Tanh, Exp, Log, Log1p, Neg, Abs, Sqrt, Rsqrt, Square, Reciprocal,
    Floor, Ceil, Round, Sign, Softplus, Softsign, Sin, Cos, Erf, Not, IsNan
};
enum class Reduction { Sum, Mean, Max, Min, Prod };

// Converters, by family. GraphOps.cpp maps TensorFlow op types to them.
namespace ops {
// Convolutions, pooling, resizing, matrix products (GraphOpsNn.cpp).
std::vector<ValuePtr> conv2d(Context&);           // Conv2D and _FusedConv2D
std::vector<ValuePtr> depthwiseConv2d(Context&);  // with or without fused ops
std::vector<ValuePtr> conv2dBackpropInput(Context&);
std::vector<ValuePtr> batchToSpace(Context&);
std::vector<ValuePtr> spaceToBatch(Context&);
std::vector<ValuePtr> maxPool(Context&);
std::vector<ValuePtr> avgPool(Context&);
std::vector<ValuePtr> resizeBilinear(Context&);
std::vector<ValuePtr> resizeNearest(Context&);
std::vector<ValuePtr> depthToSpace(Context&);
std::vector<ValuePtr> spaceToDepth(Context&);
std::vector<ValuePtr> matMul(Context&);  // MatMul and _FusedMatMul
std::vector<ValuePtr> batchMatMul(Context&);
std::vector<ValuePtr> fusedBatchNorm(Context&);

// Element-wise arithmetic, activations, comparisons, reductions (GraphOpsMath.cpp).
std::vector<ValuePtr> binary(Context&, Binary op);
std::vector<ValuePtr> unary(Context&, Unary op);
std::vector<ValuePtr> reduce(Context&, Reduction op);
std::vector<ValuePtr> addN(Context&);
std::vector<ValuePtr> select(Context&);
std::vector<ValuePtr> cast(Context&);
std::vector<ValuePtr> argMax(Context&);
std::vector<ValuePtr> argMin(Context&);
std::vector<ValuePtr> topK(Context&);
std::vector<ValuePtr> softmax(Context&);
std::vector<ValuePtr> logSoftmax(Context&);
std::vector<ValuePtr> clipByValue(Context&);

// Shapes, slicing, joining, gathering, conditionals (GraphOpsShape.cpp).
std::vector<ValuePtr> identity(Context&);
std::vector<ValuePtr> noOp(Context&);
std::vector<ValuePtr> switchOp(Context&);
std::vector<ValuePtr> merge(Context&);
std::vector<ValuePtr> shape(Context&);
std::vector<ValuePtr> size(Context&);
std::vector<ValuePtr> reshape(Context&);
std::vector<ValuePtr> squeeze(Context&);
std::vector<ValuePtr> expandDims(Context&);
std::vector<ValuePtr> transpose(Context&);
std::vector<ValuePtr> concat(Context&);  // ConcatV2 (axis last) and Concat (axis first)
std::vector<ValuePtr> pack(Context&);
std::vector<ValuePtr> unpack(Context&);
std::vector<ValuePtr> split(Context&);
std::vector<ValuePtr> splitV(Context&);
std::vector<ValuePtr> slice(Context&);
std::vector<ValuePtr> stridedSlice(Context&);
std::vector<ValuePtr> pad(Context&);  // Pad, PadV2, MirrorPad
std::vector<ValuePtr> tile(Context&);
std::vector<ValuePtr> fill(Context&);
std::vector<ValuePtr> zerosLike(Context&);
std::vector<ValuePtr> onesLike(Context&);
std::vector<ValuePtr> broadcastTo(Context&);
std::vector<ValuePtr> range(Context&);
std::vector<ValuePtr> gather(Context&);  // Gather and GatherV2
std::vector<ValuePtr> gatherNd(Context&);
}  // namespace ops

// Shared by the converter files.
// Whether a value is a constant small enough to compute with at import time.
bool foldable(const Value& v);
// Elements transposed as TensorFlow's Transpose does (out axis i is in axis perm[i]).
Host transposedHost(const Host& h, const Perm& perm);
// Broadcast shape of TensorFlow shapes (unknown extents stay unknown); false when a rank is
// unknown.
bool broadcastShape(const std::vector<const Value*>& values, std::vector<int64_t>& out);
// A layout for the result of an element-wise op on these operands (of the given result rank):
// among TensorFlow's order and the operands' own layouts, the one that needs the fewest Transposes
// of the operands; on a tie the operands' layout, unless every consumer of the node being converted
// takes its input in TensorFlow's order.
Perm commonLayout(const Context& c, const std::vector<const Value*>& values, int rank);
// Applies an activation named as in fused_ops ("Relu", "Relu6", "Elu", "LeakyRelu", "Sigmoid",
// "Tanh"); returns the ONNX value.
std::string activation(Context& c, const std::string& name, const std::string& x);
// Pads for TensorFlow "SAME" along one axis: {before, after}.
std::pair<int64_t, int64_t> samePads(int64_t in, int64_t kernel, int64_t stride, int64_t dilation);

}  // namespace qpkg::tfjs::graph
