// NVIDIA GPUs, with networks on ONNX Runtime's CUDA execution provider and tensors in device
// memory. Built only with QUILLON_ORT_CUDA.
#include <cuda_runtime.h>

#include <string>

#include "BackendError.h"
#include "Device.h"

namespace ML::OrtBackend {

namespace {

void check(cudaError_t status, const char* what) {
    if (status != cudaSuccess) throw BackendError(std::string(what) + ": " + cudaGetErrorString(status));
}

int deviceCount() {
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess) {
        cudaGetLastError();  // clears the sticky error of a machine without a driver
        return 0;
    }
    return count;
}

std::string deviceName(int index) {
    cudaDeviceProp properties{};
    check(cudaGetDeviceProperties(&properties, index), "cudaGetDeviceProperties");
    return properties.name;
}

class CudaDevice final : public Device {
public:
    explicit CudaDevice(int index)
        : index_(index),
          name_(deviceName(index)),
          memoryInfo_("Cuda", OrtDeviceAllocator, index, OrtMemTypeDefault) {}

    u32 index() const override { return static_cast<u32>(index_); }
    const std::string& name() const override { return name_; }

    void* allocate(u64 bytes) override {
        check(cudaSetDevice(index_), "cudaSetDevice");
        void* data = nullptr;
        // cudaMalloc aligns to at least 256 bytes.
        check(cudaMalloc(&data, bytes ? bytes : 64), "cudaMalloc");
        const cudaError_t cleared = cudaMemset(data, 0, bytes ? bytes : 64);
        if (cleared != cudaSuccess) {
            cudaFree(data);
            check(cleared, "cudaMemset");
        }
        return data;
    }
    void deallocate(void* data) noexcept override {
        if (cudaSetDevice(index_) == cudaSuccess) cudaFree(data);
    }

    void copyFromHost(void* destination, const void* source, u64 bytes) override {
        check(cudaSetDevice(index_), "cudaSetDevice");
        check(cudaMemcpy(destination, source, bytes, cudaMemcpyHostToDevice), "cudaMemcpy to the device");
    }
    void copyToHost(void* destination, const void* source, u64 bytes) override {
        check(cudaSetDevice(index_), "cudaSetDevice");
        check(cudaMemcpy(destination, source, bytes, cudaMemcpyDeviceToHost), "cudaMemcpy from the device");
    }
    void copyOnDevice(void* destination, const void* source, u64 bytes) override {
        check(cudaSetDevice(index_), "cudaSetDevice");
        check(cudaMemcpy(destination, source, bytes, cudaMemcpyDeviceToDevice), "cudaMemcpy on the device");
    }

    const Ort::MemoryInfo& memoryInfo() const override { return memoryInfo_; }

    void addExecutionProvider(Ort::SessionOptions& options) const override {
        OrtCUDAProviderOptionsV2* cuda = nullptr;
        Ort::ThrowOnError(Ort::GetApi().CreateCUDAProviderOptions(&cuda));
        std::unique_ptr<OrtCUDAProviderOptionsV2, decltype(Ort::GetApi().ReleaseCUDAProviderOptions)> owner(
            cuda, Ort::GetApi().ReleaseCUDAProviderOptions);
        const std::string id = std::to_string(index_);
        const char* keys[] = {"device_id", "do_copy_in_default_stream"};
        const char* values[] = {id.c_str(), "1"};
        Ort::ThrowOnError(Ort::GetApi().UpdateCUDAProviderOptions(cuda, keys, values, 2));
        options.AppendExecutionProvider_CUDA_V2(*cuda);
    }

private:
    int index_;
    std::string name_;
    Ort::MemoryInfo memoryInfo_;
};

}  // namespace

DeviceList listDevices(int threads) {
    const std::string version = Ort::GetVersionString();
    DeviceList list;
    const int count = deviceCount();
    for (int i = 0; i < count; ++i) list.names.push_back(deviceName(i));
    list.defaultIndex = 0;
    list.label = "ONNX Runtime " + version + " (CUDA)";
    list.detail = "ONNX Runtime " + version + ", CUDA execution provider, " + std::to_string(count) +
                  " GPUs, " + std::to_string(threads) + " CPU threads";
    return list;
}

std::shared_ptr<Device> openDevice(u32 deviceId) {
    const int count = deviceCount();
    if (deviceId >= static_cast<u32>(count))
        throw BackendError("Device id " + std::to_string(deviceId) + " is not available: " + std::to_string(count) +
                           " CUDA devices");
    return std::make_shared<CudaDevice>(static_cast<int>(deviceId));
}

}  // namespace ML::OrtBackend
