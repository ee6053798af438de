// Mask propagation end to end through mlMain with the default package's stand-in networks and
// the ONNX Runtime CPU backend: a red and a blue disc passing each other over a textured
// background, drawn on one keyframe, are followed through the clip; masks are the same whatever
// the order of renders and whatever the cache lost, holds corrupted or changes during a render.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/OwnedImage.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/QT/Context.h"
#include "Plugin/Models/QT/Sequence.h"
#include "Plugin/PluginMain.h"

#include "util/InProcessPlugin.h"
#include "util/PackageContext.h"
#include "util/TempDir.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;
using Lookup = QHost::ComputeCache::Lookup;
using inprocess::host;
using inprocess::valueAt;

constexpr int kW = 160, kH = 96, kFrames = 34, kRadius = 15;

// Disc 0 (red) moves right, disc 1 (blue) left; they pass each other around frame 17, 37
// pixels apart.
float discX(int f, int disc = 0) { return disc == 0 ? 30.0f + 3.0f * static_cast<float>(f) : 130.0f - 3.0f * static_cast<float>(f); }
float discY(int f, int disc = 0) { return disc == 0 ? 28.0f + 0.2f * static_cast<float>(f) : 72.0f - 0.2f * static_cast<float>(f); }
bool inDisc(int f, int x, int y, int disc = 0) {
    const float dx = static_cast<float>(x) + 0.5f - discX(f, disc), dy = static_cast<float>(y) + 0.5f - discY(f, disc);
    return dx * dx + dy * dy <= kRadius * kRadius;
}

// The two discs over stripes and checks of greys and muted greens.
ImagePtr frameImage(int f) {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, Image::RGB, Image::HWC, ML::U8);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const float t = 0.5f + 0.2f * std::sin(0.3f * x + 0.1f * y) + 0.1f * static_cast<float>(((x / 8) + (y / 8)) % 2);
            float rgb[3] = {0.8f * t, t, 0.7f * t};
            if (inDisc(f, x, y, 0)) rgb[0] = 0.95f, rgb[1] = 0.1f, rgb[2] = 0.15f;
            if (inDisc(f, x, y, 1)) rgb[0] = 0.1f, rgb[1] = 0.2f, rgb[2] = 0.95f;
            for (int c = 0; c < 3; ++c) image->at<ML::u8>(x, y, static_cast<ML::u32>(c)) = static_cast<ML::u8>(255.0f * rgb[c]);
        }
    return image;
}

ImagePtr trueMask(int f, int disc) {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, Image::R, Image::HWC, ML::F32);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) image->at<float>(x, y) = inDisc(f, x, y, disc) ? 1.0f : 0.0f;
    return image;
}

const std::vector<ImagePtr>& clip() {
    static const std::vector<ImagePtr> frames = [] {
        std::vector<ImagePtr> v;
        for (int f = 0; f < kFrames; ++f) v.push_back(frameImage(f));
        return v;
    }();
    return frames;
}

// The region the host asks for, when set, and the keyframe count it answers.
std::optional<Rect> region;
int keyframeCount = 1;

struct Result {
    int status = -1;
    ImagePtr mask, colorized, second;
};

// One render of `frame`, keyframe 0 with the true discs of the first `keyed` objects.
Result render(int frame, bool colorized = false, int objects = 1, int keyed = 1) {
    auto s = std::make_shared<QHost::CallSettings>(4, 4);
    s->setModelIndex(0);
    s->setDataFolder((testpkg::packageDir / "config").string());
    s->setAuxFolder((testpkg::packageDir / "models").string());
    s->setFrame(static_cast<ML::u32>(frame));
    s->setIntParam(300, 0, objects);
    s->setIntParam(301, 0, keyframeCount);
    // Keyframe k at frame k: a count beyond the clip names frames the host cannot give.
    for (int k = 0; k < keyframeCount; ++k) s->setIntParam(302, k, k);
    s->setIntParam(303, 0, 0);
    s->setIntParam(304, 0, 0);
    static const ImagePtr keyMasks[] = {trueMask(0, 0), trueMask(0, 1)};
    s->setInputImageProvider([keyed](ML::u32 f, ML::ResourceId id, const Rect*) -> ML::Ptr<Image> {
        if (id.id == 0) return clip().at(f);
        if (id.id == 2 && f == 0 && id.index < keyed) return keyMasks[id.index];
        return nullptr;
    });
    if (region) s->setDefaultRoi(*region);
    Result out;
    s->setOutputImage(static_cast<ML::u32>(frame), out.mask = QHost::OwnedImage::make({0, 0, kW, kH}, Image::R, Image::HWC, ML::F32), {2, 0});
    if (objects > 1)
        s->setOutputImage(static_cast<ML::u32>(frame), out.second = QHost::OwnedImage::make({0, 0, kW, kH}, Image::R, Image::HWC, ML::F32), {2, 1});
    if (colorized)
        s->setOutputImage(static_cast<ML::u32>(frame),
                          out.colorized = QHost::OwnedImage::make({0, 0, kW, kH}, Image::RGB, Image::HWC, ML::U8), {1, -1});
    for (int mode : {3, 4}) {
        s->setMode(mode);
        out.status = host().run(&mlMain, s);
        if (out.status != ML::STATUS_OK) return out;
    }
    return out;
}

std::vector<float> values(const ImagePtr& mask) {
    std::vector<float> v;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) v.push_back(valueAt(*mask, x, y));
    return v;
}

std::vector<float> renderValues(int frame, int objects = 1, int keyed = 1, std::vector<float>* second = nullptr) {
    const Result r = render(frame, false, objects, keyed);
    if (second && r.second) *second = values(r.second);
    EXPECT_EQ(r.status, ML::STATUS_OK) << frame << ": " << testing::PrintToString(host().logger().lines());
    return r.mask ? values(r.mask) : std::vector<float>{};
}

const std::map<int, std::vector<float>>& inOrder() {
    static const std::map<int, std::vector<float>> masks = [] {
        host().cache().clear();
        std::map<int, std::vector<float>> m;
        for (int f = 0; f < kFrames; ++f) m[f] = renderValues(f);
        return m;
    }();
    return masks;
}

std::vector<std::string> keysStartingWith(const std::string& prefix) {
    std::vector<std::string> keys;
    for (const std::string& k : host().cache().keys())
        if (k.rfind(prefix, 0) == 0) keys.push_back(k);
    return keys;
}

// Intersection over union of a mask with a disc.
float iou(const std::vector<float>& mask, int f, int disc) {
    int both = 0, either = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const bool a = mask.at(static_cast<size_t>(y * kW + x)) > 0.5f, b = inDisc(f, x, y, disc);
            both += a && b;
            either += a || b;
        }
    return either ? static_cast<float>(both) / static_cast<float>(either) : 0.0f;
}

// A cache lookup hook that calls act(key) at the nth lookup of that kind of a key starting with
// `prefix` (every one for nth 0).
QHost::ComputeCache::LookupHook atLookup(std::string prefix, Lookup kind, int nth, std::function<void(const std::string&)> act) {
    return [=, seen = 0](const std::string& key, Lookup lookup) mutable {
        if (lookup == kind && key.rfind(prefix, 0) == 0 && (++seen == nth || nth == 0)) act(key);
    };
}

// Overwrites `bytes` bytes of every cached state from `at` with 0x7f.
void damageState(size_t at, size_t bytes) {
    for (const std::string& k : keysStartingWith("qtState_")) {
        ML::Ptr<ML::Buffer> b = host().cache().find(k);
        auto* data = static_cast<unsigned char*>(b->getData());
        std::memset(data + at, 0x7f, bytes);
    }
}

}  // namespace

// Each keyed object's mask covers its own disc on every frame, never the other one.
TEST(MaskPropagationEffect, FollowsEachDisc) {
    for (int objects : {1, 2}) {
        host().cache().clear();
        for (int f = 0; f < kFrames; ++f) {
            std::vector<float> masks[2];
            masks[0] = objects == 1 ? inOrder().at(f) : renderValues(f, 2, 2, &masks[1]);
            for (int o = 0; o < objects; ++o) {
                ASSERT_EQ(masks[o].size(), static_cast<size_t>(kW * kH)) << objects << " objects, frame " << f;
                EXPECT_GT(iou(masks[o], f, o), 0.8f) << objects << " objects, object " << o << ", frame " << f;
                EXPECT_LT(iou(masks[o], f, 1 - o), 0.05f) << objects << " objects, object " << o << ", frame " << f;
            }
        }
    }
}

// Whatever the order and whatever the cache lost or holds damaged, before a render or at a point of
// it (`during`, hooked on the cache in the last render of a row), each frame's masks are those of
// the walk in order. A render looks up the state key twice in its preparing call and its own
// (finds 1 and 2), once more before asking for it (find 3), then asks for it (compute 1).
TEST(MaskPropagationEffect, SameMasksWhateverTheOrderAndTheCache) {
    const auto& expected = inOrder();
    struct Row {
        const char* name;
        std::vector<int> order;
        std::function<void()> between;
        QHost::ComputeCache::LookupHook during = {};
    };
    const auto evict = [](const std::string& prefix) {
        for (const std::string& k : keysStartingWith(prefix)) host().cache().evict(k);
    };
    const Row rows[] = {
        {"30, 10, 31", {30, 10, 31}, [] {}},
        {"state evicted", {5, 12, 13, 20}, [&] { evict("qtState_"); }},
        {"masks evicted", {8, 9, 3, 9}, [&] { evict("qtMasks_frame:"); }},
        {"everything evicted", {7, 6, 7}, [] { host().cache().clear(); }},
        {"state header overwritten", {6, 11, 4}, [] { damageState(0, 40); }},
        {"state counters overwritten", {6, 11, 12}, [] { damageState(44, 8); }},  // of the one object
        {"state purged between its look-ups", {5, 8}, [] {},
         atLookup("qtState_", Lookup::Find, 3, [](const std::string& k) { host().cache().evict(k); })},
        {"restart while the state is purged", {10, 5}, [&] { evict("qtMasks_frame:"); },
         atLookup("qtState_", Lookup::Find, 3, [](const std::string& k) { host().cache().evict(k); })},
        {"state evicted before its use", {5, 8}, [] {},
         atLookup("qtState_", Lookup::Compute, 1, [](const std::string& k) { host().cache().evict(k); })},
        {"state of another size before its use", {5, 8}, [] {},
         atLookup("qtState_", Lookup::Compute, 1,
                  [](const std::string& k) { host().cache().store(k, ML::Ptr<ML::Buffer>(new ML::BufferImp(100))); })},
    };
    for (const Row& r : rows) {
        host().cache().clear();
        for (size_t i = 0; i < r.order.size(); ++i) {
            if (i + 1 == r.order.size()) host().cache().setLookupHook(r.during);
            EXPECT_EQ(renderValues(r.order[i]), expected.at(r.order[i])) << r.name << ", frame " << r.order[i];
            host().cache().setLookupHook(nullptr);
            r.between();
        }
    }
}

// A state of another size under the key (the keyframes' masks changed since) cannot stop the
// sequence: the walk goes on in a state of its own size, and stays there.
TEST(MaskPropagationEffect, StateOfAnotherSizeStartsOver) {
    const auto& expected = inOrder();  // rendered first: it empties the cache
    host().cache().clear();
    ASSERT_EQ(render(0).status, ML::STATUS_OK);
    const std::string key = keysStartingWith("qtState_").at(0);
    host().cache().store(key, ML::Ptr<ML::Buffer>(new ML::BufferImp(100)));
    EXPECT_EQ(renderValues(1), expected.at(1));
    EXPECT_EQ(renderValues(2), expected.at(2));
    EXPECT_EQ(host().cache().find(key)->getSize(), 100u);
}

// A mask already cached at another length (of another region, say) is kept when a walk passes
// its frame again, and decodes as far as it goes: the rest is empty.
TEST(MaskPropagationEffect, MaskOfAnotherLengthIsKept) {
    const auto& expected = inOrder();  // rendered first: it empties the cache
    host().cache().clear();
    ASSERT_EQ(render(4).status, ML::STATUS_OK);
    const std::string key = keysStartingWith("qtMasks_frame:2_").at(0);
    host().cache().store(key, ML::Ptr<ML::Buffer>(new ML::BufferImp(2)));
    for (const std::string& k : keysStartingWith("qtState_")) host().cache().evict(k);
    host().cache().evict(keysStartingWith("qtMasks_frame:4_").at(0));
    EXPECT_EQ(renderValues(4), expected.at(4));
    const std::vector<float> cut = renderValues(2);
    EXPECT_EQ(std::count(cut.begin(), cut.end(), 0.0f), static_cast<long>(kW * kH));
}

TEST(MaskPropagationEffect, RefusedRenders) {
    struct Row {
        std::optional<Rect> region;
        int keyframes;
        const char* message;
    };
    const Row rows[] = {
        {Rect{10, 10, 10, 50}, 1, "is empty"},
        {Rect{10, 50, 60, 20}, 1, "is empty"},
        {std::nullopt, 1001, "num keyframes must be at most 1000! host returned: 1001"},
    };
    for (const Row& r : rows) {
        host().cache().clear();
        host().logger().clear();
        region = r.region;
        keyframeCount = r.keyframes;
        EXPECT_EQ(render(1).status, 4) << r.message;
        const std::vector<std::string> log = host().logger().lines();
        EXPECT_TRUE(std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.find(r.message) != std::string::npos; }))
            << r.message << ": " << testing::PrintToString(log);
    }
    region.reset();
    keyframeCount = 1;
}

// A walk asks for each frame's image as it comes to it and lets it go when the frame is done.
TEST(MaskPropagationEffect, WalkHoldsOneFrameAtATime) {
    host().cache().clear();
    size_t most = 0;
    // Held by the plug-in: referenced by more than the clip and the host's answer to the call.
    host().cache().setLookupHook(atLookup("qtMasks_frame:", Lookup::Compute, 0, [&](const std::string&) {
        most = std::max(most, static_cast<size_t>(std::count_if(clip().begin() + 1, clip().end(),
                                                                [](const ImagePtr& i) { return i->useCount() > 2; })));
    }));
    const Result r = render(20);
    host().cache().setLookupHook(nullptr);
    ASSERT_EQ(r.status, ML::STATUS_OK);
    EXPECT_EQ(most, 1u);
}

// Two models of the family, each with a network file of its own under the same submodel name,
// each get theirs.
TEST(MaskPropagationEffect, EachModelLoadsItsOwnNetworks) {
    TempDir models;
    std::filesystem::create_directories(models.path() / "qt");
    for (const auto& e : std::filesystem::directory_iterator(testpkg::packageDir / "models" / "qt"))
        std::filesystem::create_symlink(e.path(), models.path() / "qt" / e.path().filename());
    const auto qt = testpkg::packageDir / "models" / "qt";
    std::filesystem::copy_file(qt / "qt_get_masks.onnx", models.path() / "qt" / "a_get_masks.onnx");
    std::filesystem::copy_file(qt / "qt_get_masks_aa.onnx", models.path() / "qt" / "b_get_masks.onnx");

    auto context = testpkg::cpuContext(models.path());
    ML::QT_Context effect(context, std::make_shared<ML::ModelCommon>(context));
    nlohmann::json params = {{"execShapes", {{512, 1024}}}, {"tMax", 5}, {"pMax", 2}, {"objsMax", 8}};
    for (const std::string& name : ML::QT::requiredSubmodels())
        params["submodelsInfo"][name] = {{"learned", name == "get_masks"},
                                         {"model_supports_dynamic_shapes", true},
                                         {"override_dynamic_shapes", false},
                                         {"shapes_depend_on", nlohmann::json::array()}};
    ML::QT_StateHeader header;
    header.h = 512, header.w = 1024, header.o = 1, header.t = 5, header.p = 2, header.dataType = ML::F16;
    const ML::u64 call = host().beginCall(std::make_shared<QHost::CallSettings>(4, 4));
    const auto a = effect.acquireResources(&host(), call, header, ML::QT_ModelParams::read("a", params), kH, kW);
    const auto b = effect.acquireResources(&host(), call, header, ML::QT_ModelParams::read("b", params), kH, kW);
    host().endCall(call);
    EXPECT_NE(a.submodels->at("get_masks"), b.submodels->at("get_masks"));
    EXPECT_NE(a.submodels->at("qe"), b.submodels->at("qe"));
    EXPECT_EQ(a.submodels->at("get_masks")->getPath(), std::filesystem::path("qt/a_get_masks"));
    EXPECT_EQ(b.submodels->at("get_masks")->getPath(), std::filesystem::path("qt/b_get_masks"));
}

// An object that no keyframe shows runs through every network with an empty memory and gets an
// empty mask; the other object's mask is as if it were alone.
TEST(MaskPropagationEffect, ObjectWithoutKeyframeGetsAnEmptyMask) {
    host().cache().clear();
    const Result r = render(2, false, 2);
    ASSERT_EQ(r.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    EXPECT_EQ(values(r.mask), inOrder().at(2));
    const std::vector<float> second = values(r.second);
    EXPECT_EQ(std::count(second.begin(), second.end(), 0.0f), static_cast<long>(second.size()));
}

TEST(MaskPropagationEffect, ColorizedPreviewTintsTheDisc) {
    host().cache().clear();
    const Result r = render(3, true);
    ASSERT_EQ(r.status, ML::STATUS_OK);
    const ImagePtr input = clip().at(3);
    const int cx = static_cast<int>(discX(3)), cy = static_cast<int>(discY(3));
    EXPECT_NE(valueAt(*r.colorized, cx, cy, 1), valueAt(*input, cx, cy, 1));  // tinted
    EXPECT_NEAR(valueAt(*r.colorized, 2, 2, 1), valueAt(*input, 2, 2, 1), 2.0f / 255.0f);  // background kept
}
