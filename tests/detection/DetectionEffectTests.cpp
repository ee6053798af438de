// The detection effect end to end through mlMain with the default package and the ONNX Runtime
// CPU backend: faces of Megamind.avi tracked with stable ids, the blurred picture, the JSON of a
// frame whatever the order of renders or the state of the host's cache, plates, face parsing
// buffers as their JSON describes them, and the refusals of bad renders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Host/BufferText.h"
#include "Host/CallSettings.h"
#include "Host/Media/MediaSource.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

#include "util/FramePicture.h"
#include "util/InProcessPlugin.h"
#include "util/PackageContext.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;
using inprocess::host;
using inprocess::valueAt;
using json = nlohmann::json;
using testpkg::packageDir;

constexpr int kFaces = 6, kPlates = 8;
constexpr int kFirst = 1, kLast = 12;  // frame 0 of the clip is black

const std::vector<ImagePtr>& clip() {
    static const std::vector<ImagePtr> frames = [] {
        auto source = QMedia::MediaSource::open(testpkg::mediaDir / "Megamind.avi");
        std::vector<ImagePtr> v;
        for (int f = 0; f <= kLast; ++f) v.push_back(testpkg::picture(source->read(f)));
        return v;
    }();
    return frames;
}

struct Render {
    int target = kFaces;
    int tracking = 1, smoothing = 0, firstFrame = kFirst;
    float level = 1.0f, scaleX = 1.0f, scaleY = 1.0f;
    bool mask = true, colorized = false, json = true, segmentation = false;
    std::function<ImagePtr(int)> input = [](int f) { return clip().at(static_cast<size_t>(f)); };
    ML::u32 maskFormat = Image::R;
};

struct Result {
    int status = -1;
    std::string json, segmentation;
    ImagePtr mask, colorized;
};

Result render(int frame, const Render& r) {
    auto s = inprocess::packageSettings(4, r.target, static_cast<ML::u32>(frame));
    s->setFloatParam(500, 0, r.scaleX);
    s->setFloatParam(501, 0, r.scaleY);
    s->setIntParam(502, 0, r.tracking);
    s->setIntParam(503, 0, r.smoothing);
    s->setIntParam(504, 0, r.firstFrame);
    s->setFloatParam(505, 0, r.level);
    const auto input = r.input;
    s->setInputImageProvider([input](ML::u32 f, ML::ResourceId id, const Rect*) -> ML::Ptr<Image> {
        if (id.id != 0) return nullptr;
        return input(static_cast<int>(f));
    });
    const Rect rect = r.input(frame)->getRect();
    Result out;
    if (r.mask) s->setOutputImage(frame, out.mask = QHost::OwnedImage::make(rect, r.maskFormat, Image::HWC, ML::F32));
    if (r.colorized) s->setOutputImage(frame, out.colorized = QHost::OwnedImage::make(rect, Image::RGB, Image::HWC, ML::U8), {1, -1});
    s->setCreateOutputBuffers(false);
    if (r.json) s->setOutputBuffer(frame, ML::Ptr<ML::Buffer>(new ML::BufferImp()), {234, -1});
    if (r.segmentation) s->setOutputBuffer(frame, ML::Ptr<ML::Buffer>(new ML::BufferImp()), {235, -1});
    for (int mode : {3, 4}) {
        s->setMode(mode);
        out.status = host().run(&mlMain, s);
        if (out.status != ML::STATUS_OK) return out;
    }
    if (r.json) out.json = QHost::bufferText(s->outputBuffer(frame, {234, -1}));
    if (r.segmentation) out.segmentation = QHost::bufferBytes(s->outputBuffer(frame, {235, -1}));
    return out;
}

std::string renderJson(int frame, const Render& r = {}) {
    const Result result = render(frame, r);
    EXPECT_EQ(result.status, ML::STATUS_OK) << frame << ": " << testing::PrintToString(host().logger().lines());
    return result.json;
}

// The frames' JSON texts, rendered in `order` into an emptied cache.
std::map<int, std::string> jsonInOrder(const std::vector<int>& order, const std::function<void(int)>& between = {}) {
    host().cache().clear();
    std::map<int, std::string> texts;
    for (int f : order) {
        texts[f] = renderJson(f);
        if (between) between(f);
    }
    return texts;
}

std::vector<int> framesForward() {
    std::vector<int> v(kLast - kFirst + 1);
    std::iota(v.begin(), v.end(), kFirst);
    return v;
}

const std::map<int, std::string>& forwardJson() {
    static const std::map<int, std::string> texts = jsonInOrder(framesForward());
    return texts;
}

float centreX(const json& o) { return o["oval"]["center"][0].get<float>(); }
float centreY(const json& o) { return o["oval"]["center"][1].get<float>(); }

// Every face of every frame has an id and a filled oval in the mask; a face seen in two
// consecutive frames at nearly the same place keeps its id; the two people of the scene are seen
// on every frame. The blurred picture equals the input away from the faces and not on them.
TEST(DetectionEffect, FacesKeepTheirIdsAndAreMaskedAndBlurred) {
    host().cache().clear();
    Render r;
    r.colorized = true;
    std::map<int, json> previous;
    std::map<int, int> seen;  // id -> frames
    for (int f = kFirst; f <= kLast; ++f) {
        const Result result = render(f, r);
        ASSERT_EQ(result.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
        const json objects = json::parse(result.json)["objects"];
        std::vector<Rect> near;
        for (const json& o : objects) {
            const int id = o["id"];
            EXPECT_GT(id, 0);
            ++seen[id];
            EXPECT_GT(valueAt(*result.mask, static_cast<int>(centreX(o)), static_cast<int>(centreY(o))), 0.99f) << f;
            for (const auto& [oldId, old] : previous)
                if (std::hypot(centreX(o) - centreX(old), centreY(o) - centreY(old)) < 20.0f) EXPECT_EQ(id, oldId) << f;
            const auto b = o["bbox"];
            near.push_back({b[0].get<int>() - 64, b[1].get<int>() - 64, b[2].get<int>() + 64, b[3].get<int>() + 64});
        }
        previous.clear();
        for (const json& o : objects) previous[o["id"]] = o;

        const QHost::OwnedImage& in = *clip()[static_cast<size_t>(f)];
        const QHost::OwnedImage& out = *result.colorized;
        double onFaces = 0;
        int facePixels = 0, changedAway = 0;
        for (int y = 0; y < in.getRect().height(); ++y)
            for (int x = 0; x < in.getRect().width(); ++x) {
                const bool masked = valueAt(*result.mask, x, y) > 0.5f;
                const bool nearFace = std::any_of(near.begin(), near.end(), [&](const Rect& n) {
                    return x >= n.x0 && x < n.x1 && y >= n.y0 && y < n.y1;
                });
                for (int c = 0; c < 3; ++c) {
                    const int d = std::abs(int(in.at<ML::u8>(x, y, c)) - int(out.at<ML::u8>(x, y, c)));
                    if (masked) onFaces += d, ++facePixels;
                    if (!nearFace && d > 1) ++changedAway;
                }
            }
        EXPECT_EQ(changedAway, 0) << f;
        if (facePixels) {
            EXPECT_GT(onFaces / facePixels, 2.0) << f;
        }
    }
    // Ids 1 and 2 are the woman and the man behind her: on every frame of the run.
    EXPECT_EQ(seen[1], kLast - kFirst + 1);
    EXPECT_EQ(seen[2], kLast - kFirst + 1);
}

// The JSON of a frame follows from the frames and the parameters alone.
TEST(DetectionEffect, SameJsonWhateverTheOrderOfRendersAndTheCache) {
    const std::map<int, std::string>& reference = forwardJson();
    std::vector<int> backward = framesForward(), shuffled = framesForward();
    std::reverse(backward.begin(), backward.end());
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    std::mt19937 random(11);
    const struct {
        const char* name;
        std::vector<int> order;
        std::function<void(int)> between;
    } cases[] = {
        {"backward", backward, {}},
        {"shuffled", shuffled, {}},
        {"10, then 5, then 12", {10, 5, 12}, {}},
        {"shuffled, a random cache entry dropped after each render", shuffled,
         [&](int) {
             const auto keys = host().cache().keys();
             if (!keys.empty()) host().cache().evict(keys[random() % keys.size()]);
         }},
        {"backward, every tracker state dropped after each render", backward,
         [&](int) {
             for (const std::string& key : host().cache().keys())
                 if (key.rfind("objs_state_", 0) == 0) host().cache().evict(key);
         }},
    };
    for (const auto& c : cases) {
        const std::map<int, std::string> texts = jsonInOrder(c.order, c.between);
        for (const auto& [frame, text] : texts) EXPECT_EQ(text, reference.at(frame)) << c.name << ", frame " << frame;
    }
}

// Two host threads rendering interleaved frames of an emptied cache, one forward, one backward.
TEST(DetectionEffect, TwoHostThreadsGiveTheSameJson) {
    const std::map<int, std::string>& reference = forwardJson();
    host().cache().clear();
    std::map<int, std::string> texts[2];
    std::thread second([&] {
        for (int f = kLast; f >= kFirst; f -= 2) texts[1][f] = renderJson(f);
    });
    for (int f = kFirst; f <= kLast; f += 2) texts[0][f] = renderJson(f);
    second.join();
    for (const auto& part : texts)
        for (const auto& [frame, text] : part) EXPECT_EQ(text, reference.at(frame)) << "two threads, frame " << frame;
}

// Advanced tracking (appearance) and Gaussian smoothing (no tracker) give their own forms.
TEST(DetectionEffect, AdvancedTrackingAndGaussianSmoothing) {
    host().cache().clear();
    Render advanced;
    advanced.tracking = 2;
    advanced.smoothing = 2;
    for (int f = kFirst; f <= 4; ++f) {
        const json objects = json::parse(renderJson(f, advanced))["objects"];
        std::vector<int> ids;
        for (const json& o : objects) ids.push_back(o["id"]);
        EXPECT_TRUE(std::find(ids.begin(), ids.end(), 1) != ids.end()) << f;
        EXPECT_TRUE(std::find(ids.begin(), ids.end(), 2) != ids.end()) << f;
    }

    Render gaussian;
    gaussian.tracking = 0;
    gaussian.smoothing = 1;
    const json smoothed = json::parse(renderJson(6, gaussian))["objects"];
    Render raw;
    raw.tracking = 0;
    const json detected = json::parse(renderJson(6, raw))["objects"];
    ASSERT_FALSE(smoothed.empty());
    for (const json& o : smoothed) {
        EXPECT_EQ(o["id"], -1);
        const bool nearADetection = std::any_of(detected.begin(), detected.end(), [&](const json& d) {
            return std::hypot(centreX(o) - centreX(d), centreY(o) - centreY(d)) < 15.0f;
        });
        EXPECT_TRUE(nearADetection) << o.dump();
    }
}

// One byte a pixel a class, object after object, as the JSON's offsets and grown boxes say; the
// skin mask is higher in the middle of a face's box than at its corners, where it is near 0.
TEST(DetectionEffect, ParsingBufferHasTheLayoutItsJsonDescribes) {
    Render r;
    r.segmentation = true;
    const Result result = render(6, r);
    ASSERT_EQ(result.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    const json j = json::parse(result.json);
    const auto classes = j["mask_classes"].get<std::vector<std::string>>();
    EXPECT_EQ(j["mask_dtype"], "U8");
    ASSERT_FALSE(j["objects"].empty());
    size_t expectedOffset = 0;
    for (const json& o : j["objects"]) {
        const auto box = o["bbox"].get<std::vector<int>>();
        const int w = box[2] - box[0], h = box[3] - box[1];
        ASSERT_EQ(o["masks"].size(), classes.size());
        for (const json& m : o["masks"]) {
            EXPECT_EQ(m["bbox"], o["bbox"]);
            ASSERT_EQ(m["buffer_offset"].get<size_t>(), expectedOffset);
            const auto at = [&](int x, int y) {
                return static_cast<unsigned char>(result.segmentation[expectedOffset + static_cast<size_t>(y * w + x)]);
            };
            EXPECT_GT(at(w / 2, h / 2), at(1, 1) + 40) << o.dump();
            EXPECT_LT(at(1, 1), 16) << o.dump();
            expectedOffset += static_cast<size_t>(w * h);
        }
    }
    EXPECT_EQ(j["mask_buffer_size"].get<size_t>(), expectedOffset);
    EXPECT_EQ(result.segmentation.size(), expectedOffset);
}

// A white plate with dark characters on a darker textured ground: one plate, in the plate's JSON
// form, its corners around the drawn rectangle in the order that walks its edge; its blurred
// picture is made with the plate model's own tiles.
TEST(DetectionEffect, PlatesComeAsPolygons) {
    const Rect plate{260, 180, 420, 220};
    auto scene = QHost::OwnedImage::make({0, 0, 640, 400}, Image::RGB, Image::HWC, ML::U8);
    for (int y = 0; y < 400; ++y)
        for (int x = 0; x < 640; ++x) {
            const bool onPlate = x >= plate.x0 && x < plate.x1 && y >= plate.y0 && y < plate.y1;
            const bool ink = onPlate && y > plate.y0 + 10 && y < plate.y1 - 10 && (x - plate.x0) % 9 < 2 &&
                             x > plate.x0 + 6 && x < plate.x1 - 6;
            const int ground = 60 + (x * 7 + y * 13) % 40;
            for (int c = 0; c < 3; ++c) scene->at<ML::u8>(x, y, c) = static_cast<ML::u8>(ink ? 20 : onPlate ? 240 : ground);
        }
    // Faces and plates share the effect but not their tile sizes: blur faces first.
    Render faces;
    faces.colorized = true;
    renderJson(kFirst, faces);
    Render r;
    r.target = kPlates;
    r.tracking = 0;
    r.colorized = true;
    r.input = [scene](int) { return scene; };
    const json objects = json::parse(renderJson(0, r))["objects"];
    ASSERT_EQ(objects.size(), 1u) << objects.dump();
    const json& o = objects[0];
    EXPECT_EQ(o["type"], "lp");
    EXPECT_EQ(o["id"], -1);
    const auto polygon = o["polygon"].get<std::vector<float>>();
    const auto spline = o["x-spline"].get<std::vector<float>>();
    ASSERT_EQ(polygon.size(), 8u);
    ASSERT_EQ(spline.size(), 12u);
    const float corners[4][2] = {{260, 180}, {420, 180}, {420, 220}, {260, 220}};  // p0, p1, p3, p2
    for (int k = 0; k < 4; ++k) {
        EXPECT_NEAR(polygon[2 * k], corners[k][0], 4.0f) << k;
        EXPECT_NEAR(polygon[2 * k + 1], corners[k][1], 4.0f) << k;
        EXPECT_EQ(spline[3 * k], polygon[2 * k]);
        EXPECT_EQ(spline[3 * k + 1], polygon[2 * k + 1]);
        EXPECT_EQ(spline[3 * k + 2], 0.0f);
    }
}

TEST(DetectionEffect, BadRendersEndInTheirMessages) {
    const struct {
        const char* message;
        std::function<void(Render&)> change;
    } cases[] = {
        {"Face detection output image should be single channel mask! (ML::Image::ChannelFormat::R)",
         [](Render& r) { r.maskFormat = Image::RGB; }},
        {"Output mask is required to render colorized output!", [](Render& r) { r.mask = false, r.colorized = true; }},
        {"JSON output is required for segmentation output", [](Render& r) { r.json = false, r.segmentation = true; }},
        {"scaleX must be > 0", [](Render& r) { r.scaleX = 0.0f; }},
        {"scaleY must be > 0", [](Render& r) { r.scaleY = -1.0f; }},
        {"Invalid tracking mode returned: -1", [](Render& r) { r.tracking = -1; }},
        {"Invalid smoothing mode returned: -3", [](Render& r) { r.smoothing = -3; }},
        {"Advanced/motion only supported for face detection!", [](Render& r) { r.target = kPlates; }},
        {"Gaussian smoothing not supported for 'motion' or 'advanced' tracking modes (yet)",
         [](Render& r) { r.smoothing = 1; }},
        {"Kalman smoothing not supported for 'none' tracking mode (yet?)", [](Render& r) { r.tracking = 0, r.smoothing = 2; }},
        {"smoothing level must be >= 0.25 . returned value: 0.2",
         [](Render& r) { r.tracking = 0, r.smoothing = 1, r.level = 0.2f; }},
        {"smoothing level must be <= 2.5 . returned value: 3", [](Render& r) { r.tracking = 0, r.smoothing = 1, r.level = 3.0f; }},
        {"TODO ! smoothing for license plates ! ", [](Render& r) { r.target = kPlates, r.tracking = 0, r.smoothing = 1; }},
        {"Input image is required for frame 2", [](Render& r) {
             r.input = [](int f) { return f == 2 ? ImagePtr() : clip()[static_cast<size_t>(f)]; };
         }},
    };
    for (const auto& c : cases) {
        host().cache().clear();
        host().logger().clear();
        Render r;
        c.change(r);
        const int frame = 3;
        EXPECT_NE(render(frame, r).status, ML::STATUS_OK) << c.message;
        EXPECT_FALSE(host().logger().linesWith(c.message).empty())
            << c.message << "\n" << testing::PrintToString(host().logger().lines());
    }
}

}  // namespace
