#pragma once
// The plug-in's face of a backend: one library and one instance for one device (ModelContext),
// loaded networks (BackendModel), device tensors (BackendTensor), and grow-only host scratch.
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ML/Backend.h"

namespace ML {

template <class Call>
class DLL;

class BackendTensor {
public:
    BackendTensor(Ptr<Backend::Tensor> tensor, std::vector<u64> shape, u32 dataType);

    void upload(const void* source);
    void download(void* destination);
    void copyFrom(BackendTensor& source);
    // A tensor over the same memory with its own shape; callers keep to their sizes.
    std::shared_ptr<BackendTensor> view(const std::vector<u64>& shape, u32 dataType);

    const std::vector<u64>& getShape() const { return shape; }
    u32 getDataType() const { return dataType; }
    u64 getByteSize() const { return byteSize; }
    const Ptr<Backend::Tensor>& get() const { return tensor; }

private:
    Ptr<Backend::Tensor> tensor;
    std::vector<u64> shape;
    u32 dataType;
    u64 byteSize;
};

using TensorList = std::vector<std::shared_ptr<BackendTensor>>;

class BackendModel {
public:
    BackendModel(Ptr<Backend::Model> model, std::filesystem::path path);

    // Binds inputs and outputs by position and runs; weightsId -1 for networks not refitted.
    void run(const TensorList& inputs, const TensorList& outputs, i32 weightsId = -1);
    i32 refit(const std::filesystem::path& weightsPath);
    const std::filesystem::path& getPath() const { return path; }

private:
    std::mutex mutex;
    Ptr<Backend::Model> model;
    Ptr<Backend::Session> session;
    std::filesystem::path path;
};

class ModelContext {
public:
    ModelContext(const std::string& backendName, u32 deviceId, const std::filesystem::path& dataFolder,
                 const std::filesystem::path& auxFolder);
    ~ModelContext();
    ModelContext(const ModelContext&) = delete;
    ModelContext& operator=(const ModelContext&) = delete;

    std::shared_ptr<BackendModel> loadModel(const std::filesystem::path& path, const std::string& options = {});
    std::shared_ptr<BackendTensor> createTensor(const std::vector<u64>& shape, u32 dataType);

    u32 getPrecisionDataType();  // F16 when the instance's precision is > 0, else F32
    std::filesystem::path getModelFolder();
    std::string getVersion();
    bool supportsRefit();

    const std::string& getBackendName() const { return backendName; }
    u32 getDeviceId() const { return deviceId; }

    // Held by a model family's render while it uses the backend.
    std::mutex computeMutex;

private:
    std::string backendName;
    u32 deviceId;
    std::unique_ptr<DLL<Backend::ApiCall>> dll;
    Ptr<Backend::Instance> instance;
};

// Grow-only host byte buffer; contents do not survive growth.
class MultiBuffer {
public:
    MultiBuffer() = default;
    MultiBuffer(const MultiBuffer&) = delete;
    MultiBuffer& operator=(const MultiBuffer&) = delete;
    ~MultiBuffer();
    void* get(u64 bytes);
    u64 capacity() const { return size; }

private:
    void* ptr = nullptr;
    u64 size = 0;
};

}  // namespace ML
