#include "ElementTypes.h"

namespace ML::OrtBackend {

namespace {

struct TypeEntry {
    const char* name;
    u64 size;
    ONNXTensorElementDataType onnx;
};

// Indexed by ML::DataType; the size type is an unsigned 64-bit integer.
constexpr TypeEntry kTypes[] = {
    {"U8", 1, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8},      {"I8", 1, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8},
    {"U16", 2, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT16},    {"I16", 2, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT16},
    {"U32", 4, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT32},    {"I32", 4, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32},
    {"U64", 8, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64},    {"I64", 8, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64},
    {"F16", 2, ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16},   {"F32", 4, ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT},
    {"U64", 8, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT64},
};
constexpr u32 kTypeCount = sizeof(kTypes) / sizeof(kTypes[0]);

}  // namespace

bool isKnownDataType(u32 dataType) { return dataType < kTypeCount; }
u64 elementSize(u32 dataType) { return kTypes[dataType].size; }
ONNXTensorElementDataType onnxElementType(u32 dataType) { return kTypes[dataType].onnx; }

std::string dataTypeName(u32 dataType) {
    return isKnownDataType(dataType) ? kTypes[dataType].name : "type " + std::to_string(dataType);
}

std::string elementTypeName(ONNXTensorElementDataType type) {
    for (u32 i = 0; i < kTypeCount; ++i)
        if (kTypes[i].onnx == type) return kTypes[i].name;
    switch (type) {
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE: return "F64";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_BOOL: return "BOOL";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_STRING: return "STRING";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_BFLOAT16: return "BF16";
        default: return "ONNX type " + std::to_string(static_cast<int>(type));
    }
}

std::string shapeText(const std::vector<int64_t>& dims, const std::vector<std::string>& names) {
    std::string text = "[";
    for (size_t i = 0; i < dims.size(); ++i) {
        if (i) text += ",";
        if (dims[i] >= 0)
            text += std::to_string(dims[i]);
        else if (i < names.size() && !names[i].empty())
            text += names[i];
        else
            text += "?";
    }
    return text + "]";
}

}  // namespace ML::OrtBackend
