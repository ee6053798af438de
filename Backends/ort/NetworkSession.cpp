#include "NetworkSession.h"

#include "BackendError.h"

namespace ML::OrtBackend {

NetworkSession::NetworkSession(Ptr<NetworkModel> model)
    : model_(std::move(model)),
      inputs_(model_->signature().inputs.size()),
      outputs_(model_->signature().outputs.size()),
      binding_(model_->session()) {}

Result<void> NetworkSession::selectWeights(i32 weightsId) {
    return guarded([&] {
        throw BackendError("Network '" + model_->name() + "' has no weights " + std::to_string(weightsId) +
                           ": this backend cannot refit networks");
    });
}

Result<void> NetworkSession::setInput(i32 index, Ptr<Backend::Tensor> tensor) {
    return guarded([&] { bind(true, index, tensor); });
}

Result<void> NetworkSession::setOutput(i32 index, Ptr<Backend::Tensor> tensor) {
    return guarded([&] { bind(false, index, tensor); });
}

void NetworkSession::bind(bool input, i32 index, const Ptr<Backend::Tensor>& tensor) {
    std::lock_guard<std::mutex> lock(mutex_);
    try {
        bindLocked(input, index, tensor);
    } catch (...) {
        // A run whose bindings failed halfway starts over.
        clearRunFlags();
        throw;
    }
}

void NetworkSession::clearRunFlags() {
    for (Slot& slot : inputs_) slot.setForRun = false;
    for (Slot& slot : outputs_) slot.setForRun = false;
}

void NetworkSession::bindLocked(bool input, i32 index, const Ptr<Backend::Tensor>& tensor) {
    std::vector<Slot>& slots = input ? inputs_ : outputs_;
    const char* kind = input ? "input" : "output";
    // Messages are made only on failure: binding the tensor that is already bound allocates nothing.
    const auto where = [&] { return "Network '" + model_->name() + "' " + kind + " " + std::to_string(index); };
    if (index < 0 || static_cast<size_t>(index) >= slots.size())
        throw BackendError(where() + ": the network has " + std::to_string(slots.size()) + " " + kind + "s");
    Slot& slot = slots[index];
    auto* own = dynamic_cast<DeviceTensor*>(tensor.get());
    if (slot.tensor.get() != own || !own) {
        const TensorPort& port = (input ? model_->signature().inputs : model_->signature().outputs)[index];
        if (!own)
            throw BackendError(where() + " '" + port.name + "': " +
                               (tensor ? "the tensor is not of this backend" : "no tensor"));
        const std::string mismatch = port.mismatch(*own);
        if (!mismatch.empty()) throw BackendError(where() + " '" + port.name + "' " + mismatch);
        if (own->device().index() != model_->device().index())
            throw BackendError(where() + " '" + port.name + "': the tensor is on device " +
                               std::to_string(own->device().index()) + ", the network on device " +
                               std::to_string(model_->device().index()));
        if (input)
            binding_.BindInput(port.name.c_str(), own->value());
        else
            binding_.BindOutput(port.name.c_str(), own->value());
        slot.tensor = Ptr<DeviceTensor>(own);
    }
    slot.setForRun = true;
}

void NetworkSession::run() {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t inputsSet = 0, outputsSet = 0;
    for (const Slot& slot : inputs_) inputsSet += slot.setForRun;
    for (const Slot& slot : outputs_) outputsSet += slot.setForRun;
    clearRunFlags();
    if (inputsSet != inputs_.size() || outputsSet != outputs_.size())
        throw BackendError("Network '" + model_->name() + "' has " + std::to_string(inputs_.size()) + " inputs and " +
                           std::to_string(outputs_.size()) + " outputs, the run was given " +
                           std::to_string(inputsSet) + " inputs and " + std::to_string(outputsSet) + " outputs");
    try {
        model_->session().Run(runOptions_, binding_);
        binding_.SynchronizeOutputs();
    } catch (const Ort::Exception& e) {
        throw BackendError("Network '" + model_->name() + "' failed to run: " + e.what());
    }
}

}  // namespace ML::OrtBackend
