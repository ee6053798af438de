#include "Plugin/ModelContext.h"

#include <cstdlib>
#include <new>

#include "Plugin/BackendCalls.h"
#include "Plugin/PlatformUtil.h"
#include "Plugin/PluginLogger.h"
#include "Util/ML_WideText.h"

namespace ML {

namespace {

Ptr<ArrayT<10>> makeShape(const std::vector<u64>& shape) { return Ptr<ArrayT<10>>(new ArrayTImp<10>(shape)); }

u64 byteSizeOf(const std::vector<u64>& shape, u32 dataType) {
    u64 bytes = bytesPerElement(dataType);
    for (u64 extent : shape) bytes *= extent;
    return bytes;
}

}  // namespace

// ---- BackendTensor ----

BackendTensor::BackendTensor(Ptr<Backend::Tensor> tensor, std::vector<u64> shape, u32 dataType)
    : tensor(std::move(tensor)), shape(std::move(shape)), dataType(dataType) {
    if (!this->tensor) ML_THROW("Tensor is nullptr!");
    byteSize = byteSizeOf(this->shape, dataType);
}

void BackendTensor::upload(const void* source) { checkResult(tensor->upload(source), {}, Exception::BACKEND); }

void BackendTensor::download(void* destination) {
    checkResult(tensor->download(destination), {}, Exception::BACKEND);
}

void BackendTensor::copyFrom(BackendTensor& source) {
    checkResult(tensor->copyFrom(source.tensor), {}, Exception::BACKEND);
}

std::shared_ptr<BackendTensor> BackendTensor::view(const std::vector<u64>& viewShape, u32 viewDataType) {
    Ptr<Backend::Tensor> result =
        checkResult(tensor->view(makeShape(viewShape), viewDataType), {}, Exception::BACKEND);
    return std::make_shared<BackendTensor>(std::move(result), viewShape, viewDataType);
}

// ---- BackendModel ----

BackendModel::BackendModel(Ptr<Backend::Model> model, std::filesystem::path path)
    : model(std::move(model)), path(std::move(path)) {
    if (!this->model) ML_THROW("Model is nullptr!");
    session = checkResult(this->model->createSession(), {}, Exception::BACKEND);
    if (!session) ML_THROW("Session is nullptr!");
}

void BackendModel::run(const TensorList& inputs, const TensorList& outputs, i32 weightsId) {
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = 0; i < inputs.size(); ++i) {
        if (!inputs[i]) ML_THROW("Tensor is nullptr!");
        checkResult(session->setInput(static_cast<i32>(i), inputs[i]->get()), {}, Exception::BACKEND);
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
        if (!outputs[i]) ML_THROW("Tensor is nullptr!");
        checkResult(session->setOutput(static_cast<i32>(i), outputs[i]->get()), {}, Exception::BACKEND);
    }
    if (weightsId != -1) checkResult(session->selectWeights(weightsId), {}, Exception::BACKEND);
    checkResult(model->run(session), "Error running model " + displayPath(path), Exception::BACKEND);
}

i32 BackendModel::refit(const std::filesystem::path& weightsPath) {
    return checkResult(model->refit(makeWString(toWide(weightsPath))), {}, Exception::BACKEND);
}

// ---- ModelContext ----

ModelContext::ModelContext(const std::string& backendName, u32 deviceId, const std::filesystem::path& dataFolder,
                           const std::filesystem::path& auxFolder)
    : backendName(backendName), deviceId(deviceId) {
    logInfo("Loading backend: " + backendName + ", device id: " + std::to_string(deviceId));
    dll = std::make_unique<BackendLibrary>(pluginLibraryFolder() / backendLibraryFileName(backendName));
    Backend::InitCall init(*dll, deviceId, auxFolder, dataFolder, g_pluginLogger);
    instance = std::move(init.instance);
    if (!instance) ML_THROW("Instance is nullptr!");
}

ModelContext::~ModelContext() {
    // Every object of the library goes before the library itself.
    instance.reset();
    dll.reset();
}

std::shared_ptr<BackendModel> ModelContext::loadModel(const std::filesystem::path& path, const std::string& options) {
    Backend::LoadModelCall call(*dll, instance, path, options);
    return std::make_shared<BackendModel>(std::move(call.model), path);
}

std::shared_ptr<BackendTensor> ModelContext::createTensor(const std::vector<u64>& shape, u32 dataType) {
    Backend::CreateTensorCall call(*dll, instance, makeShape(shape), dataType);
    return std::make_shared<BackendTensor>(std::move(call.tensor), shape, dataType);
}

u32 ModelContext::getPrecisionDataType() { return instance->getPrecision() > 0 ? F16 : F32; }

std::filesystem::path ModelContext::getModelFolder() { return pathFromWide(toStd(instance->getModelFolder())); }

std::string ModelContext::getVersion() { return toStd(instance->getVersion()); }

bool ModelContext::supportsRefit() { return instance->supportsRefit(); }

// ---- MultiBuffer ----

MultiBuffer::~MultiBuffer() { std::free(ptr); }

void* MultiBuffer::get(u64 bytes) {
    if (bytes > size) {
        std::free(ptr);
        ptr = nullptr;
        size = 0;
        ptr = std::malloc(bytes);
        if (!ptr) throw std::bad_alloc();
        size = bytes;
    }
    return ptr;
}

}  // namespace ML
