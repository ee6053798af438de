#include "NetworkSignature.h"

#include "BackendError.h"
#include "DeviceTensor.h"
#include "ElementTypes.h"

namespace ML::OrtBackend {

namespace {

TensorPort readPort(const std::string& name, const Ort::TypeInfo& info, const char* kind) {
    if (info.GetONNXType() != ONNX_TYPE_TENSOR)
        throw BackendError(std::string("The network's ") + kind + " '" + name + "' is not a tensor");
    const auto tensor = info.GetTensorTypeAndShapeInfo();
    TensorPort port;
    port.name = name;
    port.elementType = tensor.GetElementType();
    port.dims = tensor.GetShape();
    port.symbolicDims.resize(port.dims.size());
    std::vector<const char*> symbolic(port.dims.size(), nullptr);
    if (!symbolic.empty()) tensor.GetSymbolicDimensions(symbolic.data(), symbolic.size());
    for (size_t i = 0; i < symbolic.size(); ++i)
        if (symbolic[i]) port.symbolicDims[i] = symbolic[i];
    return port;
}

}  // namespace

std::string TensorPort::describe() const { return elementTypeName(elementType) + " " + shapeText(dims, symbolicDims); }

std::string TensorPort::mismatch(const DeviceTensor& tensor) const {
    const std::vector<int64_t>& shape = tensor.shape();
    bool fits = isKnownDataType(tensor.dataType()) && onnxElementType(tensor.dataType()) == elementType &&
                shape.size() == dims.size();
    for (size_t i = 0; fits && i < dims.size(); ++i) fits = dims[i] < 0 || dims[i] == shape[i];
    if (fits) return {};
    return "expects " + describe() + ", the tensor is " + dataTypeName(tensor.dataType()) + " " + shapeText(shape);
}

NetworkSignature NetworkSignature::of(const Ort::Session& session) {
    Ort::AllocatorWithDefaultOptions allocator;
    NetworkSignature signature;
    for (size_t i = 0; i < session.GetInputCount(); ++i)
        signature.inputs.push_back(
            readPort(session.GetInputNameAllocated(i, allocator).get(), session.GetInputTypeInfo(i), "input"));
    for (size_t i = 0; i < session.GetOutputCount(); ++i)
        signature.outputs.push_back(
            readPort(session.GetOutputNameAllocated(i, allocator).get(), session.GetOutputTypeInfo(i), "output"));
    return signature;
}

}  // namespace ML::OrtBackend
