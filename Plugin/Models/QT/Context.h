#pragma once
// Mask propagation (target 4): masks drawn on keyframes carried through a clip. The host asks
// for one frame; the answer comes from the frame's cached masks, or from walking the sequence's
// memory forward or backward from its start frame to the asked frame, caching the compressed
// masks of every frame on the way and the memory itself between calls.
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "Plugin/LruCache.h"
#include "Plugin/ModelBase.h"
#include "Plugin/Models/QT/Params.h"
#include "Plugin/Models/QT/Propagation.h"
#include "Plugin/Models/QT/Tensors.h"
#include "Plugin/TiledExecution.h"

namespace ML {

class QT_Context : public ModelBase {
public:
    QT_Context(std::shared_ptr<ModelContext> modelContext, std::shared_ptr<ModelCommon> common);
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

    QT_ModelParams getParams(const ModelInfo& info);

    struct Resources {
        std::shared_ptr<QT_TmpHostState> tmp;
        std::shared_ptr<QT_ShapeTensors> tensors;
        const QT::Submodels* submodels = nullptr;
    };
    Resources acquireResources(Host* host, u64 call, const QT_StateHeader& header, const QT_ModelParams& params,
                               i32 outH, i32 outW);

private:
    const i32 h = 512, w = 1024, memoryEvery = 5;
    u32 dataType;
    std::unordered_map<std::string, QT_ModelParams> modelParams;
    // Everything loaded is keyed by the model first: two models never share a network.
    std::unordered_map<std::string, QT_SubmodelInfo> submodels;  // by model and submodel name
    std::unordered_map<std::string, QT::Submodels> loadedModels;
    std::unordered_map<std::string, std::shared_ptr<QT_ShapeTensors>> shapeTensors;
    LruCache<std::string, QT_TmpHostState> tmpStates{2};
    TiledExecution::ExecutionPlanMap plans;
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> networks;  // by model and cache name
    std::mutex mutex;
};

}  // namespace ML
