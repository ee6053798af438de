#include "GraphBuilder.h"

#include <stdexcept>

#include <Imath/half.h>
#include <onnx/checker.h>

#include "ML/ImageImp.h"

namespace qpkg {

int onnxElemType(ML::u32 dataType) {
    switch (dataType) {
        case ML::U8: return onnx::TensorProto::UINT8;
        case ML::I8: return onnx::TensorProto::INT8;
        case ML::I32: return onnx::TensorProto::INT32;
        case ML::F16: return onnx::TensorProto::FLOAT16;
        case ML::F32: return onnx::TensorProto::FLOAT;
        case ML::I64: return onnx::TensorProto::INT64;
        default: throw std::logic_error("no ONNX element type for data type " + std::to_string(dataType));
    }
}

onnx::AttributeProto attrInt(const std::string& name, int64_t value) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::INT);
    a.set_i(value);
    return a;
}

onnx::AttributeProto attrFloat(const std::string& name, float value) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::FLOAT);
    a.set_f(value);
    return a;
}

onnx::AttributeProto attrInts(const std::string& name, const std::vector<int64_t>& values) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::INTS);
    for (int64_t v : values) a.add_ints(v);
    return a;
}

onnx::AttributeProto attrString(const std::string& name, const std::string& value) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::STRING);
    a.set_s(value);
    return a;
}

onnx::AttributeProto attrScalarTensor(const std::string& name, ML::u32 dataType, double value) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::TENSOR);
    onnx::TensorProto* t = a.mutable_t();
    t->set_data_type(onnxElemType(dataType));
    t->add_dims(1);
    switch (dataType) {
        case ML::U8: {
            const ML::u8 v = static_cast<ML::u8>(value);
            t->set_raw_data(std::string(reinterpret_cast<const char*>(&v), 1));
            break;
        }
        case ML::F16: {
            const uint16_t bits = Imath::half(static_cast<float>(value)).bits();
            // Raw data are little-endian, as on every platform the package is made on.
            t->set_raw_data(std::string(reinterpret_cast<const char*>(&bits), 2));
            break;
        }
        case ML::F32: t->add_float_data(static_cast<float>(value)); break;
        case ML::I32: t->add_int32_data(static_cast<int32_t>(value)); break;
        case ML::I64: t->add_int64_data(static_cast<int64_t>(value)); break;
        default: throw std::logic_error("unsupported constant type");
    }
    return a;
}

namespace {

void setTensorType(onnx::ValueInfoProto* info, ML::u32 dataType, const Dims& dims) {
    onnx::TypeProto_Tensor* tt = info->mutable_type()->mutable_tensor_type();
    tt->set_elem_type(onnxElemType(dataType));
    onnx::TensorShapeProto* shape = tt->mutable_shape();
    for (const Dim& d : dims) {
        onnx::TensorShapeProto_Dimension* sd = shape->add_dim();
        if (d.symbol.empty())
            sd->set_dim_value(d.size);
        else
            sd->set_dim_param(d.symbol);
    }
}

}  // namespace

GraphBuilder::GraphBuilder(const std::string& graphName) {
    model_.set_ir_version(kIrVersion);
    model_.set_producer_name("quillon-pkg");
    model_.set_producer_version("1");
    onnx::OperatorSetIdProto* opset = model_.add_opset_import();
    opset->set_domain("");
    opset->set_version(kOpsetVersion);
    model_.mutable_graph()->set_name(graphName);
}

std::string GraphBuilder::fresh(const std::string& hint) {
    std::string name;
    do name = hint + "_" + std::to_string(counter_++);
    while (reserved_.count(name));
    return name;
}

std::string GraphBuilder::input(const std::string& name, ML::u32 dataType, const Dims& dims) {
    reserved_.insert(name);
    onnx::ValueInfoProto* info = model_.mutable_graph()->add_input();
    info->set_name(name);
    setTensorType(info, dataType, dims);
    return name;
}

void GraphBuilder::output(const std::string& value, const std::string& name, ML::u32 dataType, const Dims& dims) {
    if (value != name) {
        onnx::NodeProto* node = model_.mutable_graph()->add_node();
        node->set_op_type("Identity");
        node->set_name(fresh("Identity"));
        node->add_input(value);
        node->add_output(name);
    }
    onnx::ValueInfoProto* info = model_.mutable_graph()->add_output();
    info->set_name(name);
    setTensorType(info, dataType, dims);
}

std::string GraphBuilder::op(const std::string& type, const std::vector<std::string>& inputs,
                             const std::vector<onnx::AttributeProto>& attrs) {
    onnx::NodeProto* node = model_.mutable_graph()->add_node();
    const std::string out = fresh(type);
    node->set_op_type(type);
    node->set_name(out);
    for (const std::string& in : inputs) node->add_input(in);
    for (const onnx::AttributeProto& a : attrs) *node->add_attribute() = a;
    node->add_output(out);
    return out;
}

std::vector<std::string> GraphBuilder::ops(const std::string& type, const std::vector<std::string>& inputs,
                                           int outputs, const std::vector<onnx::AttributeProto>& attrs) {
    const std::string first = op(type, inputs, attrs);
    onnx::NodeProto* node = model_.mutable_graph()->mutable_node(model_.graph().node_size() - 1);
    std::vector<std::string> names{first};
    for (int i = 1; i < outputs; ++i) {
        names.push_back(first + "_" + std::to_string(i));
        node->add_output(names.back());
    }
    return names;
}

std::string GraphBuilder::initializer(onnx::TensorProto tensor, const std::string& hint) {
    const std::string name = fresh(hint);
    tensor.set_name(name);
    *model_.mutable_graph()->add_initializer() = std::move(tensor);
    return name;
}

std::string GraphBuilder::constF32(const std::vector<float>& values, const std::vector<int64_t>& dims) {
    const std::string name = fresh("const");
    onnx::TensorProto* t = model_.mutable_graph()->add_initializer();
    t->set_name(name);
    t->set_data_type(onnx::TensorProto::FLOAT);
    for (int64_t d : dims) t->add_dims(d);
    for (float v : values) t->add_float_data(v);
    return name;
}

std::string GraphBuilder::constI64(const std::vector<int64_t>& values, const std::vector<int64_t>& dims) {
    const std::string name = fresh("const");
    onnx::TensorProto* t = model_.mutable_graph()->add_initializer();
    t->set_name(name);
    t->set_data_type(onnx::TensorProto::INT64);
    for (int64_t d : dims) t->add_dims(d);
    for (int64_t v : values) t->add_int64_data(v);
    return name;
}

std::string GraphBuilder::cast(const std::string& value, ML::u32 from, ML::u32 to) {
    if (from == to) return value;
    return op("Cast", {value}, {attrInt("to", onnxElemType(to))});
}

std::string GraphBuilder::element(const std::string& vector1d, int64_t i) {
    return op("Gather", {vector1d, constI64({i}, {})}, {attrInt("axis", 0)});
}

std::string GraphBuilder::signedPow(const std::string& x, const std::string& e) {
    return op("Mul", {op("Sign", {x}), op("Pow", {op("Abs", {x}), e})});
}

std::string GraphBuilder::clip(const std::string& x, float lo, float hi) {
    return op("Clip", {x, scalarF32(lo), scalarF32(hi)});
}

std::string GraphBuilder::sliceAxis(const std::string& x, int64_t axis, int64_t from, int64_t to) {
    return op("Slice", {x, constI64({from}, {1}), constI64({to}, {1}), constI64({axis}, {1})});
}

std::string GraphBuilder::padChannels(const std::string& x, int64_t have, int64_t total, int64_t axis) {
    std::vector<int64_t> pads(8, 0);
    pads[static_cast<size_t>(4 + axis)] = total - have;
    return op("Pad", {x, constI64(pads, {8})});
}

std::string GraphBuilder::averagePool(const std::string& x, int64_t k) {
    return op("AveragePool", {x}, {attrInts("kernel_shape", {k, k}), attrInts("strides", {k, k})});
}

std::string GraphBuilder::toU8(const std::string& x32) {
    const std::string finite = op("Where", {op("IsNaN", {x32}), scalarF32(0.0f), x32});
    return cast(clip(op("Round", {finite}), 0.0f, 255.0f), ML::F32, ML::U8);
}

std::string GraphBuilder::transposeLayout(const std::string& x, ML::u32 fromLayout, ML::u32 toLayout) {
    if (fromLayout == toLayout) return x;
    const std::vector<int64_t> perm =
        toLayout == ML::Image::CHW ? std::vector<int64_t>{0, 3, 1, 2} : std::vector<int64_t>{0, 2, 3, 1};
    return op("Transpose", {x}, {attrInts("perm", perm)});
}

onnx::ModelProto GraphBuilder::build() const {
    try {
        onnx::checker::check_model(model_);
    } catch (const std::exception& e) {
        throw std::runtime_error("internal error: network " + model_.graph().name() +
                                 " fails the ONNX checker: " + e.what());
    }
    return model_;
}

}  // namespace qpkg
