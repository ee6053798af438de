#pragma once
// Face parsing for the detection effect: for every face of the result, a network labels the
// pixels of the face's box grown 1.75 times; the host receives one 8-bit soft mask per class in
// one buffer, and the JSON says where each mask lies in it.
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/ModelContext.h"
#include "Plugin/MultiTensor.h"
#include "Plugin/TiledExecution.h"

namespace ML {

class ModelCommon;

namespace YOLO7 {

struct RenderState;

struct SegmentationTempState {
    SegmentationTempState(std::shared_ptr<ModelContext> modelContext, u32 dataType, i32 execH, i32 execW,
                          std::string modelId, std::vector<std::string> classes);

    u32 dataType;
    i32 execH, execW;
    std::string modelId;
    std::vector<std::string> classes;
    i32 tileH = 512, tileW = 512;
    std::shared_ptr<BackendModel> parser;
    std::shared_ptr<BackendModel> logitsToMasks;  // "imgcvt/logits_to_masks_aa_<type>"
    std::shared_ptr<BackendTensor> input;         // 1, 3, execH, execW
    std::shared_ptr<BackendTensor> logits;        // 1, C + 1, execH, execW
    Ptr<Image> rgbDesc, rDesc;                    // planar, execW x execH, no data
    std::shared_ptr<BackendTensor> tileIn, tileOut;  // 1, C + 1, 512, 512
    std::vector<u8> tileBlock;                    // one tile tensor's bytes
    u64 channelBytes = 0;                         // 512 * 512 * element size
    TiledExecution::ExecutionPlanMap planMap{{{512, 512}}};
    MultiTensor boxLogits, boxMasks;
    MultiBuffer boxLogitsHost, boxMasksHost;
};

// Adds the parsing masks of the objects of `result` to the segmentation buffer of the render and
// their places to `result` (which gets grown boxes).
void segment_objects(RenderState& rs, SegmentationTempState& state, ModelCommon& common, nlohmann::json& result);

}  // namespace YOLO7
}  // namespace ML
