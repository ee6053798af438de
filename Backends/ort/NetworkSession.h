#pragma once
// The bindings of one network. Tensors are bound by index to the network's inputs and outputs
// in order, checked when bound, and kept bound in an ONNX Runtime IoBinding: binding the same
// tensor again costs nothing, so a steady run allocates nothing here. Every run needs every
// slot set since the run before.
#include <mutex>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "DeviceTensor.h"
#include "ML/Backend.h"
#include "NetworkModel.h"

namespace ML::OrtBackend {

class NetworkSession final : public Backend::Session, public ReferenceImp {
public:
    explicit NetworkSession(Ptr<NetworkModel> model);

    Result<void> selectWeights(i32 weightsId) override;
    Result<void> setInput(i32 index, Ptr<Backend::Tensor> tensor) override;
    Result<void> setOutput(i32 index, Ptr<Backend::Tensor> tensor) override;

    NetworkModel& model() const { return *model_; }

    // Runs the network on the tensors set since the last run; throws BackendError.
    void run();

private:
    struct Slot {
        Ptr<DeviceTensor> tensor;  // bound in the IoBinding
        bool setForRun = false;
    };

    void bind(bool input, i32 index, const Ptr<Backend::Tensor>& tensor);
    void bindLocked(bool input, i32 index, const Ptr<Backend::Tensor>& tensor);
    void clearRunFlags();

    // Destroyed in reverse: the binding before the tensors it points at, the model last.
    Ptr<NetworkModel> model_;
    Ort::RunOptions runOptions_;
    std::vector<Slot> inputs_;
    std::vector<Slot> outputs_;
    Ort::IoBinding binding_;
    std::mutex mutex_;
};

}  // namespace ML::OrtBackend
