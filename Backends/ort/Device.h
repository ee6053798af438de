#pragma once
// The compute devices of this build: where tensor memory lives, how it is copied, and which
// ONNX Runtime execution provider runs networks on it. CpuDevice.cpp or CudaDevice.cpp
// implements it, chosen by the build.
#include <memory>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "ML/Types.h"

namespace ML::OrtBackend {

class Device {
public:
    virtual ~Device() = default;

    virtual u32 index() const = 0;
    virtual const std::string& name() const = 0;

    // Zero-filled memory of at least bytes, 64-byte aligned; throws on failure.
    virtual void* allocate(u64 bytes) = 0;
    virtual void deallocate(void* data) noexcept = 0;

    virtual void copyFromHost(void* deviceDestination, const void* hostSource, u64 bytes) = 0;
    virtual void copyToHost(void* hostDestination, const void* deviceSource, u64 bytes) = 0;
    virtual void copyOnDevice(void* destination, const void* source, u64 bytes) = 0;

    // Describes this device's memory to ONNX Runtime.
    virtual const Ort::MemoryInfo& memoryInfo() const = 0;
    // Adds the execution provider for this device to a network's options.
    virtual void addExecutionProvider(Ort::SessionOptions& options) const = 0;
};

struct DeviceList {
    std::vector<std::string> names;  // stable order; the index is the device id
    u32 defaultIndex = 0;
    std::string label;
    std::string detail;
};

// What GetAvailableDevices reports; threads is the shared pool size a new environment gets.
DeviceList listDevices(int threads);

// Throws BackendError for an id that is not a device.
std::shared_ptr<Device> openDevice(u32 deviceId);

}  // namespace ML::OrtBackend
