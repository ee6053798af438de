#pragma once
// One initialised backend for one device: where network files are found, and what the plug-in
// asks about the backend.
#include <filesystem>
#include <memory>
#include <string>

#include "Device.h"
#include "ML/Backend.h"
#include "Runtime.h"

namespace ML::OrtBackend {

class BackendInstance final : public Backend::Instance, public ReferenceImp {
public:
    // modelFolder: the aux folder when the plug-in gave one, else the data folder.
    BackendInstance(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device, std::wstring modelFolder,
                    Logger* logger);

    Ptr<StringT<wchar_t>> getModelFolder() override;
    i32 getPrecision() override { return 1; }  // networks run in F16
    Ptr<StringT<char>> getVersion() override;
    bool supportsRefit() override { return false; }

    const std::shared_ptr<Runtime>& runtime() const { return runtime_; }
    const std::shared_ptr<Device>& device() const { return device_; }
    const std::filesystem::path& modelFolder() const { return modelFolderPath_; }
    Logger* logger() const { return logger_; }

private:
    std::shared_ptr<Runtime> runtime_;
    std::shared_ptr<Device> device_;
    std::wstring modelFolder_;
    std::filesystem::path modelFolderPath_;
    Logger* logger_;
};

}  // namespace ML::OrtBackend
