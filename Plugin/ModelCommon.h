#pragma once
// Helpers shared by every model of one backend connection; a conversion network loaded for
// one model serves all.
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/RAFT/TempState.h"
#include "Plugin/Models/YOLO7/Detector.h"

namespace ML {

class ModelCommon {
public:
    explicit ModelCommon(std::shared_ptr<ModelContext> modelContext)
        : modelContext(modelContext), converter(modelContext) {}

    void hostImageToTensor(Ptr<Image> hostImage, Ptr<Image> description, std::shared_ptr<BackendTensor> tensor) {
        converter.hostImageToTensor(hostImage, description, tensor);
    }
    void tensorToHostImage(Ptr<Image> description, std::shared_ptr<BackendTensor> tensor, Ptr<Image> hostImage) {
        converter.tensorToHostImage(description, tensor, hostImage);
    }
    void tensorToTensor(Ptr<Image> sourceDescription, std::shared_ptr<BackendTensor> sourceTensor,
                        Ptr<Image> destinationDescription, std::shared_ptr<BackendTensor> destinationTensor) {
        converter.tensorToTensor(sourceDescription, sourceTensor, destinationDescription, destinationTensor);
    }

    ImageTensorConverter& getConverter() { return converter; }

    // The detector of `id`, made at first use and kept for the life of this object.
    YOLO7::Detector& getDetector(const std::string& id) {
        std::lock_guard<std::mutex> lock(detectorsMutex);
        auto& detector = detectors[id];
        if (!detector) detector = std::make_shared<YOLO7::Detector>(modelContext, id);
        return *detector;
    }

    // The flow network's tensors for this execution size, made at first use in this type (the
    // flow networks run in F32 only). Callers hold the compute mutex while they use them.
    RAFT::TempState& getFlowTempState(u32 dataType, i32 execH, i32 execW) {
        const std::string key = std::to_string(execH) + "x" + std::to_string(execW);
        std::lock_guard<std::mutex> lock(flowStatesMutex);
        auto& state = flowStates[key];
        if (!state) state = std::make_unique<RAFT::TempState>(modelContext, dataType, execH, execW);
        return *state;
    }

private:
    std::shared_ptr<ModelContext> modelContext;
    ImageTensorConverter converter;
    std::mutex detectorsMutex;
    std::unordered_map<std::string, std::shared_ptr<YOLO7::Detector>> detectors;
    std::mutex flowStatesMutex;
    std::unordered_map<std::string, std::unique_ptr<RAFT::TempState>> flowStates;
};

}  // namespace ML
