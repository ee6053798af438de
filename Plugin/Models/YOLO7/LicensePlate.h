#pragma once
// Licence plates: the detector's four corner keypoints, grown by the scale factors, filled into the
// mask output as a quadrilateral and written as a polygon.
#include <array>
#include <vector>

#include "Plugin/Models/YOLO7/ObjectTypeBase.h"

namespace ML::YOLO7 {

// A plate detection with its corners p0..p3 in detector order (top left, top right, bottom left,
// bottom right). Unless both scale factors are exactly 1 the corners move apart along the plate's
// own axes: a = ((p1 - p0) + (p3 - p2)) * (scaleX - 1) / 2 and b = ((p2 - p0) + (p3 - p1)) *
// (scaleY - 1) / 2; p0 -= a + b, p1 += a - b, p2 += b - a, p3 += a + b.
struct PlateRecord {
    // "must have 4 keypoints to intereperet detection as license plate" for any other count.
    PlateRecord(const Detection& detection, float scaleX, float scaleY);

    Detection detection;
    std::array<Keypoint, 4> corners;  // p0, p1, p2, p3
    float scaleX, scaleY;

    // p0, p1, p3, p2 as x, y pairs: the walk around the plate's edge.
    std::array<float, 8> outline() const;
};

// {"objects": [...]} with one plate object per record: "type" "lp", "id" -1, "polygon" (the
// outline), "x-spline" (the outline's points, each followed by 0.0), "bbox".
nlohmann::json platesJson(const std::vector<PlateRecord>& plates);

class LicensePlate final : public ObjectTypeBase {
public:
    LicensePlate() : ObjectTypeBase(4, "lp", 0.2f) {}

    // "TODO ! smoothing for license plates ! "
    nlohmann::json render_smoothed(const RenderState& state,
                                   const std::vector<std::vector<Detection>>& objects) override;
    // "TODO ! tracking for license plates ! "
    nlohmann::json render_tracked(const RenderState& state,
                                  const std::vector<std::shared_ptr<TrackedObject>>& tracks) override;
    nlohmann::json render_detections(const RenderState& state, const std::vector<Detection>& detections) override;
    // "TODO ! tracking for license plates ! "
    TrackedObjectReading make_reading(const RenderState& state, const Detection& detection) override;
};

}  // namespace ML::YOLO7
