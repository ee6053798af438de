#pragma once
// ML::DataType values against ONNX tensor element types.
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "ML/Types.h"

namespace ML::OrtBackend {

bool isKnownDataType(u32 dataType);
u64 elementSize(u32 dataType);  // known types only
ONNXTensorElementDataType onnxElementType(u32 dataType);  // known types only

// Text forms for messages: ML names where there is one ("F16"), ONNX names otherwise.
std::string dataTypeName(u32 dataType);
std::string elementTypeName(ONNXTensorElementDataType type);

// "[1,3,8,8]"; a symbolic or unknown extent shows its name or "?".
std::string shapeText(const std::vector<int64_t>& dims, const std::vector<std::string>& names = {});

}  // namespace ML::OrtBackend
