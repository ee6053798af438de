#pragma once
// Faces: an oval per face from its box and eye keypoints, filled into the mask output and written
// with an eight-point spline around it.
#include <array>
#include <vector>

#include "Plugin/ImageDrawUtil.h"
#include "Plugin/Models/YOLO7/ObjectTypeBase.h"

namespace ML::YOLO7 {

// A face detection with its oval, computed once at construction. The oval is turned by the line
// through the first two keypoints when one of them is confident (> 0.25), they lie more than a
// tenth of the box width apart and the second lies right of the first; otherwise it stays
// upright. Its radii are the box's half sizes times the scale factors.
struct FaceRecord {
    // "must have 5 keypoints to intereperet detection as face detection" for any other count.
    FaceRecord(const Detection& detection, float scaleX, float scaleY);

    Detection detection;
    std::array<Keypoint, 5> keypoints;  // detector order
    Oval oval;
    float scaleX, scaleY;
};

// One face as written: its oval and box.
struct FaceShape {
    Oval oval;
    IntBox box;
};

// {"objects": [...]} with one face object per shape: "type" "face", "id" (ids[i], or -1 when `ids`
// is empty), "oval" {"angle", "center", "radius"}, "x-spline" (eight points x, y, 1.0), "bbox".
// A non-empty `ids` of another length than `shapes` throws "Oval ids must be parallel array to ovals!".
nlohmann::json facesJson(const std::vector<FaceShape>& shapes, const std::vector<int>& ids);

// The eight spline control points around the oval, x, y, 1.0 each.
std::vector<float> ovalSpline(const Oval& oval);

class Face final : public ObjectTypeBase {
public:
    Face() : ObjectTypeBase(5, "face", 0.25f) {}

    // Each oval is the kernel-weighted mean of the ovals of its window (smoothing level of the
    // render's tracker settings); the box is that of the window's middle detection.
    nlohmann::json render_smoothed(const RenderState& state,
                                   const std::vector<std::vector<Detection>>& objects) override;
    // The reading chosen by the smoothing mode: 0 the last matched one, 2 the filter's estimate;
    // others throw "Unexpected smoothing mode: N". Ids are the tracks'.
    nlohmann::json render_tracked(const RenderState& state,
                                  const std::vector<std::shared_ptr<TrackedObject>>& tracks) override;
    nlohmann::json render_detections(const RenderState& state, const std::vector<Detection>& detections) override;
    // Position, radii and angle of the face's oval, its integer box, no embedding.
    TrackedObjectReading make_reading(const RenderState& state, const Detection& detection) override;
};

}  // namespace ML::YOLO7
