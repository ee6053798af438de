#include "Plugin/BackendCalls.h"

#include "Util/ML_WideText.h"

namespace ML {

i32 callBackend(BackendLibrary& dll, Backend::ApiCall* call) {
    if (!dll.isLoaded()) return STATUS_OTHER;
    const BackendLibrary::MainFunction main = dll.getMain();
    if (!main) return STATUS_OTHER;
    return main(call, 0);
}

void checkBackendResult(const Backend::DefaultApiCall& call, i32 status, const std::string& text) {
    if (status == STATUS_OK) return;
    if (status == STATUS_CANCELLED) throw Exception(Exception::BACKEND, Exception::CANCEL, "");
    const std::string message = text.empty() ? call.getError() : text + ": " + call.getError();
    throw Exception(Exception::BACKEND, status == STATUS_HOST ? Exception::HOST : Exception::INTERNAL, message);
}

namespace Backend {

InitCall::InitCall(BackendLibrary& dll, u32 deviceId, const std::filesystem::path& auxFolder,
                   const std::filesystem::path& dataFolder, Logger* logger)
    : deviceId(deviceId), auxFolder(toWide(auxFolder)), dataFolder(toWide(dataFolder)), logger(logger) {
    checkBackendResult(*this, callBackend(dll, this));
}

LoadModelCall::LoadModelCall(BackendLibrary& dll, Ptr<Instance> instance, const std::filesystem::path& path,
                             std::string options)
    : instance(std::move(instance)), modelPath(toWide(path)), options(std::move(options)) {
    checkBackendResult(*this, callBackend(dll, this), "Error loading model: " + displayPath(path));
}

CreateTensorCall::CreateTensorCall(BackendLibrary& dll, Ptr<Instance> instance, Ptr<ArrayT<10>> shape, u32 dataType)
    : instance(std::move(instance)), shape(std::move(shape)), dataType(dataType) {
    checkBackendResult(*this, callBackend(dll, this));
}

GetAvailableDevicesCall::GetAvailableDevicesCall(BackendLibrary& dll) {
    checkBackendResult(*this, callBackend(dll, this));
}

}  // namespace Backend
}  // namespace ML
