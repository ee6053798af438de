#include "Plugin/Models/RAFT/Context.h"

#include <mutex>

#include "Plugin/ModelCommon.h"
#include "Plugin/Models/RAFT/RenderState.h"
#include "Plugin/Models/RAFT/TempState.h"

namespace ML::RAFT {

FlowModelRecord Context::getFlowModel(const ModelInfo& info, i32 execH, i32 execW) {
    const bool refit = modelContext->supportsRefit();
    std::string key = info.modelId;
    if (refit) {
        if (!info.params.is_object() || !info.params.contains("archId") || !info.params.at("archId").is_string())
            ML_THROW("Model configuration error: \"archId\" missing for " + info.modelId);
        const std::string archId = info.params.at("archId").get<std::string>();
        key = archId + "_" + std::to_string(execW) + "x" + std::to_string(execH);
    }
    auto found = models.find(key);
    if (found == models.end())
        found = models.emplace(key, modelContext->loadModel(info.modelId, refit ? R"({"enable_refit":true})"
                                                                               : R"({"enable_refit":false})"))
                    .first;
    FlowModelRecord record;
    record.model = found->second;
    record.weightsId = refit ? record.model->refit(info.modelId) : -1;
    return record;
}

std::shared_ptr<BackendModel> Context::getColorModel(i32 execH, i32 execW) {
    const std::string key = std::to_string(execH) + "x" + std::to_string(execW);
    auto found = colorModels.find(key);
    if (found == colorModels.end()) found = colorModels.emplace(key, modelContext->loadModel("flow_viz-" + key)).first;
    return found->second;
}

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, info);
    if (prepareOnly) return;

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    const FlowModelRecord flow = getFlowModel(info, rs.execH, rs.execW);
    if (flow.dataType != F32) ML_THROW("TODO: support fp16 mode!");
    TempState& ts = common->getFlowTempState(F32, rs.execH, rs.execW);

    common->hostImageToTensor(rs.inputs[0], ts.imageDesc, ts.image0);
    common->hostImageToTensor(rs.inputs[1], ts.imageDesc, ts.image1);
    uploadScale(*ts.scale, rs.rect, rs.execH, rs.execW);
    flow.model->run({ts.image0, ts.image1, ts.scale}, {ts.flow}, flow.weightsId);

    if (rs.flowImage) common->tensorToHostImage(ts.flowDesc, ts.flow, rs.flowImage);
    if (rs.colorizedImage) {
        getColorModel(rs.execH, rs.execW)->run({ts.flow}, {ts.flowColor}, -1);
        common->tensorToHostImage(ts.imageDesc, ts.flowColor, rs.colorizedImage);
    }
}

}  // namespace ML::RAFT
