#pragma once
// The network of one trained scale, its device tensors, and the resampler that takes its result
// to a factor the model was not trained for.
#include <memory>

#include "Plugin/ModelContext.h"
#include "Plugin/ModelInfo.h"
#include "Plugin/Models/PLKSR/RenderState.h"
#include "Plugin/MultiTensor.h"
#include "Plugin/TiledExecution.h"

namespace ML::PLKSR {

struct TempState {
    TempState(const std::shared_ptr<ModelContext>& modelContext, const ModelInfo& info, const ExecInfo& exec);

    // The resampling network, loaded on first use: renders at a trained scale never need it.
    const std::shared_ptr<BackendModel>& sampler();

    static constexpr i32 samplerTileSize = 2048;

    std::shared_ptr<ModelContext> modelContext;
    u32 dataType = F16;
    std::shared_ptr<BackendModel> network;
    Ptr<Image> inputDesc;
    std::shared_ptr<BackendTensor> inputTensor;
    Ptr<Image> outputDesc;
    std::shared_ptr<BackendTensor> outputTensor;
    std::shared_ptr<BackendTensor> samplerParams;  // 1x7x1x1 F32
    std::shared_ptr<BackendTensor> samplerSize;    // 1x2x1x1 I32: width, height
    MultiTensor samplerSource;
    MultiTensor samplerDestination;
    TiledExecution::ExecutionPlanMap samplerPlans;

private:
    std::shared_ptr<BackendModel> samplerModel;
};

}  // namespace ML::PLKSR
