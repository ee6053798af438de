// Mask propagation end to end through mlMain with the default package's stand-in networks and
// the ONNX Runtime CPU backend: a coloured disc moving over a textured background, drawn on one
// keyframe, is followed through the clip; masks are the same whatever the order of renders and
// whatever the cache lost or holds corrupted between them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

#include "util/InProcessPlugin.h"
#include "util/PackageContext.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;
using inprocess::host;
using inprocess::valueAt;

constexpr int kW = 160, kH = 96, kFrames = 34, kRadius = 15;

float discX(int f) { return 30.0f + 3.0f * static_cast<float>(f); }
float discY(int f) { return 40.0f + 0.8f * static_cast<float>(f); }
bool inDisc(int f, int x, int y) {
    const float dx = static_cast<float>(x) + 0.5f - discX(f), dy = static_cast<float>(y) + 0.5f - discY(f);
    return dx * dx + dy * dy <= kRadius * kRadius;
}

// A red disc over stripes and checks of greys and muted greens.
ImagePtr frameImage(int f) {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, Image::RGB, Image::HWC, ML::U8);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            const float t = 0.5f + 0.2f * std::sin(0.3f * x + 0.1f * y) + 0.1f * static_cast<float>(((x / 8) + (y / 8)) % 2);
            float rgb[3] = {0.8f * t, t, 0.7f * t};
            if (inDisc(f, x, y)) rgb[0] = 0.95f, rgb[1] = 0.1f, rgb[2] = 0.15f;
            for (int c = 0; c < 3; ++c) image->at<ML::u8>(x, y, static_cast<ML::u32>(c)) = static_cast<ML::u8>(255.0f * rgb[c]);
        }
    return image;
}

ImagePtr trueMask(int f) {
    auto image = QHost::OwnedImage::make({0, 0, kW, kH}, Image::R, Image::HWC, ML::F32);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) image->at<float>(x, y) = inDisc(f, x, y) ? 1.0f : 0.0f;
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

// The region the host asks for, when set.
std::optional<Rect> region;

struct Result {
    int status = -1;
    ImagePtr mask, colorized, second;
};

// One render of `frame`, keyframe 0 with the true disc.
// With two objects, the second has no mask on the keyframe.
Result render(int frame, bool colorized = false, int objects = 1) {
    auto s = std::make_shared<QHost::CallSettings>(4, 4);
    s->setModelIndex(0);
    s->setDataFolder((testpkg::packageDir / "config").string());
    s->setAuxFolder((testpkg::packageDir / "models").string());
    s->setFrame(static_cast<ML::u32>(frame));
    s->setIntParam(300, 0, objects);
    s->setIntParam(301, 0, 1);
    s->setIntParam(302, 0, 0);
    s->setIntParam(303, 0, 0);
    s->setIntParam(304, 0, 0);
    static const ImagePtr keyMask = trueMask(0);
    s->setInputImageProvider([](ML::u32 f, ML::ResourceId id, const Rect*) -> ML::Ptr<Image> {
        if (id.id == 0) return clip().at(f);
        if (id.id == 2 && f == 0 && id.index == 0) return keyMask;
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

std::vector<float> renderValues(int frame) {
    const Result r = render(frame);
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

// Overwrites `bytes` bytes of every cached state from `at` with 0x7f.
void damageState(size_t at, size_t bytes) {
    for (const std::string& k : keysStartingWith("qtState_")) {
        ML::Ptr<ML::Buffer> b = host().cache().find(k);
        auto* data = static_cast<unsigned char*>(b->getData());
        std::memset(data + at, 0x7f, bytes);
    }
}

}  // namespace

TEST(MaskPropagationEffect, FollowsTheDisc) {
    for (const auto& [f, mask] : inOrder()) {
        ASSERT_EQ(mask.size(), static_cast<size_t>(kW * kH));
        int both = 0, either = 0;
        for (int y = 0; y < kH; ++y)
            for (int x = 0; x < kW; ++x) {
                const bool a = mask[static_cast<size_t>(y * kW + x)] > 0.5f, b = inDisc(f, x, y);
                both += a && b;
                either += a || b;
            }
        EXPECT_GT(static_cast<float>(both) / static_cast<float>(either), 0.8f) << "frame " << f;
    }
}

// Whatever the order and whatever the cache lost or holds damaged, each frame's masks are those
// of the walk in order.
TEST(MaskPropagationEffect, SameMasksWhateverTheOrderAndTheCache) {
    const auto& expected = inOrder();
    struct Row {
        const char* name;
        std::vector<int> order;
        std::function<void()> between;
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
    };
    for (const Row& r : rows) {
        host().cache().clear();
        for (int f : r.order) {
            EXPECT_EQ(renderValues(f), expected.at(f)) << r.name << ", frame " << f;
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

TEST(MaskPropagationEffect, EmptyRegionIsRefused) {
    for (const Rect& r : {Rect{10, 10, 10, 50}, Rect{10, 50, 60, 20}}) {
        host().cache().clear();
        region = r;
        EXPECT_EQ(render(1).status, 4);
        EXPECT_NE(testing::PrintToString(host().logger().lines()).find("is empty"), std::string::npos);
    }
    region.reset();
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
