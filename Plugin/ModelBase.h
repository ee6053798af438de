#pragma once
// The abstract model object that every family implements, and the pieces of the
// Context / RenderState / TempState pattern that families share.
#include <memory>
#include <string>
#include <unordered_map>

#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML {

class ModelContext;
class ModelCommon;

class ModelBase {
public:
    ModelBase(std::shared_ptr<ModelContext> modelContext, std::shared_ptr<ModelCommon> common)
        : modelContext(std::move(modelContext)), common(std::move(common)) {}
    virtual ~ModelBase() = default;
    ModelBase(const ModelBase&) = delete;
    ModelBase& operator=(const ModelBase&) = delete;

    virtual void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) = 0;

protected:
    std::shared_ptr<ModelContext> modelContext;
    std::shared_ptr<ModelCommon> common;
};

using ModelFactory = std::unique_ptr<ModelBase> (*)(std::shared_ptr<ModelContext>, std::shared_ptr<ModelCommon>);

// The usual way to the TempState of a single-network family: found by key, or made after the
// map is emptied (one state at a time, so the old model's device memory goes first), with the
// host told that a long load is under way. A failed load leaves the map empty.
template <class State, class Make>
std::shared_ptr<State> getTempState(std::unordered_map<std::string, std::shared_ptr<State>>& states,
                                    const std::string& key, Host* host, u64 call, Make&& make) {
    auto found = states.find(key);
    if (found != states.end()) return found->second;
    host->setBusyLoading(call, true);
    states.clear();
    std::shared_ptr<State> state = make();
    states.emplace(key, state);
    host->setBusyLoading(call, false);
    return state;
}

// Shared checks of RenderState constructors.
// The host's region of interest; an empty one is the host's error ("Empty region of interest ...").
Rect readROI(Host* host, u64 call, u32 frame);
Ptr<Image> readOutputImage(Host* host, u64 call, u32 frame, i32 id);
// "Output rect ... must cover ROI rect ... for frame ..."
void checkOutputCoversROI(const Ptr<Image>& image, const Rect& roi, u32 frame);
// Null image: "No input image returned by host for frame N"; too small: "Input rect ... must cover ROI rect ..."
Ptr<Image> readInputImage(Host* host, u64 call, u32 frame, const Rect& roi, i32 id = 0);

}  // namespace ML
