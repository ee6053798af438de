#include "BackendInstance.h"

#include "Util/ML_WideText.h"

namespace ML::OrtBackend {

BackendInstance::BackendInstance(std::shared_ptr<Runtime> runtime, std::shared_ptr<Device> device,
                                 std::wstring modelFolder, Logger* logger)
    : runtime_(std::move(runtime)),
      device_(std::move(device)),
      modelFolder_(std::move(modelFolder)),
      modelFolderPath_(ML::narrow(modelFolder_)),
      logger_(logger) {}

Ptr<StringT<wchar_t>> BackendInstance::getModelFolder() {
    try {
        return makeWString(modelFolder_);
    } catch (...) {
        return {};  // out of memory: no answer rather than an exception across the border
    }
}

Ptr<StringT<char>> BackendInstance::getVersion() {
    try {
        return makeString(Ort::GetVersionString());
    } catch (...) {
        return {};
    }
}

}  // namespace ML::OrtBackend
