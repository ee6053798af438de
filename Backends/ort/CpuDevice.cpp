// One device, the processor, with networks on ONNX Runtime's CPU execution provider and tensors
// in ordinary host memory.
#include <cstring>
#include <new>

#include "BackendError.h"
#include "CpuInfo.h"
#include "Device.h"
#include "ImageKernels.h"
#include "Runtime.h"

namespace ML::OrtBackend {

namespace {

constexpr std::size_t kAlignment = 64;

class CpuDevice final : public Device {
public:
    CpuDevice()
        : name_(cpuModelName()),
          memoryInfo_(Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeDefault)),
          threads_(sharedPoolThreads()) {}

    u32 index() const override { return 0; }
    const std::string& name() const override { return name_; }

    void* allocate(u64 bytes) override {
        // Rounded up so that vectorised kernels may read whole blocks at the end.
        const u64 rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
        void* data = ::operator new(rounded ? rounded : kAlignment, std::align_val_t(kAlignment), std::nothrow);
        if (!data) throw BackendError("Out of memory allocating a tensor of " + std::to_string(bytes) + " bytes");
        std::memset(data, 0, rounded ? rounded : kAlignment);
        return data;
    }
    void deallocate(void* data) noexcept override { ::operator delete(data, std::align_val_t(kAlignment)); }

    // Uploads and downloads of whole frames are split over the fused kernels' threads.
    void copyFromHost(void* destination, const void* source, u64 bytes) override {
        copyBytes(destination, source, bytes, threads_);
    }
    void copyToHost(void* destination, const void* source, u64 bytes) override {
        copyBytes(destination, source, bytes, threads_);
    }
    void copyOnDevice(void* destination, const void* source, u64 bytes) override {
        std::memmove(destination, source, bytes);
    }

    const Ort::MemoryInfo& memoryInfo() const override { return memoryInfo_; }
    void addExecutionProvider(Ort::SessionOptions&) const override {}  // the CPU provider is always there

private:
    std::string name_;
    Ort::MemoryInfo memoryInfo_;
    int threads_;
};

}  // namespace

DeviceList listDevices(int threads) {
    const std::string version = Ort::GetVersionString();
    DeviceList list;
    list.names.push_back(cpuModelName());
    list.defaultIndex = 0;
    list.label = "ONNX Runtime " + version + " (CPU)";
    list.detail = "ONNX Runtime " + version + ", CPU execution provider, " + std::to_string(threads) + " threads";
    return list;
}

std::shared_ptr<Device> openDevice(u32 deviceId) {
    if (deviceId != 0)
        throw BackendError("Device id " + std::to_string(deviceId) + " is not available: this backend has one device, 0");
    return std::make_shared<CpuDevice>();
}

}  // namespace ML::OrtBackend
