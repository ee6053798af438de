#pragma once
// The detection effect (faces and licence plates): per frame a mask of the objects, a copy of the
// picture with the objects blurred away, a JSON description of the objects and, for faces, soft
// parsing masks. Everything that crosses frames (detections, tracker states) lives in the host's
// compute cache, so frames render in any order.
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/ModelBase.h"
#include "Plugin/Models/YOLO7/ObjectTypeBase.h"
#include "Plugin/Models/YOLO7/ReId.h"
#include "Plugin/Models/YOLO7/RenderState.h"
#include "Plugin/Models/YOLO7/Segmentation.h"
#include "Plugin/Models/YOLO7/TempState.h"
#include "Plugin/Models/YOLO7/Tracker.h"
#include "Plugin/TiledExecution.h"

namespace ML::YOLO7 {

class Context : public ModelBase {
public:
    Context(std::shared_ptr<ModelContext> modelContext, std::shared_ptr<ModelCommon> common);
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

private:
    using NetworkPair = std::pair<std::shared_ptr<BackendModel>, std::shared_ptr<BackendModel>>;

    nlohmann::json renderTracked(RenderState& rs);
    nlohmann::json renderSmoothed(RenderState& rs);
    // The tracker's input of one frame: its detections as readings, with embeddings in advanced
    // tracking.
    std::vector<TrackedObjectReading> readingsOf(RenderState& rs, int frame);
    std::vector<Detection> detectionsOf(RenderState& rs, int frame);
    void detectInto(RenderState& rs, int frame, void* rows, u64 bytes);
    void colorize_output(RenderState& rs);
    SegmentationTempState& segmentationState(const RenderState& rs);

    TempState& tempState(const RenderState& rs);
    NetworkPair& networks(Host* host, u64 call, const std::string& modelId);

    ObjectTypeMap objectTypes;
    // Plans of the colourised output, per model (faces and plates have different tile sizes).
    std::unordered_map<std::string, std::unique_ptr<TiledExecution::ExecutionPlanMap>> planMaps;
    u32 dataType;
    std::unordered_map<std::string, std::shared_ptr<TempState>> tempStates;
    std::unordered_map<std::string, std::shared_ptr<TempState_Host>> hostStates;
    std::unordered_map<std::string, NetworkPair> networkPairs;
    std::shared_ptr<BackendModel> maskBlur;
    std::unordered_map<std::string, std::shared_ptr<SegmentationTempState>> segmentationStates;
    std::mutex renderMutex;
    std::shared_ptr<KalmanFilterBackendResources> kalman;
    std::shared_ptr<ReIdBackendResources> reid;
};

}  // namespace ML::YOLO7
