// Faces and licence plates as the host receives them: the JSON text byte for byte, the masks
// against the true area of the shapes, and the rules of ovals, boxes and plate corners at their
// edges.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Plugin/JsonBuffer.h"
#include "Plugin/Models/YOLO7/Face.h"
#include "Plugin/Models/YOLO7/LicensePlate.h"
#include "Plugin/Models/YOLO7/RenderState.h"
#include "Plugin/Smoothing.h"
#include "Util/ML_Util.h"
#include "drawing/MaskSampling.h"
#include "util/ExpectMessage.h"

namespace {

using ML::Detection;
using ML::Keypoint;
using ML::Oval;
using ML::Rect;
using ML::YOLO7::IntBox;
using ML::YOLO7::RenderState;

constexpr double kPi = 3.14159265358979323846;

Detection face(float x1, float y1, float x2, float y2, Keypoint e0, Keypoint e1) {
    return {x1, y1, x2, y2, 0.9f, 0.0f, {e0, e1, {20, 40, 0.9f}, {18, 50, 0.9f}, {22, 50, 0.9f}}};
}

Detection plate(float x1, float y1, float x2, float y2, std::vector<Keypoint> corners) {
    return {x1, y1, x2, y2, 0.8f, 0.0f, std::move(corners)};
}

RenderState state(float scaleX = 1.0f, float scaleY = 1.0f) {
    RenderState s;
    s.scaleX = scaleX;
    s.scaleY = scaleY;
    return s;
}

// A float as the host's JSON shows it: widened to double, shortest form.
std::string num(float v) { return nlohmann::json(static_cast<double>(v)).dump(); }

std::string boxText(const IntBox& b) {
    return "[" + std::to_string(b[0]) + "," + std::to_string(b[1]) + "," + std::to_string(b[2]) + "," +
           std::to_string(b[3]) + "]";
}

// One face object: eight spline points around the oval, from the local points (a k, -b) ... turned
// by the angle as x' = cx + x cos + y sin, y' = cy + y cos - x sin.
std::string faceText(const Oval& o, const IntBox& box, int id) {
    const float a = o.a * 0.5139067f, b = o.b * 0.5139067f, k = 0.41421357f;
    const float pts[8][2] = {{a * k, -b}, {a, -b * k}, {a, b * k},   {a * k, b},
                             {-a * k, b}, {-a, b * k}, {-a, -b * k}, {-a * k, -b}};
    const float c = std::cos(o.angle), s = std::sin(o.angle);
    std::string spline;
    for (const auto& p : pts)
        spline += (spline.empty() ? "" : ",") + num(o.cx + p[0] * c + p[1] * s) + "," +
                  num(o.cy + p[1] * c - p[0] * s) + ",1.0";
    return "{\"bbox\":" + boxText(box) + ",\"id\":" + std::to_string(id) + ",\"oval\":{\"angle\":" + num(o.angle) +
           ",\"center\":[" + num(o.cx) + "," + num(o.cy) + "],\"radius\":[" + num(o.a) + "," + num(o.b) +
           "]},\"type\":\"face\",\"x-spline\":[" + spline + "]}";
}

std::string objects(const std::vector<std::string>& items) {
    std::string s;
    for (const std::string& i : items) s += (s.empty() ? "" : ",") + i;
    return "{\"objects\":[" + s + "]}";
}

// A mask holding 0.25 everywhere, to see which pixels a render touched.
ML::Ptr<QHost::OwnedImage> filledMask(const Rect& rect) {
    auto mask = masksampling::maskImage(rect, ML::F32);
    for (int y = rect.y0; y < rect.y1; ++y)
        for (int x = rect.x0; x < rect.x1; ++x) mask->at<float>(x, y) = 0.25f;
    return mask;
}

// ---- JSON ----

TEST(ObjectJson, FacesFromDetections) {
    ML::YOLO7::Face type;
    // Level eyes 10 apart in a box 20 wide: upright, radii the half sizes.
    const Detection upright = face(10, 20, 30, 60, {15, 30, 0.9f}, {25, 30, 0.9f});
    // Eyes on a 45 degree line; box edges rounded inward; radii scaled by 1.5 and 0.1.
    const Detection tilted = face(10.2f, 20.5f, 20.8f, 41.1f, {12, 25, 0.3f}, {16, 29, 0.1f});
    const float hw = (20.8f - 10.2f) * 0.5f, hh = (41.1f - 20.5f) * 0.5f;

    EXPECT_EQ(type.render_detections(state(), {upright}).dump(),
              objects({faceText({20, 40, 10, 20, 0}, {10, 20, 30, 60}, -1)}));
    EXPECT_EQ(type.render_detections(state(1.5f, 0.1f), {upright, tilted}).dump(),
              objects({faceText({20, 40, 15, 2, 0}, {10, 20, 30, 60}, -1),
                       faceText({10.2f + hw, 20.5f + hh, hw * 1.5f, hh * 0.1f, std::atan2(4.0f, 4.0f)},
                                {11, 21, 20, 41}, -1)}));
    // The widening in full, once by hand: radius y 1 * 0.1f.
    const Detection flat = face(10, 20, 30, 22, {15, 21, 0.9f}, {25, 21, 0.9f});
    EXPECT_NE(type.render_detections(state(1.0f, 0.1f), {flat}).dump().find("\"radius\":[10.0,0.10000000149011612]"),
              std::string::npos);
}

TEST(ObjectJson, TrackedFacesTakeTheReadingOfTheSmoothingMode) {
    auto track = [](int id, ML::YOLO7::TrackedObjectReading last, ML::YOLO7::TrackedObjectReading estimate) {
        auto t = std::make_shared<ML::YOLO7::TrackedObject>();
        t->id = id;
        t->last_detection = last;
        t->filter_state.current_estimate = estimate;
        return t;
    };
    auto reading = [](const Oval& o, const IntBox& box) {
        ML::YOLO7::TrackedObjectReading r;
        r.pos = {o.cx, o.cy};
        r.scale = {o.a, o.b};
        r.rot = o.angle;
        r.bbox = box;
        return r;
    };
    const auto a = track(7, reading({100, 50, 8, 12, 0.25f}, {92, 38, 108, 62}),
                         reading({101.5f, 49, 9, 13, 0.2f}, {93, 37, 109, 63}));
    const auto b = track(3, reading({30, 60, 5, 6, -0.5f}, {25, 54, 35, 66}),
                         reading({31, 61, 5.5f, 6.5f, -0.4f}, {26, 55, 36, 67}));

    ML::YOLO7::Face type;
    RenderState s = state(3.0f, 3.0f);  // the readings carry their radii already scaled
    s.trackerConfig.smoothing_mode = ML::YOLO7::SMOOTHING_NONE;
    EXPECT_EQ(type.render_tracked(s, {a, b}).dump(), objects({faceText({100, 50, 8, 12, 0.25f}, {92, 38, 108, 62}, 7),
                                                              faceText({30, 60, 5, 6, -0.5f}, {25, 54, 35, 66}, 3)}));
    s.trackerConfig.smoothing_mode = ML::YOLO7::SMOOTHING_KALMAN;
    EXPECT_EQ(type.render_tracked(s, {a, b}).dump(),
              objects({faceText({101.5f, 49, 9, 13, 0.2f}, {93, 37, 109, 63}, 7),
                       faceText({31, 61, 5.5f, 6.5f, -0.4f}, {26, 55, 36, 67}, 3)}));
}

TEST(ObjectJson, SmoothedFacesAreKernelMeansWithTheMiddleBox) {
    // Level 0.25: a window of three. The eyes turn the last face by 45 degrees.
    const std::vector<Detection> window = {
        face(0, 0, 10, 10, {2, 5, 0.9f}, {8, 5, 0.9f}),
        face(10.5f, 0.5f, 20.5f, 12.5f, {12, 5, 0.9f}, {18, 5, 0.9f}),
        face(20, 2, 30, 16, {22, 5, 0.9f}, {28, 11, 0.9f}),
    };
    const float cx[] = {5, 15.5f, 25}, cy[] = {5, 6.5f, 9}, ra[] = {5, 5, 5}, rb[] = {5, 6, 7},
                angle[] = {0, 0, kPi / 4};
    ML::YOLO7::Face type;
    RenderState s = state();
    s.trackerConfig.smoothing_level = 0.25f;
    const ML::GaussianKernel w = ML::makeGaussianKernel(0.25f, -1);
    ASSERT_EQ(w.size(), 3u);
    auto mean = [&](const float* v) { return v[0] * w[0] + v[1] * w[1] + v[2] * w[2]; };
    const float sine = std::sin(angle[0]) * w[0] + std::sin(angle[1]) * w[1] + std::sin(angle[2]) * w[2];
    const float cosine = std::cos(angle[0]) * w[0] + std::cos(angle[1]) * w[1] + std::cos(angle[2]) * w[2];
    const Oval smoothed{mean(cx), mean(cy), mean(ra), mean(rb), std::atan2(sine, cosine)};
    EXPECT_GT(smoothed.angle, 0.0f);
    EXPECT_EQ(type.render_smoothed(s, {window}).dump(), objects({faceText(smoothed, {11, 1, 20, 12}, -1)}));
}

TEST(ObjectJson, Plates) {
    ML::YOLO7::LicensePlate type;
    const Detection a = plate(98.5f, 49.5f, 141.5f, 64.5f, {{100, 50, 1}, {140, 52, 1}, {99, 62, 1}, {141, 64, 1}});
    const Detection b = plate(0, 0, 10.7f, 5, {{0.1f, 0, 1}, {10, 0.5f, 1}, {0, 5, 1}, {10, 5, 1}});
    EXPECT_EQ(type.render_detections(state(), {a, b}).dump(),
              "{\"objects\":["
              "{\"bbox\":[99,50,141,64],\"id\":-1,\"polygon\":[100.0,50.0,140.0,52.0,141.0,64.0,99.0,62.0],"
              "\"type\":\"lp\",\"x-spline\":[100.0,50.0,0.0,140.0,52.0,0.0,141.0,64.0,0.0,99.0,62.0,0.0]},"
              "{\"bbox\":[0,0,10,5],\"id\":-1,\"polygon\":[0.10000000149011612,0.0,10.0,0.5,10.0,5.0,0.0,5.0],"
              "\"type\":\"lp\",\"x-spline\":[0.10000000149011612,0.0,0.0,10.0,0.5,0.0,10.0,5.0,0.0,0.0,5.0,0.0]}]}");
}

TEST(ObjectJson, NoObjectsGiveAnEmptyListAndAClearedMask) {
    const ML::YOLO7::ObjectTypeMap types = ML::YOLO7::makeObjectTypes();
    ASSERT_EQ(types.size(), 2u);
    for (const auto& [name, type] : types) {
        SCOPED_TRACE(name);
        EXPECT_EQ(type->name, name);
        RenderState s = state();
        auto mask = filledMask({0, 0, 12, 10});
        s.maskImage = mask;
        s.roi = {2, 1, 12, 9};
        EXPECT_EQ(type->render_detections(s, {}).dump(), "{\"objects\":[]}");
        for (int y = 0; y < 10; ++y)
            for (int x = 0; x < 12; ++x)
                EXPECT_EQ(mask->at<float>(x, y), y >= 1 && y < 9 && x >= 2 ? 0.0f : 0.25f) << x << "," << y;
    }
    ML::YOLO7::ObjectTypeBase& faces = *types.at("face");
    EXPECT_EQ(faces.render_tracked(state(), {}).dump(), "{\"objects\":[]}");
    EXPECT_EQ(faces.render_smoothed(state(), {}).dump(), "{\"objects\":[]}");
}

TEST(ObjectJson, HostBufferHoldsTheCompactTextAndAZero) {
    const nlohmann::json value = nlohmann::json::parse(R"({ "objects": [ { "type": "lp", "id": -1 } ] })");
    const std::string text = "{\"objects\":[{\"id\":-1,\"type\":\"lp\"}]}";
    const std::string bytes = ML::jsonBufferBytes(value);
    ASSERT_EQ(bytes.size(), text.size() + 1);
    EXPECT_EQ(bytes, text + std::string(1, '\0'));
    ML::BufferImp buffer(3);
    ML::writeJsonBuffer(buffer, value);
    ASSERT_EQ(buffer.getSize(), text.size() + 1);
    EXPECT_EQ(std::memcmp(buffer.getData(), bytes.data(), bytes.size()), 0);
}

// ---- Masks ----

// A render over the ROI of a larger output clears the ROI and draws the object's shape into it
// (how well shapes are drawn is measured in the drawing tests); pixels outside the ROI keep what
// they held.
TEST(ObjectMask, ShapesAreDrawnIntoTheRoi) {
    const ML::YOLO7::ObjectTypeMap types = ML::YOLO7::makeObjectTypes();
    const Rect rect{-10, 0, 60, 60}, roi{-6, 3, 57, 56};
    // Box 20 x 30 around (18, 31), eyes on a line of slope 1/3; radii scaled by 1.2 and 0.9.
    const Oval oval{18, 31, 12, 13.5f, std::atan2(3.0f, 9.0f)};
    // Detector order of corners: top left, top right, bottom left, bottom right; drawn around.
    const std::vector<Keypoint> corners = {{8.3f, 9.1f, 1}, {47.6f, 5.2f, 1}, {10.2f, 27.4f, 1}, {49.9f, 24.7f, 1}};
    const std::vector<float> walk = {8.3f, 9.1f, 47.6f, 5.2f, 49.9f, 24.7f, 10.2f, 27.4f};
    const struct {
        const char* type;
        float sx, sy;
        Detection detection;
        std::function<void(const ML::Ptr<ML::Image>&)> draw;
    } cases[] = {
        {"face", 1.2f, 0.9f, face(8, 16, 28, 46, {12, 24, 0.9f}, {21, 27, 0.2f}),
         [&](const ML::Ptr<ML::Image>& view) { ML::fillOvals(view, {oval}); }},
        {"lp", 1.0f, 1.0f, plate(8, 5, 50, 28, corners),
         [&](const ML::Ptr<ML::Image>& view) { ML::fillPolygons(view, {walk, {4}}); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        RenderState s = state(c.sx, c.sy);
        auto mask = filledMask(rect), expected = filledMask(rect);
        s.maskImage = mask;
        s.roi = roi;
        types.at(c.type)->render_detections(s, {c.detection});
        for (int y = roi.y0; y < roi.y1; ++y)
            for (int x = roi.x0; x < roi.x1; ++x) expected->at<float>(x, y) = 0.0f;
        c.draw(ML::makeNewImageView(ML::Ptr<ML::Image>(expected.get()), roi));
        int full = 0;
        for (int y = rect.y0; y < rect.y1; ++y)
            for (int x = rect.x0; x < rect.x1; ++x) {
                ASSERT_EQ(mask->at<float>(x, y), expected->at<float>(x, y)) << x << "," << y;
                full += mask->at<float>(x, y) == 1.0f;
            }
        EXPECT_GT(full, 100);
    }
}

// ---- Rules at their edges ----

TEST(ObjectRules, AngleOfTheFirstTwoKeypoints) {
    const struct {
        const char* name;
        Keypoint e0, e1;
        float angle;
    } cases[] = {
        {"confident", {10, 20, 0.26f}, {14, 24, 0.0f}, std::atan2(4.0f, 4.0f)},
        {"second confident", {10, 20, 0.0f}, {15, 16, 0.3f}, std::atan2(-4.0f, 5.0f)},
        {"confidences exactly 0.25", {10, 20, 0.25f}, {14, 24, 0.25f}, 0.0f},
        {"exactly a tenth of the width apart", {10, 20, 0.9f}, {13, 24, 0.9f}, 0.0f},  // 5 of 50
        {"just over a tenth", {10, 20, 0.9f}, {13, 24.01f, 0.9f}, std::atan2(24.01f - 20.0f, 3.0f)},
        {"second left of the first", {14, 24, 0.9f}, {10, 20, 0.9f}, 0.0f},
        {"one above the other", {10, 20, 0.9f}, {10, 30, 0.9f}, 0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const ML::YOLO7::FaceRecord record(face(0, 0, 50, 40, c.e0, c.e1), 1.0f, 1.0f);
        EXPECT_EQ(record.oval.angle, c.angle);
    }
}

TEST(ObjectRules, BoxIsRoundedInward) {
    const struct {
        float x1, y1, x2, y2;
        IntBox box;
    } cases[] = {
        {10.2f, 5.0f, 20.8f, 9.99f, {11, 5, 20, 9}},
        {-3.5f, -0.5f, -0.5f, 7.0f, {-3, 0, -1, 7}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ML::YOLO7::integerBox(face(c.x1, c.y1, c.x2, c.y2, {0, 0, 0}, {0, 0, 0})), c.box);
}

TEST(ObjectRules, ReadingOfAFace) {
    const Detection d = face(10.5f, 20, 30.5f, 60, {15, 30, 0.9f}, {25, 40, 0.9f});
    const auto r = ML::YOLO7::Face().make_reading(state(2.0f, 0.5f), d);
    EXPECT_EQ(r.pos, (std::array<float, 2>{20.5f, 40}));
    EXPECT_EQ(r.scale, (std::array<float, 2>{20, 10}));
    EXPECT_EQ(r.rot, std::atan2(10.0f, 10.0f));
    EXPECT_EQ(r.bbox, (IntBox{11, 20, 30, 60}));
    EXPECT_FALSE(r.reIdEnabled);
    EXPECT_TRUE(r.reIdEmbedding.empty());
}

TEST(ObjectRules, PlateCornersGrowAlongThePlate) {
    // A parallelogram: top and bottom edges (40, 4), left and right edges (1, 12).
    const std::vector<Keypoint> corners = {{100, 50, 0.7f}, {140, 54, 0.8f}, {101, 62, 0.9f}, {141, 66, 1.0f}};
    const struct {
        float sx, sy;
        std::array<float, 8> outline;  // p0, p1, p3, p2
    } cases[] = {
        {1.0f, 1.0f, {100, 50, 140, 54, 141, 66, 101, 62}},
        {2.0f, 1.0f, {60, 46, 180, 58, 181, 70, 61, 58}},   // along p0-p1 only: -+(40, 4)
        {1.0f, 2.0f, {99, 38, 139, 42, 142, 78, 102, 74}},  // along p0-p2 only: -+(1, 12)
        {1.5f, 2.0f, {79, 36, 159, 44, 162, 80, 82, 72}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.sx) + " x " + std::to_string(c.sy));
        const ML::YOLO7::PlateRecord record(plate(99, 50, 141, 66, corners), c.sx, c.sy);
        EXPECT_EQ(record.outline(), c.outline);
        for (size_t i = 0; i < 4; ++i) EXPECT_EQ(record.corners[i].confidence, corners[i].confidence);
    }
}

TEST(ObjectRules, Refusals) {
    ML::YOLO7::Face faces;
    ML::YOLO7::LicensePlate plates;
    const Detection fourPoints = plate(0, 0, 10, 5, {{0, 0, 1}, {10, 0, 1}, {0, 5, 1}, {10, 5, 1}});
    const Detection fivePoints = face(0, 0, 10, 10, {2, 5, 0.9f}, {8, 5, 0.9f});
    const std::string notFace = "must have 5 keypoints to intereperet detection as face detection";
    const std::string notPlate = "must have 4 keypoints to intereperet detection as license plate";
    RenderState mode1 = state(), mode3 = state();
    mode1.trackerConfig.smoothing_mode = ML::YOLO7::SMOOTHING_GAUSSIAN;
    mode3.trackerConfig.smoothing_mode = 3;
    const auto track = std::make_shared<ML::YOLO7::TrackedObject>();

    const struct {
        const char* name;
        std::function<void()> call;
        std::string message;
    } cases[] = {
        {"face of four", [&] { faces.render_detections(state(), {fivePoints, fourPoints}); }, notFace},
        {"reading of four", [&] { faces.make_reading(state(), fourPoints); }, notFace},
        {"smoothed face of four", [&] { faces.render_smoothed(state(), {{fourPoints, fourPoints, fourPoints}}); }, notFace},
        {"plate of five", [&] { plates.render_detections(state(), {fivePoints}); }, notPlate},
        {"ids not parallel", [&] { ML::YOLO7::facesJson({{}, {}}, {1}); }, "Oval ids must be parallel array to ovals!"},
        {"smoothing mode 1", [&] { faces.render_tracked(mode1, {track}); }, "Unexpected smoothing mode: 1"},
        {"smoothing mode 3", [&] { faces.render_tracked(mode3, {track}); }, "Unexpected smoothing mode: 3"},
        {"window and kernel", [&] { faces.render_smoothed(state(), {{fivePoints, fivePoints}}); }, "!!"},
        {"plate smoothing", [&] { plates.render_smoothed(state(), {}); }, "TODO ! smoothing for license plates ! "},
        {"plate tracking", [&] { plates.render_tracked(state(), {}); }, "TODO ! tracking for license plates ! "},
        {"plate reading", [&] { plates.make_reading(state(), fourPoints); }, "TODO ! tracking for license plates ! "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        expectMessage(c.call, c.message);
    }
    // Ids parallel to the ovals, or none at all.
    EXPECT_NO_THROW(ML::YOLO7::facesJson({{}, {}}, {1, 2}));
    EXPECT_NO_THROW(ML::YOLO7::facesJson({{}, {}}, {}));
}

}  // namespace
