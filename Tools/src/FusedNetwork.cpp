#include "FusedNetwork.h"

#include <onnx/checker.h>

namespace qpkg {

onnx::ModelProto buildFusedNetwork(const std::string& name, const std::vector<FusedPort>& inputs,
                                   const std::string& opType, const std::vector<onnx::AttributeProto>& attrs,
                                   const FusedPort& output) {
    // The builder makes the graph's inputs and outputs with one Identity between the first input
    // and the output; that node then becomes the fused operator.
    GraphBuilder g(name);
    for (const FusedPort& p : inputs) g.input(p.name, p.dataType, p.dims);
    g.output(inputs.at(0).name, output.name, output.dataType, output.dims);
    onnx::ModelProto model = g.build();
    onnx::OperatorSetIdProto* opset = model.add_opset_import();
    opset->set_domain(kFusedDomain);
    opset->set_version(1);
    onnx::NodeProto* node = model.mutable_graph()->mutable_node(0);
    node->set_domain(kFusedDomain);
    node->set_op_type(opType);
    node->set_name(opType);
    for (size_t i = 1; i < inputs.size(); ++i) node->add_input(inputs[i].name);
    for (const onnx::AttributeProto& a : attrs) *node->add_attribute() = a;
    try {
        onnx::checker::check_model(model);
    } catch (const std::exception& e) {
        throw std::runtime_error("internal error: network " + name + " fails the ONNX checker: " + e.what());
    }
    return model;
}

onnx::AttributeProto attrFloatList(const std::string& name, const std::vector<float>& values) {
    onnx::AttributeProto a;
    a.set_name(name);
    a.set_type(onnx::AttributeProto::FLOATS);
    for (float v : values) a.add_floats(v);
    return a;
}

}  // namespace qpkg
