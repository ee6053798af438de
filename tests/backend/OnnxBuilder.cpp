#include "OnnxBuilder.h"

#include <onnx/onnx_pb.h>

#include <fstream>
#include <stdexcept>

namespace TestNetworks {

namespace {

void describe(onnx::ValueInfoProto& info, const std::string& name, ElementType type, const std::vector<Dim>& dims) {
    info.set_name(name);
    onnx::TypeProto_Tensor* tensor = info.mutable_type()->mutable_tensor_type();
    tensor->set_elem_type(type);
    onnx::TensorShapeProto* shape = tensor->mutable_shape();
    for (const Dim& dim : dims) {
        onnx::TensorShapeProto_Dimension* d = shape->add_dim();
        if (dim.name.empty())
            d->set_dim_value(dim.value);
        else
            d->set_dim_param(dim.name);
    }
}

}  // namespace

GraphBuilder& GraphBuilder::input(const std::string& name, ElementType type, const std::vector<Dim>& dims) {
    inputs_.push_back({name, type, dims});
    return *this;
}

GraphBuilder& GraphBuilder::output(const std::string& name, ElementType type, const std::vector<Dim>& dims) {
    outputs_.push_back({name, type, dims});
    return *this;
}

GraphBuilder& GraphBuilder::scalar(const std::string& name, float value) {
    scalars_.emplace_back(name, value);
    return *this;
}

GraphBuilder& GraphBuilder::node(const std::string& op, const std::vector<std::string>& inputs,
                                 const std::vector<std::string>& outputs) {
    nodes_.push_back({op, inputs, outputs, 0});
    return *this;
}

GraphBuilder& GraphBuilder::cast(const std::string& input, const std::string& output, ElementType to) {
    nodes_.push_back({"Cast", {input}, {output}, to});
    return *this;
}

void GraphBuilder::save(const std::filesystem::path& file) const {
    onnx::ModelProto model;
    model.set_ir_version(8);
    model.set_producer_name("quillon-tests");
    onnx::OperatorSetIdProto* opset = model.add_opset_import();
    opset->set_domain("");
    opset->set_version(17);

    onnx::GraphProto* graph = model.mutable_graph();
    graph->set_name("test");
    for (const Port& port : inputs_) describe(*graph->add_input(), port.name, port.type, port.dims);
    for (const Port& port : outputs_) describe(*graph->add_output(), port.name, port.type, port.dims);
    for (const auto& [name, value] : scalars_) {
        onnx::TensorProto* tensor = graph->add_initializer();
        tensor->set_name(name);
        tensor->set_data_type(onnx::TensorProto_DataType_FLOAT);
        tensor->add_float_data(value);
    }
    int counter = 0;
    for (const Node& n : nodes_) {
        onnx::NodeProto* node = graph->add_node();
        node->set_op_type(n.op);
        node->set_name(n.op + std::to_string(counter++));
        for (const std::string& in : n.inputs) node->add_input(in);
        for (const std::string& out : n.outputs) node->add_output(out);
        if (n.castTo) {
            onnx::AttributeProto* to = node->add_attribute();
            to->set_name("to");
            to->set_type(onnx::AttributeProto_AttributeType_INT);
            to->set_i(n.castTo);
        }
    }

    if (file.has_parent_path()) std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    if (!out || !model.SerializeToOstream(&out)) throw std::runtime_error("Could not write " + file.string());
}

void writeCastAddNetwork(const std::filesystem::path& file, float addend) {
    const std::vector<Dim> dims{1, 3, "height", "width"};
    GraphBuilder()
        .input("x", FLOAT16, dims)
        .output("y", FLOAT16, dims)
        .scalar("addend", addend)
        .cast("x", "x32", FLOAT)
        .node("Add", {"x32", "addend"}, {"y32"})
        .cast("y32", "y", FLOAT16)
        .save(file);
}

void writeSumNetwork(const std::filesystem::path& file) {
    GraphBuilder()
        .input("a", FLOAT, {1, 4})
        .input("b", FLOAT, {1, 4})
        .output("sum", FLOAT, {1, 4})
        .node("Add", {"a", "b"}, {"sum"})
        .save(file);
}

}  // namespace TestNetworks
