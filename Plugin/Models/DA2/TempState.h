#pragma once
// Networks and device tensors of one depth model, at its one execution size.
#include <memory>

#include "Plugin/ModelContext.h"
#include "Plugin/ModelInfo.h"

namespace ML::DA2 {

struct TempState {
    TempState(const std::shared_ptr<ModelContext>& modelContext, const ModelInfo& info);

    std::shared_ptr<ModelContext> modelContext;
    std::shared_ptr<BackendModel> depthModel;
    std::shared_ptr<BackendModel> colorizeModel;
    Ptr<Image> inputDesc;
    std::shared_ptr<BackendTensor> inputTensor;
    Ptr<Image> depthDesc;
    std::shared_ptr<BackendTensor> depthTensor;
    Ptr<Image> colorDesc;
    std::shared_ptr<BackendTensor> colorTensor;
};

}  // namespace ML::DA2
