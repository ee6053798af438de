#pragma once
// The inputs and outputs of a loaded network, and the check of a tensor against one of them.
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

namespace ML::OrtBackend {

class DeviceTensor;

struct TensorPort {
    std::string name;
    ONNXTensorElementDataType elementType = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED;
    std::vector<int64_t> dims;             // -1 where the extent is free
    std::vector<std::string> symbolicDims;  // the free extents' names, where the network has them

    // Empty when the tensor fits: same element type, same rank, equal fixed extents.
    std::string mismatch(const DeviceTensor& tensor) const;
    std::string describe() const;  // "F16 [1,3,height,width]"
};

struct NetworkSignature {
    std::vector<TensorPort> inputs;
    std::vector<TensorPort> outputs;

    // Reads the ports of a session; throws BackendError for a port that is not a tensor.
    static NetworkSignature of(const Ort::Session& session);
};

}  // namespace ML::OrtBackend
