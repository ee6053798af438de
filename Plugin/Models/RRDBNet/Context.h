#pragma once
// Same-size enhancement: one frame in, one frame of the same size out, run in square tiles
// whose borders are discarded. No state between frames.
#include <map>
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/Models/RRDBNet/TempState.h"
#include "Plugin/TiledExecution.h"

namespace ML::RRDBNet {

class Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

private:
    std::unordered_map<std::string, std::shared_ptr<TempState>> states;
    std::map<i32, std::unique_ptr<TiledExecution::ExecutionPlanMap>> planMaps;  // by tile size
};

}  // namespace ML::RRDBNet
