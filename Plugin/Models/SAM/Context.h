#pragma once
// Interactive segmentation (target 7): positive and negative clicks or a box on one frame give a
// mask of the object at the region's full resolution. The image encoder depends on the frame
// only and its result stays in the host's cache under "enc:<frame>"; a new prompt on a frame
// already encoded costs one run of the small prompt decoder and the logits-to-mask stage.
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/SAM/RenderState.h"
#include "Plugin/Models/SAM/TempState.h"
#include "Plugin/TiledExecution.h"

namespace ML::SAM {

// The host cache key of a frame's image embedding: "enc:" and the frame number.
std::string encodingKey(u32 frame);

class Context : public ModelBase {
public:
    Context(std::shared_ptr<ModelContext> modelContext, std::shared_ptr<ModelCommon> common);
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

    // The encoder "<modelId>_enc" and the decoder "<modelId>_dec_single" or "_dec_batch", loaded
    // at first use with the host told that a load is under way.
    std::shared_ptr<BackendModel> getEncoder(Host* host, u64 call, const ModelInfo& modelInfo);
    std::shared_ptr<BackendModel> getDecoder(Host* host, u64 call, const ModelInfo& modelInfo, bool batch);

private:
    TempState& tempState(const RenderState& rs);
    TempState_Host& hostState(const RenderState& rs);
    // Brings the frame's embedding into the state's tensors, encoding it when the host has none.
    void loadEmbedding(RenderState& rs, TempState& ts);
    void logitsToMask(RenderState& rs, TempState& ts, TempState_Host& hs);
    void colorize(RenderState& rs, TempState_Host& hs);
    std::shared_ptr<BackendModel>& helper(std::shared_ptr<BackendModel>& slot, const std::string& file);

    u32 dataType;
    std::unordered_map<std::string, std::shared_ptr<TempState>> tempStates;       // by modelId
    std::unordered_map<std::string, std::shared_ptr<TempState_Host>> hostStates;  // by rectangle
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> encoders;      // by modelId
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> decoders;      // by file name
    std::unique_ptr<TiledExecution::ExecutionPlanMap> tilePlans;
    std::shared_ptr<BackendModel> logitsToMasks, maskColorizer;
};

}  // namespace ML::SAM
