#pragma once
// The plug-in's side of the backend call protocol: one-shot call objects. Each constructor
// fills the fields, sends the call to the backend's mlMain and checks the status, so that a
// finished object holds its results.
#include <filesystem>
#include <string>
#include <vector>

#include "ML/Backend.h"
#include "Plugin/DLL.h"

namespace ML {

using BackendLibrary = DLL<Backend::ApiCall>;

// Sends the call to mlMain(call, 0); 4 without calling when the library or mlMain is gone.
i32 callBackend(BackendLibrary& dll, Backend::ApiCall* call);

// Status 0 returns; 1 raises BACKEND/CANCEL; otherwise BACKEND/HOST (2) or BACKEND/INTERNAL with
// text + ": " + the call's error text, or the error text alone when text is empty.
void checkBackendResult(const Backend::DefaultApiCall& call, i32 status, const std::string& text = {});

namespace Backend {

class InitCall : public DefaultApiCall {
public:
    InitCall(BackendLibrary& dll, u32 deviceId, const std::filesystem::path& auxFolder,
             const std::filesystem::path& dataFolder, Logger* logger);

    i32 getCallType() override { return INIT_CALL; }
    void setInstance(Ptr<Instance> value) override { instance = std::move(value); }
    u32 getDeviceId() override { return deviceId; }
    Ptr<StringT<wchar_t>> getAuxFolder() override { return makeWString(auxFolder); }
    Ptr<StringT<wchar_t>> getDataFolder() override { return makeWString(dataFolder); }
    Logger* getLogger() override { return logger; }

    Ptr<Instance> instance;
    u32 deviceId;
    std::wstring auxFolder;
    std::wstring dataFolder;
    Logger* logger;
};

class LoadModelCall : public DefaultApiCall {
public:
    // Failures read "Error loading model: <path>: <backend's text>", the path with forward slashes.
    LoadModelCall(BackendLibrary& dll, Ptr<Instance> instance, const std::filesystem::path& path,
                  std::string options);

    i32 getCallType() override { return LOAD_MODEL_CALL; }
    Ptr<Instance> getInstance() override { return instance; }
    void setModel(Ptr<Model> value) override { model = std::move(value); }
    Ptr<StringT<wchar_t>> getModelPath() override { return makeWString(modelPath); }
    Ptr<StringT<char>> getOptions() override { return makeString(options); }

    Ptr<Instance> instance;
    std::wstring modelPath;
    Ptr<Model> model;
    std::string options;
};

class CreateTensorCall : public DefaultApiCall {
public:
    CreateTensorCall(BackendLibrary& dll, Ptr<Instance> instance, Ptr<ArrayT<10>> shape, u32 dataType);

    i32 getCallType() override { return CREATE_TENSOR_CALL; }
    Ptr<Instance> getInstance() override { return instance; }
    void setTensor(Ptr<Tensor> value) override { tensor = std::move(value); }
    Ptr<ArrayT<10>> getShape() override { return shape; }
    u32 getDataType() override { return dataType; }

    Ptr<Instance> instance;
    Ptr<ArrayT<10>> shape;
    u32 dataType;
    Ptr<Tensor> tensor;
};

class GetAvailableDevicesCall : public DefaultApiCall {
public:
    explicit GetAvailableDevicesCall(BackendLibrary& dll);

    i32 getCallType() override { return GET_AVAILABLE_DEVICES_CALL; }
    void addDevice(Ptr<StringT<char>> name) override { devices.push_back(toStd(name)); }
    void setDefaultDevice(u32 index) override { defaultDevice = static_cast<i32>(index); }
    void setLabel(Ptr<StringT<char>> text) override { label = toStd(text); }
    void setDetail(Ptr<StringT<char>> text) override { detail = toStd(text); }

    std::vector<std::string> devices;
    i32 defaultDevice = -1;
    std::string label;
    std::string detail;
};

}  // namespace Backend
}  // namespace ML
