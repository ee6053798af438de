#pragma once
// An object type turns what the detector found into what the host receives: a shape per object,
// filled into the mask output, and the entries of the JSON result {"objects": [...]}. One of each
// type lives in the detection effect; the model's "object_type" picks one per render.
#include <array>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ML/ImageImp.h"
#include "Plugin/Detection.h"
#include "Plugin/Models/YOLO7/TrackedObjectReading.h"
#include "Plugin/Models/YOLO7/Tracker.h"

namespace ML::YOLO7 {

struct RenderState;

// x1, y1, x2, y2 in whole pixels.
using IntBox = std::array<int, 4>;

// The detection's box rounded inward: ceil of the top-left corner, floor of the bottom-right one.
IntBox integerBox(const Detection& detection);

// The ROI of the render's mask output as an image view, or null when the render has no mask output.
Ptr<Image> maskView(const RenderState& state);

class ObjectTypeBase {
public:
    ObjectTypeBase(int keypointCount, std::string name, float threshold)
        : name(std::move(name)), keypointCount(keypointCount), threshold(threshold) {}
    ObjectTypeBase(const ObjectTypeBase&) = delete;
    ObjectTypeBase& operator=(const ObjectTypeBase&) = delete;

    // Gaussian smoothing without tracking: one vector per object, one detection per frame of the
    // smoothing window.
    virtual nlohmann::json render_smoothed(const RenderState& state,
                                           const std::vector<std::vector<Detection>>& objects) = 0;
    // Tracking: the tracks to show, in order.
    virtual nlohmann::json render_tracked(const RenderState& state,
                                          const std::vector<std::shared_ptr<TrackedObject>>& tracks) = 0;
    // The raw detections of the frame.
    virtual nlohmann::json render_detections(const RenderState& state, const std::vector<Detection>& detections) = 0;
    // The tracker's input for one detection.
    virtual TrackedObjectReading make_reading(const RenderState& state, const Detection& detection) = 0;

    const std::string name;  // "face" or "lp"
    const int keypointCount;
    const float threshold;  // the detector's score threshold for this type

protected:
    // Held by shared pointers made for the derived types only.
    ~ObjectTypeBase() = default;
};

using ObjectTypeMap = std::map<std::string, std::shared_ptr<ObjectTypeBase>>;

// One object type of each kind by its name: "face" and "lp".
ObjectTypeMap makeObjectTypes();

}  // namespace ML::YOLO7
