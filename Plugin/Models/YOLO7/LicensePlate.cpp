#include "Plugin/Models/YOLO7/LicensePlate.h"

#include <algorithm>

#include "ML/Exception.h"
#include "Plugin/ImageDrawUtil.h"
#include "Plugin/Models/YOLO7/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::YOLO7 {

PlateRecord::PlateRecord(const Detection& d, float scaleX, float scaleY)
    : detection(d), scaleX(scaleX), scaleY(scaleY) {
    if (d.keypoints.size() != corners.size())
        ML_THROW("must have 4 keypoints to intereperet detection as license plate");
    std::copy(d.keypoints.begin(), d.keypoints.end(), corners.begin());
    if (scaleX == 1.0f && scaleY == 1.0f) return;

    Keypoint& p0 = corners[0];
    Keypoint& p1 = corners[1];
    Keypoint& p2 = corners[2];
    Keypoint& p3 = corners[3];
    const float fx = (scaleX - 1.0f) * 0.5f, fy = (scaleY - 1.0f) * 0.5f;
    const float ax = ((p1.x - p0.x) + (p3.x - p2.x)) * fx, ay = ((p1.y - p0.y) + (p3.y - p2.y)) * fx;
    const float bx = ((p2.x - p0.x) + (p3.x - p1.x)) * fy, by = ((p2.y - p0.y) + (p3.y - p1.y)) * fy;
    p0.x -= ax + bx;
    p0.y -= ay + by;
    p1.x += ax - bx;
    p1.y += ay - by;
    p2.x += bx - ax;
    p2.y += by - ay;
    p3.x += ax + bx;
    p3.y += ay + by;
}

std::array<float, 8> PlateRecord::outline() const {
    const Keypoint& p0 = corners[0];
    const Keypoint& p1 = corners[1];
    const Keypoint& p2 = corners[2];
    const Keypoint& p3 = corners[3];
    return {p0.x, p0.y, p1.x, p1.y, p3.x, p3.y, p2.x, p2.y};
}

nlohmann::json platesJson(const std::vector<PlateRecord>& plates) {
    nlohmann::json objects = nlohmann::json::array();
    for (const PlateRecord& plate : plates) {
        const std::array<float, 8> outline = plate.outline();
        nlohmann::json polygon = nlohmann::json::array(), spline = nlohmann::json::array();
        for (size_t i = 0; i < outline.size(); i += 2) {
            polygon.push_back(static_cast<double>(outline[i]));
            polygon.push_back(static_cast<double>(outline[i + 1]));
            spline.push_back(static_cast<double>(outline[i]));
            spline.push_back(static_cast<double>(outline[i + 1]));
            spline.push_back(0.0);
        }
        nlohmann::json object;
        object["type"] = "lp";
        object["id"] = -1;
        object["polygon"] = std::move(polygon);
        object["x-spline"] = std::move(spline);
        object["bbox"] = integerBox(plate.detection);
        objects.push_back(std::move(object));
    }
    return {{"objects", std::move(objects)}};
}

nlohmann::json LicensePlate::render_smoothed(const RenderState&, const std::vector<std::vector<Detection>>&) {
    ML_THROW("TODO ! smoothing for license plates ! ");
}

nlohmann::json LicensePlate::render_tracked(const RenderState&, const std::vector<std::shared_ptr<TrackedObject>>&) {
    ML_THROW("TODO ! tracking for license plates ! ");
}

nlohmann::json LicensePlate::render_detections(const RenderState& state, const std::vector<Detection>& detections) {
    std::vector<PlateRecord> plates;
    plates.reserve(detections.size());
    for (const Detection& d : detections) plates.emplace_back(d, state.scaleX, state.scaleY);

    if (const Ptr<Image> view = maskView(state)) {
        PolygonList polygons;
        for (const PlateRecord& plate : plates) {
            const std::array<float, 8> outline = plate.outline();
            polygons.coordinates.insert(polygons.coordinates.end(), outline.begin(), outline.end());
            polygons.vertexCounts.push_back(4);
        }
        clearImage(view);
        fillPolygons(view, polygons);
    }
    return platesJson(plates);
}

TrackedObjectReading LicensePlate::make_reading(const RenderState&, const Detection&) {
    ML_THROW("TODO ! tracking for license plates ! ");
}

}  // namespace ML::YOLO7
