#pragma once
// Persistent ids for faces across a sequence. One update takes the state of the previous frame
// and the readings of the current one; the state of every frame lives in the host's compute
// cache, so renders may come in any order.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/Models/YOLO7/TrackedObjectReading.h"
#include "Plugin/Models/YOLO7/Util_.h"

namespace ML::YOLO7 {

enum TrackingMode : int { TRACKING_NONE = 0, TRACKING_MOTION = 1, TRACKING_ADVANCED = 2 };
enum SmoothingMode : int { SMOOTHING_NONE = 0, SMOOTHING_GAUSSIAN = 1, SMOOTHING_KALMAN = 2 };

struct TrackerConfiguration {
    std::string kalman_name;
    float max_distance = 200.0f;
    int hits_to_confirm = 2;  // the render state writes 0 whenever tracking is on
    int max_hit_counter = 5;
    float min_similarity = 0.34f;
    int reid_execH = 0, reid_execW = 0;
    std::string reid_name;
    int tracking_mode = TRACKING_NONE;
    int smoothing_mode = SMOOTHING_NONE;
    int first_frame = 0;
    float smoothing_level = 1.0f;
};

struct TrackedObject {
    int id = -1;  // -1 until confirmed
    int age = 0;
    int hit_counter = 1;
    float last_distance = -1.0f;
    bool is_initializing = true;
    TrackedObjectReading last_detection;
    KalmanFilterState filter_state;
};

// Keys "id", "age", "hit_counter", "last_distance", "is_initializing", "last_detection",
// "filter_state".
void to_json(nlohmann::json& j, const TrackedObject& o);
void from_json(const nlohmann::json& j, TrackedObject& o);

class TrackerState {
public:
    TrackerState() { bindNextId(); }
    // A new state for the next frame: the same next id and the same (shared) objects, which the
    // update then changes in place. Safe only because one render makes, updates and stores a
    // state under its locks, and never uses the previous state again.
    explicit TrackerState(const TrackerState& previous)
        : next_id(previous.next_id), tracked_objects(previous.tracked_objects) {
        bindNextId();
    }
    TrackerState& operator=(const TrackerState&) = delete;

    int next_id = 1;
    std::vector<std::shared_ptr<TrackedObject>> tracked_objects;
    std::function<int()> next_tracker_id;  // returns next_id and increments it

    void update_tracks(const TrackerConfiguration& config, std::shared_ptr<KalmanFilterBackendResources> kalman,
                       const std::vector<TrackedObjectReading>& readings);

    // One matching pass: (unmatched readings, matched tracks, unmatched tracks).
    std::tuple<std::vector<TrackedObjectReading>, std::vector<std::shared_ptr<TrackedObject>>,
               std::vector<std::shared_ptr<TrackedObject>>>
    update_objects_in_place(const TrackerConfiguration& config, std::shared_ptr<KalmanFilterBackendResources> kalman,
                            std::vector<std::shared_ptr<TrackedObject>>& tracks,
                            const std::vector<TrackedObjectReading>& readings);

    // [{"next_id", "tracked_objects"}] as MessagePack, and back. A corrupt buffer throws the JSON
    // library's exception.
    std::vector<std::uint8_t> encode() const;
    // Beyond the JSON library's own checks, decode refuses (with a JSON library exception too)
    // values that the update could not work on: rings of the wrong length, counters at the edge
    // of int, a next id below 1.
    static std::shared_ptr<TrackerState> decode(const std::uint8_t* bytes, std::size_t size);

private:
    void bindNextId() {
        next_tracker_id = [this] { return next_id++; };
    }
};

// Keys "next_id", "tracked_objects" (objects in list order).
void to_json(nlohmann::json& j, const TrackerState& s);

// Greedy nearest pairs of `cost` (rows x columns) below `threshold`, in order of increasing cost.
void match_greedy(std::vector<std::vector<float>> cost, float threshold, std::vector<int>& rows,
                  std::vector<int>& columns);

// Cache key of a frame's tracker state: "objs_state_<frame>_<modelId>".
std::string trackerStateKey(int frame, const std::string& modelId);

}  // namespace ML::YOLO7
