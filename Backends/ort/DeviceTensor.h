#pragma once
// A tensor in device memory. Views share the memory block, which lives as long as any tensor
// over it; the ONNX Runtime value over the memory is made on first binding and reused.
#include <memory>
#include <mutex>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "Device.h"
#include "ML/Backend.h"
#include "Runtime.h"

namespace ML::OrtBackend {

// One block of device memory, shared by a tensor and its views.
class TensorMemory {
public:
    TensorMemory(std::shared_ptr<Device> device, u64 bytes);
    ~TensorMemory();
    TensorMemory(const TensorMemory&) = delete;
    TensorMemory& operator=(const TensorMemory&) = delete;

    Device& device() const { return *device_; }
    void* data() const { return data_; }
    u64 size() const { return size_; }

private:
    std::shared_ptr<Device> device_;
    void* data_;
    u64 size_;
};

class DeviceTensor final : public Backend::Tensor, public ReferenceImp {
public:
    // A new zero-filled tensor; throws BackendError for an unknown type or an impossible shape.
    static Ptr<DeviceTensor> create(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device,
                                    const ArrayT<10>* shape, u32 dataType);

    Result<void> upload(const void* source) override;
    Result<void> download(void* destination) override;
    Result<void> copyFrom(Ptr<Backend::Tensor> source) override;
    Result<Ptr<Backend::Tensor>> view(Ptr<ArrayT<10>> shape, u32 dataType) override;

    const std::vector<int64_t>& shape() const { return shape_; }
    u32 dataType() const { return dataType_; }
    u64 byteSize() const { return byteSize_; }
    Device& device() const { return memory_->device(); }

    // The ONNX Runtime value over this tensor's memory, made on first use; thread-safe.
    const Ort::Value& value();

private:
    DeviceTensor(std::shared_ptr<Runtime> runtime, std::shared_ptr<TensorMemory> memory, std::vector<int64_t> shape,
                 u32 dataType, u64 byteSize);

    std::shared_ptr<Runtime> runtime_;
    std::shared_ptr<TensorMemory> memory_;
    std::vector<int64_t> shape_;
    u32 dataType_;
    u64 byteSize_;
    std::once_flag valueMade_;
    Ort::Value value_{nullptr};
};

}  // namespace ML::OrtBackend
