#pragma once
// Optical flow between a frame and the frame at an offset: a two-channel flow image in picture
// pixels and, on request, a coloured view of it. The flow network and its tensors are shared with
// retiming, which measures motion with them.
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/ModelContext.h"

namespace ML::RAFT {

struct FlowModelRecord {
    u32 dataType = F32;
    i32 weightsId = -1;
    std::shared_ptr<BackendModel> model;
};

class Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

private:
    FlowModelRecord getFlowModel(const ModelInfo& info, i32 execH, i32 execW);
    std::shared_ptr<BackendModel> getColorModel(i32 execH, i32 execW);

    std::unordered_map<std::string, std::shared_ptr<BackendModel>> models;
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> colorModels;
};

}  // namespace ML::RAFT
