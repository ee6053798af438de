#pragma once
// Five-frame video denoiser in two stages. Stage 1 denoises frame t from t - 1, t, t + 1;
// stage 2 makes the final frame from three neighbouring stage-1 results. A stage-1 result
// serves three output frames, so it is kept in the host's compute cache, tile by tile, where
// the renders of neighbouring frames find it. Two host threads may render at once: they share
// the networks and take turns at the pipeline's two slots, with no lock over the whole render.
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/Models/FastDVDNet/Pipeline.h"
#include "Plugin/TiledExecution.h"

namespace ML {

class FastDVDNet_Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

    // The shared network of stage 1 or 2 for this execution size.
    std::shared_ptr<BackendModel> getStageModel(Host* host, u64 call, i32 execW, i32 execH, const ModelInfo& info,
                                                int stage);
    // The pipeline for this tile format, built at first use.
    FastDVDNet_Pipeline& getPipeline(u32 dataType, i32 execW, i32 execH, const Ptr<Image>& hostImage);

private:
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> stageModels;
    std::mutex mutex;
    std::unique_ptr<TiledExecution::ExecutionPlanMap> planMap;
    std::map<std::string, std::unique_ptr<FastDVDNet_Pipeline>> pipelines;
};

}  // namespace ML
