#pragma once
// A loaded network: one ONNX Runtime session, its inputs and outputs, and the device it runs on.
#include <memory>
#include <string>

#include <onnxruntime_cxx_api.h>

#include "Device.h"
#include "ML/Backend.h"
#include "NetworkSignature.h"
#include "Runtime.h"

namespace ML::OrtBackend {

class BackendInstance;

class NetworkModel final : public Backend::Model, public ReferenceImp {
public:
    // Loads <model folder>/<path>.onnx; path may use forward or backward slashes. Throws
    // BackendError: status 2 when the file is missing, 4 for anything else.
    static Ptr<NetworkModel> load(const BackendInstance& instance, const std::wstring& path,
                                  const std::string& options);

    Result<void> run(Ptr<Backend::Session> session) override;
    Result<Ptr<Backend::Session>> createSession() override;
    Result<i32> refit(Ptr<StringT<wchar_t>> weightsPath) override;

    const std::string& name() const { return name_; }
    Ort::Session& session() { return session_; }
    const NetworkSignature& signature() const { return signature_; }
    Device& device() const { return *device_; }

private:
    NetworkModel(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device, std::string name,
                 Ort::Session session);

    std::shared_ptr<Runtime> runtime_;
    std::shared_ptr<Device> device_;
    std::string name_;  // the path as the plug-in gave it, with forward slashes
    Ort::Session session_;
    NetworkSignature signature_;
};

}  // namespace ML::OrtBackend
