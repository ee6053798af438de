#pragma once
// Small helpers to build ONNX graphs of the package's helper networks: typed graph inputs and
// outputs with fixed or symbolic extents, nodes with one output, constants, and a checked model.
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include <onnx/onnx_pb.h>

#include "ML/Types.h"

namespace qpkg {

// Operator set and IR version of every network the tool writes.
constexpr int kOpsetVersion = 17;
constexpr int kIrVersion = 8;

// ONNX element type of an ML::DataType (U8, I8, I32, F16, F32, I64 only).
int onnxElemType(ML::u32 dataType);

// One extent of a tensor: a fixed size, or a symbol shared by tensors of equal extent.
struct Dim {
    int64_t size = -1;
    std::string symbol;

    static Dim fixed(int64_t n) { return Dim{n, {}}; }
    static Dim named(std::string s) { return Dim{-1, std::move(s)}; }
};
using Dims = std::vector<Dim>;

onnx::AttributeProto attrInt(const std::string& name, int64_t value);
onnx::AttributeProto attrFloat(const std::string& name, float value);
onnx::AttributeProto attrInts(const std::string& name, const std::vector<int64_t>& values);
onnx::AttributeProto attrString(const std::string& name, const std::string& value);
// A one-element tensor attribute (the "value" of ConstantOfShape) of the given data type.
onnx::AttributeProto attrScalarTensor(const std::string& name, ML::u32 dataType, double value);

class GraphBuilder {
public:
    explicit GraphBuilder(const std::string& graphName);

    // A graph input of fixed rank (the checker wants a shape on every input and output).
    std::string input(const std::string& name, ML::u32 dataType, const Dims& dims);
    // Makes value a graph output called name (through an Identity when the names differ).
    void output(const std::string& value, const std::string& name, ML::u32 dataType, const Dims& dims);

    // Keeps a name out of those the builder makes up: a graph output to be given that name later.
    // Graph input names are kept out too.
    void reserve(const std::string& name) { reserved_.insert(name); }

    // A node with one output; returns the output's name.
    std::string op(const std::string& type, const std::vector<std::string>& inputs,
                   const std::vector<onnx::AttributeProto>& attrs = {});

    // A node with several outputs; returns their names in order.
    std::vector<std::string> ops(const std::string& type, const std::vector<std::string>& inputs, int outputs,
                                 const std::vector<onnx::AttributeProto>& attrs = {});

    // Adds a filled tensor as an initializer under a fresh name made from hint; returns the name.
    std::string initializer(onnx::TensorProto tensor, const std::string& hint = "const");

    std::string constF32(const std::vector<float>& values, const std::vector<int64_t>& dims);
    std::string constI64(const std::vector<int64_t>& values, const std::vector<int64_t>& dims);
    std::string scalarF32(float value) { return constF32({value}, {}); }

    // Casts value (of type from) to type to; returns value itself when the types agree.
    std::string cast(const std::string& value, ML::u32 from, ML::u32 to);
    // Elementwise arithmetic with a 0-D float constant on the right.
    std::string mulScalar(const std::string& value, float s) { return op("Mul", {value, scalarF32(s)}); }
    std::string divScalar(const std::string& value, float s) { return op("Div", {value, scalarF32(s)}); }
    std::string addScalar(const std::string& value, float s) { return op("Add", {value, scalarF32(s)}); }
    // Element i of a 1-D tensor as a 0-D tensor.
    std::string element(const std::string& vector1d, int64_t i);
    // sign(x) * |x|^e: a power that keeps the sign, so that negative values map symmetrically.
    std::string signedPow(const std::string& x, const std::string& e);
    // Clamps between two float constants.
    std::string clip(const std::string& x, float lo, float hi);
    // F32 values in 0..255 units to U8: NaN becomes 0, then rounding half to even, then clamping
    // to 0..255.
    std::string toU8(const std::string& x32);
    // An F16 input (or output) of a network that computes in F32: the input cast up, the value cast
    // down.
    std::string inputF16(const std::string& name, const Dims& dims) {
        return cast(input(name, ML::F16, dims), ML::F16, ML::F32);
    }
    void outputF16(const std::string& value, const std::string& name, const Dims& dims) {
        output(cast(value, ML::F32, ML::F16), name, ML::F16, dims);
    }
    // Elements [from, to) of one axis.
    std::string sliceAxis(const std::string& x, int64_t axis, int64_t from, int64_t to);
    // A 4D tensor with zero channels appended along axis up to total.
    std::string padChannels(const std::string& x, int64_t have, int64_t total, int64_t axis = 1);
    // The mean of each k x k block of a 4D N,C,H,W tensor.
    std::string averagePool(const std::string& x, int64_t k);
    // Transposes a 4D tensor between the N,H,W,C and N,C,H,W orders.
    std::string transposeLayout(const std::string& x, ML::u32 fromLayout, ML::u32 toLayout);

    // The finished model; throws std::runtime_error when the ONNX checker rejects it.
    onnx::ModelProto build() const;

private:
    std::string fresh(const std::string& hint);

    onnx::ModelProto model_;
    int counter_ = 0;
    std::set<std::string> reserved_;
};

}  // namespace qpkg
