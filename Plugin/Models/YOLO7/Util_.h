#pragma once
// Smoothing of face shapes over time: the Kalman filter state that every track carries (its
// arithmetic is a small network of the package), and the linking of raw detections over a window
// of frames for Gaussian smoothing without a tracker.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/Detection.h"
#include "Plugin/Models/YOLO7/TrackedObjectReading.h"

namespace ML {

class ModelContext;
class BackendModel;
class BackendTensor;

namespace YOLO7 {

struct KalmanFilterState {
    int dim_z = 2;
    std::array<float, 4> x{0.0f, 0.0f, 0.0f, 0.0f};  // position x, y, velocity x, y
    std::array<float, 2> pos_var{10.0f, 10.0f};
    std::array<float, 2> pos_vel_covar{0.0f, 0.0f};
    std::array<float, 2> vel_var{1.0f, 1.0f};
    float q = 0.1f;
    std::array<float, 2> r{4.0f, 4.0f};
    std::array<float, 8> h{1, 0, 0, 0, 0, 1, 0, 0};  // measurement matrix, 2 x 4 row-major; not stored
    int history_length = 5;                          // not stored
    int num_readings = 1;
    std::vector<std::array<float, 2>> past_scales;
    std::vector<float> past_rots;
    TrackedObjectReading current_estimate;

    KalmanFilterState() = default;
    // The state of a new track: position from the reading, rings holding its radii and angle,
    // and the estimate computed at once.
    explicit KalmanFilterState(const TrackedObjectReading& first);
};

// Stores only the keys "dim_z", "x", "pos_var", "pos_vel_covar", "vel_var", "q", "r",
// "num_readings", "past_scales", "past_rots", "current_estimate"; the rest comes from defaults.
void to_json(nlohmann::json& j, const KalmanFilterState& s);
void from_json(const nlohmann::json& j, KalmanFilterState& s);

// The Kalman network and its tensors: made once per detection effect on its first tracked frame.
struct KalmanFilterBackendResources {
    KalmanFilterBackendResources(std::shared_ptr<ModelContext> modelContext, const std::string& kalmanName);

    std::shared_ptr<ModelContext> modelContext;
    std::shared_ptr<BackendModel> network;
    // Inputs: state [4,1], measurement [2,1], position variance [2,1], position-velocity
    // covariance [2,1], velocity variance [2,1], process noise [1], measurement noise [2,1],
    // measurement matrix [2,4]. Outputs: state, position variance, covariance, velocity variance.
    std::vector<std::shared_ptr<BackendTensor>> inputs, outputs;
};

// One match: the network's update of the state from the reading's position, the rings of radii
// and angles, and the new estimate.
void kalman_update(KalmanFilterState& state, KalmanFilterBackendResources& resources,
                   const TrackedObjectReading& reading);

// The smoothed reading: position from the state, the largest radii of the ring, the robust mean
// of the ring's angles; box and embedding from `reading`.
TrackedObjectReading current_estimate(const KalmanFilterState& state, const TrackedObjectReading& reading);

// The level of Gaussian smoothing must lie within 0.25 .. 2.5 (windows of 3 to 9 frames).
constexpr float kMinSmoothingLevel = 0.25f, kMaxSmoothingLevel = 2.5f;
void checkSmoothingLevel(float level);

// Gaussian smoothing without a tracker: the detections of each frame of a window (in frame
// order) linked by position into chains; each kept chain is filled to one detection per frame.
std::vector<std::vector<Detection>> link_detections(const std::vector<std::vector<Detection>>& window);

}  // namespace YOLO7
}  // namespace ML
