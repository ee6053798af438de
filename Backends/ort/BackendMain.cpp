// Entry points of the backend library: mlMain answers one call object, mlShutdown lets the
// ONNX Runtime environment go. Nothing is thrown out of either.
#include "BackendError.h"
#include "BackendInstance.h"
#include "DeviceTensor.h"
#include "ML/Backend.h"
#include "NetworkModel.h"
#include "Runtime.h"

namespace ML::OrtBackend {

namespace {

BackendInstance& ownInstance(Backend::ApiCall& call) {
    Ptr<Backend::Instance> instance = call.getInstance();
    auto* own = dynamic_cast<BackendInstance*>(instance.get());
    if (!own) throw BackendError(instance ? "The instance is not of this backend" : "No instance given");
    return *own;  // the call object keeps it alive
}

void initialise(Backend::ApiCall& call) {
    std::shared_ptr<Runtime> runtime = acquireRuntime();
    u32 deviceId = call.getDeviceId();
    if (deviceId == DEFAULT_DEVICE) deviceId = listDevices(runtime->threads()).defaultIndex;
    std::shared_ptr<Device> device = openDevice(deviceId);
    std::wstring folder = toStd(call.getAuxFolder());
    if (folder.empty()) folder = toStd(call.getDataFolder());
    call.setInstance(Ptr<Backend::Instance>(
        new BackendInstance(std::move(runtime), std::move(device), folder, call.getLogger())));
}

void loadModel(Backend::ApiCall& call) {
    const BackendInstance& instance = ownInstance(call);
    Ptr<NetworkModel> model = NetworkModel::load(instance, toStd(call.getModelPath()), toStd(call.getOptions()));
    call.setModel(Ptr<Backend::Model>(model.get()));
}

void createTensor(Backend::ApiCall& call) {
    const BackendInstance& instance = ownInstance(call);
    Ptr<ArrayT<10>> shape = call.getShape();
    if (!shape) throw BackendError("No tensor shape given");
    Ptr<DeviceTensor> tensor =
        DeviceTensor::create(instance.runtime(), instance.device(), shape.get(), call.getDataType());
    call.setTensor(Ptr<Backend::Tensor>(tensor.get()));
}

void reportDevices(Backend::ApiCall& call) {
    const DeviceList list = listDevices(sharedPoolThreads());
    for (const std::string& name : list.names) call.addDevice(makeString(name));
    if (!list.names.empty()) call.setDefaultDevice(list.defaultIndex);
    call.setLabel(makeString(list.label));
    call.setDetail(makeString(list.detail));
}

}  // namespace

}  // namespace ML::OrtBackend

extern "C" __attribute__((visibility("default"))) ML::i32 mlMain(ML::Backend::ApiCall* call, ML::u64 /*reserved*/) {
    using namespace ML;
    using namespace ML::OrtBackend;
    if (!call) return STATUS_OTHER;
    try {
        const i32 type = call->getCallType();
        switch (type) {
            case Backend::INIT_CALL: initialise(*call); break;
            case Backend::LOAD_MODEL_CALL: loadModel(*call); break;
            case Backend::CREATE_TENSOR_CALL: createTensor(*call); break;
            case Backend::GET_AVAILABLE_DEVICES_CALL: reportDevices(*call); break;
            default: throw BackendError("Unknown backend call type " + std::to_string(type));
        }
        return STATUS_OK;
    } catch (...) {
        const Failure failure = currentFailure();
        try {
            call->setError(makeString(failure.text));
        } catch (...) {
            // The caller's error slot failed too; the status still tells.
        }
        return failure.status == STATUS_OK ? STATUS_OTHER : failure.status;
    }
}

extern "C" __attribute__((visibility("default"))) void mlShutdown() {
    try {
        ML::OrtBackend::shutdownRuntime();
    } catch (...) {
    }
}
