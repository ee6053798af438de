#include "DeviceTensor.h"

#include <limits>

#include "BackendError.h"
#include "ElementTypes.h"

namespace ML::OrtBackend {

namespace {

// Extents as ONNX Runtime wants them, with the byte size; refuses what cannot be addressed.
std::vector<int64_t> checkedShape(const ArrayT<10>* shape, u32 dataType, u64& byteSize) {
    if (!isKnownDataType(dataType)) throw BackendError("Unknown tensor data type " + std::to_string(dataType));
    std::vector<int64_t> dims;
    u64 elements = 1;
    const u64 rank = shape ? shape->size() : 0;
    dims.reserve(rank);
    for (u64 i = 0; i < rank; ++i) {
        const u64 extent = *shape->at(static_cast<int>(i));
        const u64 limit = static_cast<u64>(std::numeric_limits<int64_t>::max()) / elementSize(dataType);
        if (extent > limit || (extent != 0 && elements > limit / extent))
            throw BackendError("Tensor shape is too large: extent " + std::to_string(extent) + " at dimension " +
                               std::to_string(i));
        elements *= extent;
        dims.push_back(static_cast<int64_t>(extent));
    }
    byteSize = elements * elementSize(dataType);
    return dims;
}

DeviceTensor* ownTensor(const Ptr<Backend::Tensor>& tensor) { return dynamic_cast<DeviceTensor*>(tensor.get()); }

}  // namespace

TensorMemory::TensorMemory(std::shared_ptr<Device> device, u64 bytes)
    : device_(std::move(device)), data_(device_->allocate(bytes)), size_(bytes) {}

TensorMemory::~TensorMemory() { device_->deallocate(data_); }

DeviceTensor::DeviceTensor(std::shared_ptr<Runtime> runtime, std::shared_ptr<TensorMemory> memory,
                           std::vector<int64_t> shape, u32 dataType, u64 byteSize)
    : runtime_(std::move(runtime)),
      memory_(std::move(memory)),
      shape_(std::move(shape)),
      dataType_(dataType),
      byteSize_(byteSize) {}

Ptr<DeviceTensor> DeviceTensor::create(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device,
                                       const ArrayT<10>* shape, u32 dataType) {
    u64 bytes = 0;
    std::vector<int64_t> dims = checkedShape(shape, dataType, bytes);
    auto memory = std::make_shared<TensorMemory>(std::move(device), bytes);
    return Ptr<DeviceTensor>(new DeviceTensor(std::move(runtime), std::move(memory), std::move(dims), dataType, bytes));
}

Result<void> DeviceTensor::upload(const void* source) {
    return guarded([&] {
        if (!source && byteSize_) throw BackendError("Tensor upload from a null pointer");
        if (byteSize_) memory_->device().copyFromHost(memory_->data(), source, byteSize_);
    });
}

Result<void> DeviceTensor::download(void* destination) {
    return guarded([&] {
        if (!destination && byteSize_) throw BackendError("Tensor download to a null pointer");
        if (byteSize_) memory_->device().copyToHost(destination, memory_->data(), byteSize_);
    });
}

Result<void> DeviceTensor::copyFrom(Ptr<Backend::Tensor> source) {
    return guarded([&] {
        DeviceTensor* from = ownTensor(source);
        if (!from) throw BackendError("Tensor copy from a tensor that is not of this backend");
        if (from->byteSize_ != byteSize_)
            throw BackendError("Tensor copy between different sizes: " + std::to_string(from->byteSize_) +
                               " bytes into " + std::to_string(byteSize_));
        if (from->device().index() != device().index())
            throw BackendError("Tensor copy between devices " + std::to_string(from->device().index()) + " and " +
                               std::to_string(device().index()));
        if (byteSize_ && from->memory_->data() != memory_->data())
            memory_->device().copyOnDevice(memory_->data(), from->memory_->data(), byteSize_);
    });
}

Result<Ptr<Backend::Tensor>> DeviceTensor::view(Ptr<ArrayT<10>> shape, u32 dataType) {
    return guarded([&]() -> Ptr<Backend::Tensor> {
        u64 bytes = 0;
        std::vector<int64_t> dims = checkedShape(shape.get(), dataType, bytes);
        if (bytes > memory_->size())
            throw BackendError("Tensor view of " + dataTypeName(dataType) + " " + shapeText(dims) + " needs " +
                               std::to_string(bytes) + " bytes, the tensor has " + std::to_string(memory_->size()));
        return Ptr<Backend::Tensor>(new DeviceTensor(runtime_, memory_, std::move(dims), dataType, bytes));
    });
}

const Ort::Value& DeviceTensor::value() {
    std::call_once(valueMade_, [this] {
        value_ = Ort::Value::CreateTensor(memory_->device().memoryInfo(), memory_->data(), byteSize_, shape_.data(),
                                          shape_.size(), onnxElementType(dataType_));
    });
    return value_;
}

}  // namespace ML::OrtBackend
