#pragma once
// Helpers shared by every model of one backend connection; a conversion network loaded for
// one model serves all.
#include <memory>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelContext.h"

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

private:
    std::shared_ptr<ModelContext> modelContext;
    ImageTensorConverter converter;
};

}  // namespace ML
