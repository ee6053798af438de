#pragma once
// The walk over the frames of a sequence that gives the tracker state of one frame, whatever
// order the host renders frames in. Every state lives in the host's compute cache under
// "objs_state_<frame>_<modelId>":
//
//   plan_tracker_walk, while the render state is built (only host requests, no network): from
//   the current frame towards first_frame, one frame at a time, the first stored state found
//   ends the walk; every frame before it is to be tracked.
//   run_tracker_walk, under the compute lock: from the oldest frame to be tracked up to the
//   current one, one tracker update per frame, each state stored as it is made.
//
// A state that is stored but cannot be read (corrupt or truncated bytes) counts as missing: the
// walk goes on past it and recomputes that frame. A cancelled or failed walk leaves the states it
// stored, so the next render starts from the last of them.
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ML/Host.h"
#include "Plugin/Models/YOLO7/Tracker.h"

namespace ML::YOLO7 {

struct TrackerWalkPlan {
    // Frames without a usable stored state, current frame first, in walk order.
    std::vector<int> frames_to_track;
    // The state where the walk stopped (at most one entry); holds the current frame itself when
    // its own state was stored.
    std::map<int, std::shared_ptr<TrackerState>> tracker_states;
};

// Walks from `frame` to `first_frame` (both included; step -1 when first_frame is below frame,
// else +1). For each frame appended to frames_to_track, toTrack(f) is called at once: the
// detection effect looks up the frame's cached detections there, or asks for its input image.
void plan_tracker_walk(Host* host, u64 call, int frame, int first_frame, const std::string& modelId,
                       TrackerWalkPlan& plan, const std::function<void(int frame)>& toTrack = {});

// Hooks of one run: the readings of a frame (detections, readings and, in advanced mode,
// embeddings), and the Kalman resources, asked for on the first frame that is tracked.
struct TrackerWalkHooks {
    std::function<std::vector<TrackedObjectReading>(int frame)> readings;
    std::function<std::shared_ptr<KalmanFilterBackendResources>()> kalman;
};

// The state of the current frame (frames_to_track.front(), or the planned state when that list
// is empty). Polls cancellation before each frame (ML::Exception PLUGIN / CANCEL), reports
// progress i / n before frame i and 1 at the end, and stores each frame's state under its key.
std::shared_ptr<TrackerState> run_tracker_walk(Host* host, u64 call, const TrackerConfiguration& config,
                                               const std::string& modelId, const TrackerWalkPlan& plan,
                                               const TrackerWalkHooks& hooks);

// The stored state of `frame`, or null when there is none or it cannot be decoded.
std::shared_ptr<TrackerState> find_tracker_state(Host* host, u64 call, int frame, const std::string& modelId);

// Stores the encoding of `state` under the frame's key. When the host already holds other bytes
// there (a state it could not give back decoded), those stay; the walk goes on with `state`.
void store_tracker_state(Host* host, u64 call, int frame, const std::string& modelId, const TrackerState& state);

}  // namespace ML::YOLO7
