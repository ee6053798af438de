#pragma once
// The measurement of one object in one frame, as the tracker and the filter see it. Object types
// make readings from detections; re-identification adds the appearance embedding.
#include <array>
#include <vector>

#include <nlohmann/json.hpp>

namespace ML::YOLO7 {

struct TrackedObjectReading {
    std::array<float, 2> pos{0.0f, 0.0f};    // centre, image pixels
    std::array<float, 2> scale{0.0f, 0.0f};  // radii
    float rot = 0.0f;                        // angle, radians
    std::array<int, 4> bbox{0, 0, 0, 0};     // x1, y1, x2, y2
    bool reIdEnabled = false;
    std::vector<float> reIdEmbedding;  // 512 floats in advanced tracking, else empty
};

// Keys "pos", "scale", "rot", "bbox", "reIdEnabled", "reIdEmbedding". Reading refuses a missing key
// or a wrong type with the JSON library's exception.
void to_json(nlohmann::json& j, const TrackedObjectReading& r);
void from_json(const nlohmann::json& j, TrackedObjectReading& r);

}  // namespace ML::YOLO7
