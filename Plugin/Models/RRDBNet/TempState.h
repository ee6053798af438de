#pragma once
// The network and device tensors of one enhancement model at its square tile size.
#include <memory>

#include "Plugin/ModelContext.h"
#include "Plugin/ModelInfo.h"

namespace ML::RRDBNet {

struct TempState {
    TempState(const std::shared_ptr<ModelContext>& modelContext, const ModelInfo& info, i32 tileSize);

    std::shared_ptr<BackendModel> network;
    Ptr<Image> inputDesc;
    std::shared_ptr<BackendTensor> inputTensor;
    Ptr<Image> outputDesc;
    std::shared_ptr<BackendTensor> outputTensor;
};

}  // namespace ML::RRDBNet
