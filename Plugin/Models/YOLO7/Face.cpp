#include "Plugin/Models/YOLO7/Face.h"

#include <algorithm>
#include <cmath>
#include <string>

#include "ML/Exception.h"
#include "Plugin/Models/YOLO7/RenderState.h"
#include "Plugin/Smoothing.h"

namespace ML::YOLO7 {

namespace {

// Fills the ovals into the render's mask output (cleared first), if there is one.
void drawOvals(const RenderState& state, const std::vector<FaceShape>& shapes) {
    const Ptr<Image> view = maskView(state);
    if (!view) return;
    std::vector<Oval> ovals;
    ovals.reserve(shapes.size());
    for (const FaceShape& s : shapes) ovals.push_back(s.oval);
    fillOvals(view, ovals);
}

nlohmann::json drawAndWrite(const RenderState& state, const std::vector<FaceShape>& shapes,
                            const std::vector<int>& ids) {
    drawOvals(state, shapes);
    return facesJson(shapes, ids);
}

Oval readingOval(const TrackedObjectReading& r) { return {r.pos[0], r.pos[1], r.scale[0], r.scale[1], r.rot}; }

}  // namespace

FaceRecord::FaceRecord(const Detection& d, float scaleX, float scaleY) : detection(d), scaleX(scaleX), scaleY(scaleY) {
    if (d.keypoints.size() != keypoints.size())
        ML_THROW("must have 5 keypoints to intereperet detection as face detection");
    std::copy(d.keypoints.begin(), d.keypoints.end(), keypoints.begin());

    const Keypoint& e0 = keypoints[0];
    const Keypoint& e1 = keypoints[1];
    const float width = d.x2 - d.x1;
    const float dx = e1.x - e0.x, dy = e1.y - e0.y;
    float angle = 0.0f;
    if ((e0.confidence > 0.25f || e1.confidence > 0.25f) && std::sqrt(dx * dx + dy * dy) / width > 0.1f && e1.x > e0.x)
        angle = std::atan2(dy, dx);

    const float hw = width * 0.5f, hh = (d.y2 - d.y1) * 0.5f;
    oval = {d.x1 + hw, d.y1 + hh, hw * scaleX, hh * scaleY, angle};
}

std::vector<float> ovalSpline(const Oval& o) {
    const float a = o.a * 0.5139067f, b = o.b * 0.5139067f, k = 0.41421357f;
    const float local[8][2] = {{a * k, -b}, {a, -b * k}, {a, b * k},   {a * k, b},
                               {-a * k, b}, {-a, b * k}, {-a, -b * k}, {-a * k, -b}};
    const float c = std::cos(o.angle), s = std::sin(o.angle);
    std::vector<float> spline;
    spline.reserve(24);
    for (const auto& p : local) {
        spline.push_back(o.cx + p[0] * c + p[1] * s);
        spline.push_back(o.cy + p[1] * c - p[0] * s);
        spline.push_back(1.0f);
    }
    return spline;
}

nlohmann::json facesJson(const std::vector<FaceShape>& shapes, const std::vector<int>& ids) {
    if (!ids.empty() && ids.size() != shapes.size()) ML_THROW("Oval ids must be parallel array to ovals!");
    nlohmann::json objects = nlohmann::json::array();
    for (size_t i = 0; i < shapes.size(); ++i) {
        const Oval& o = shapes[i].oval;
        nlohmann::json spline = nlohmann::json::array();
        for (float v : ovalSpline(o)) spline.push_back(static_cast<double>(v));
        nlohmann::json face;
        face["type"] = "face";
        face["id"] = ids.empty() ? -1 : ids[i];
        face["oval"] = {{"angle", static_cast<double>(o.angle)},
                        {"center", {static_cast<double>(o.cx), static_cast<double>(o.cy)}},
                        {"radius", {static_cast<double>(o.a), static_cast<double>(o.b)}}};
        face["x-spline"] = std::move(spline);
        face["bbox"] = shapes[i].box;
        objects.push_back(std::move(face));
    }
    return {{"objects", std::move(objects)}};
}

nlohmann::json Face::render_smoothed(const RenderState& state, const std::vector<std::vector<Detection>>& objects) {
    const GaussianKernel kernel = makeGaussianKernel(state.trackerConfig.smoothing_level, -1);
    std::vector<FaceShape> shapes;
    shapes.reserve(objects.size());
    for (const std::vector<Detection>& window : objects) {
        std::vector<float> cx, cy, a, b, angle;
        for (const Detection& d : window) {
            const Oval o = FaceRecord(d, state.scaleX, state.scaleY).oval;
            cx.push_back(o.cx);
            cy.push_back(o.cy);
            a.push_back(o.a);
            b.push_back(o.b);
            angle.push_back(o.angle);
        }
        const Oval mean{weightedSum(cx, kernel), weightedSum(cy, kernel), weightedSum(a, kernel),
                        weightedSum(b, kernel), weightedAngle(angle, kernel)};
        shapes.push_back({mean, integerBox(window[window.size() / 2])});
    }
    return drawAndWrite(state, shapes, {});
}

nlohmann::json Face::render_tracked(const RenderState& state,
                                    const std::vector<std::shared_ptr<TrackedObject>>& tracks) {
    const int mode = state.trackerConfig.smoothing_mode;
    std::vector<FaceShape> shapes;
    std::vector<int> ids;
    for (const std::shared_ptr<TrackedObject>& track : tracks) {
        const TrackedObjectReading* reading = nullptr;
        if (mode == SMOOTHING_NONE)
            reading = &track->last_detection;
        else if (mode == SMOOTHING_KALMAN)
            reading = &track->filter_state.current_estimate;
        else
            ML_THROW("Unexpected smoothing mode: " + std::to_string(mode));
        shapes.push_back({readingOval(*reading), reading->bbox});
        ids.push_back(track->id);
    }
    return drawAndWrite(state, shapes, ids);
}

nlohmann::json Face::render_detections(const RenderState& state, const std::vector<Detection>& detections) {
    std::vector<FaceShape> shapes;
    shapes.reserve(detections.size());
    for (const Detection& d : detections)
        shapes.push_back({FaceRecord(d, state.scaleX, state.scaleY).oval, integerBox(d)});
    return drawAndWrite(state, shapes, {});
}

TrackedObjectReading Face::make_reading(const RenderState& state, const Detection& detection) {
    const FaceRecord record(detection, state.scaleX, state.scaleY);
    TrackedObjectReading reading;
    reading.pos = {record.oval.cx, record.oval.cy};
    reading.scale = {record.oval.a, record.oval.b};
    reading.rot = record.oval.angle;
    reading.bbox = integerBox(detection);
    reading.reIdEnabled = false;
    reading.reIdEmbedding.clear();
    return reading;
}

}  // namespace ML::YOLO7
