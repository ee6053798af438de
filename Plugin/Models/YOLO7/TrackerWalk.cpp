#include "Plugin/Models/YOLO7/TrackerWalk.h"

#include <cstring>
#include <exception>

#include "ML/Exception.h"
#include "Plugin/CachedCompute.h"
#include "Plugin/PluginLogger.h"

namespace ML::YOLO7 {

std::shared_ptr<TrackerState> find_tracker_state(Host* host, u64 call, int frame, const std::string& modelId) {
    const std::string key = trackerStateKey(frame, modelId);
    Ptr<Buffer> buffer = checkResult(host->findCachedBuffer(call, makeString(key)));
    if (!buffer) return nullptr;
    // A buffer that does not decode (cut short, overwritten, from another version) is treated as
    // missing, never as a failure of the render: the frame is tracked again from an earlier state.
    try {
        return TrackerState::decode(static_cast<const std::uint8_t*>(buffer->getData()), buffer->getSize());
    } catch (const std::exception& e) {
        logWarning("Tracker state '" + key + "' cannot be read, computing it again: " + e.what());
        return nullptr;
    }
}

void store_tracker_state(Host* host, u64 call, int frame, const std::string& modelId, const TrackerState& state) {
    const std::vector<std::uint8_t> bytes = state.encode();
    const std::string key = trackerStateKey(frame, modelId);
    struct Fill {
        const std::vector<std::uint8_t>& bytes;
        static Result<void> run(void*, void* user, Ptr<Buffer> buffer) {
            try {
                const auto& b = static_cast<Fill*>(user)->bytes;
                if (!buffer || buffer->getSize() != b.size()) ML_THROW("Tracker state buffer of the wrong size");
                std::memcpy(buffer->getData(), b.data(), b.size());
                return {};
            } catch (...) {
                return resultOfCurrentException();
            }
        }
    } fill{bytes};
    Ptr<Buffer> kept = checkResult(host->computeCachedBuffer(call, &fill, makeString(key), bytes.size(), &Fill::run));
    if (!kept || kept->getSize() != bytes.size() || std::memcmp(kept->getData(), bytes.data(), bytes.size()) != 0)
        logWarning("The host keeps other bytes under '" + key + "'; tracking goes on with the new state");
}

void plan_tracker_walk(Host* host, u64 call, int frame, int first_frame, const std::string& modelId,
                       TrackerWalkPlan& plan, const std::function<void(int)>& toTrack) {
    plan.frames_to_track.clear();
    plan.tracker_states.clear();
    const int step = first_frame < frame ? -1 : 1;
    for (int f = frame;; f += step) {
        if (auto state = find_tracker_state(host, call, f, modelId)) {
            plan.tracker_states[f] = std::move(state);
            return;
        }
        plan.frames_to_track.push_back(f);
        if (toTrack) toTrack(f);
        if (f == first_frame) return;
    }
}

std::shared_ptr<TrackerState> run_tracker_walk(Host* host, u64 call, const TrackerConfiguration& config,
                                               const std::string& modelId, const TrackerWalkPlan& plan,
                                               const TrackerWalkHooks& hooks) {
    const std::vector<int>& frames = plan.frames_to_track;
    std::shared_ptr<TrackerState> state;
    if (!frames.empty() && frames.back() == config.first_frame) {
        state = std::make_shared<TrackerState>();
    } else {
        if (plan.tracker_states.size() != 1)
            ML_THROW("expected exactly 1 previous tracker state to initialize processing??");
        state = plan.tracker_states.begin()->second;
        if (frames.empty()) return state;  // the current frame's own state
    }
    std::shared_ptr<KalmanFilterBackendResources> kalman;
    const std::size_t n = frames.size();
    for (std::size_t i = 0; i < n; ++i) {
        const int f = frames[n - 1 - i];
        if (host->isCancelled(call)) ML_THROW_CANCEL();
        host->setProgress(call, static_cast<float>(i) / static_cast<float>(n));
        auto next = std::make_shared<TrackerState>(*state);
        const std::vector<TrackedObjectReading> readings = hooks.readings(f);
        if (!kalman) kalman = hooks.kalman();
        next->update_tracks(config, kalman, readings);
        store_tracker_state(host, call, f, modelId, *next);
        state = std::move(next);
    }
    host->setProgress(call, 1.0f);
    return state;
}

}  // namespace ML::YOLO7
