#pragma once
// Retiming: the picture at a fractional position between two frames. The tiles' overlap follows
// the motion, measured first by a small flow network on the whole region, and tiles are joined
// with linear feathering into a running sum. Whole positions copy the input.
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/RIFE/RenderState.h"
#include "Plugin/Models/RIFE/TempState.h"
#include "Plugin/TiledExecution.h"

namespace ML::RIFE {

class Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

    // The overlap of the tiles, from the largest motion between the two inputs over the region.
    i32 estimateMotionMargin(const RenderState& rs, const ModelInfo& info);

private:
    std::unique_ptr<TiledExecution::ExecutionPlanMap> planMap;
    std::unique_ptr<TempState> tempState;
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> models;
    std::shared_ptr<BackendModel> blendModel, flowModel, maxFlowModel;
};

}  // namespace ML::RIFE
