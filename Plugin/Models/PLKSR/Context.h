#pragma once
// Upscaling by a factor above 1 and up to 10: a network trained for an integer scale runs in
// tiles; at a trained scale it writes the result directly, otherwise the result of the next
// larger trained scale is resampled to the requested factor.
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/Models/PLKSR/TempState.h"
#include "Plugin/TiledExecution.h"

namespace ML::PLKSR {

class Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

private:
    std::unordered_map<std::string, std::shared_ptr<TempState>> states;
    std::map<i32, std::unique_ptr<TiledExecution::ExecutionPlanMap>> planMaps;  // by output tile side
};

}  // namespace ML::PLKSR
