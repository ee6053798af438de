#include "OnnxBuilder.h"

#include <onnx/onnx_pb.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestNetworks {

namespace {

// A port of the graph; extents of -1 are free, named by their position: "height", "width".
void describe(onnx::ValueInfoProto* info, const std::string& name, int type, const std::vector<int64_t>& dims) {
    info->set_name(name);
    onnx::TypeProto_Tensor* tensor = info->mutable_type()->mutable_tensor_type();
    tensor->set_elem_type(type);
    for (size_t i = 0; i < dims.size(); ++i) {
        onnx::TensorShapeProto_Dimension* d = tensor->mutable_shape()->add_dim();
        if (dims[i] >= 0)
            d->set_dim_value(dims[i]);
        else
            d->set_dim_param(i == 2 ? "height" : "width");
    }
}

onnx::NodeProto* addNode(onnx::GraphProto* graph, const std::string& op, const std::vector<std::string>& inputs,
                         const std::string& output) {
    onnx::NodeProto* node = graph->add_node();
    node->set_op_type(op);
    node->set_name(output);
    for (const std::string& in : inputs) node->add_input(in);
    node->add_output(output);
    return node;
}

void addCast(onnx::GraphProto* graph, const std::string& input, const std::string& output, int to) {
    onnx::AttributeProto* attribute = addNode(graph, "Cast", {input}, output)->add_attribute();
    attribute->set_name("to");
    attribute->set_type(onnx::AttributeProto_AttributeType_INT);
    attribute->set_i(to);
}

void save(const onnx::ModelProto& model, const std::filesystem::path& file) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    if (!out || !model.SerializeToOstream(&out)) throw std::runtime_error("Could not write " + file.string());
}

onnx::ModelProto emptyModel() {
    onnx::ModelProto model;
    model.set_ir_version(8);
    model.set_producer_name("quillon-tests");
    model.add_opset_import()->set_version(17);
    model.mutable_graph()->set_name("test");
    return model;
}

constexpr int kFloat = onnx::TensorProto_DataType_FLOAT, kHalf = onnx::TensorProto_DataType_FLOAT16;

}  // namespace

void writeCastAddNetwork(const std::filesystem::path& file, float addend) {
    onnx::ModelProto model = emptyModel();
    onnx::GraphProto* graph = model.mutable_graph();
    describe(graph->add_input(), "x", kHalf, {1, 3, -1, -1});
    describe(graph->add_output(), "y", kHalf, {1, 3, -1, -1});
    onnx::TensorProto* constant = graph->add_initializer();
    constant->set_name("addend");
    constant->set_data_type(kFloat);
    constant->add_float_data(addend);
    addCast(graph, "x", "x32", kFloat);
    addNode(graph, "Add", {"x32", "addend"}, "y32");
    addCast(graph, "y32", "y", kHalf);
    save(model, file);
}

void writeSumNetwork(const std::filesystem::path& file) {
    onnx::ModelProto model = emptyModel();
    onnx::GraphProto* graph = model.mutable_graph();
    for (const char* name : {"a", "b"}) describe(graph->add_input(), name, kFloat, {1, 4});
    describe(graph->add_output(), "sum", kFloat, {1, 4});
    addNode(graph, "Add", {"a", "b"}, "sum");
    save(model, file);
}

}  // namespace TestNetworks
