// Interactive segmentation end to end through mlMain with the default package's stand-in networks
// and the ONNX Runtime CPU backend: clicks and boxes on coloured shapes over a textured
// background select those shapes; the frame's embedding is encoded once and kept by the host;
// bad prompts are refused with the effect's messages.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "Host/OwnedImage.h"
#include "Plugin/Models/SAM/Context.h"
#include "Plugin/PluginMain.h"

#include "util/InProcessPlugin.h"
#include "util/PackageContext.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;
using inprocess::host;
using inprocess::valueAt;

constexpr int kTarget = 7, kW = 256, kH = 192;

// A disc (x0, y0 the centre, x1 the radius) or a rectangle, in pixels.
struct Shape {
    bool disc;
    float x0, y0, x1, y1;
    bool contains(float x, float y) const {
        if (disc) return std::hypot(x - x0, y - y0) <= x1;
        return x >= x0 && x < x1 && y >= y0 && y < y1;
    }
};
const Shape kBlue{false, 150, 24, 230, 100};
const Shape kRed{true, 64, 64, 36, 0};
const Shape kOrange{false, 100, 44, 140, 84};  // touches the red disc on its right
const Shape kBar{false, 20, 150, 236, 176};     // a long yellow bar

// Stripes and checks of greys and muted greens, with the shapes painted over them; `scale` times
// the size of kW x kH.
ImagePtr picture(int scale = 1) {
    auto image = QHost::OwnedImage::make({0, 0, kW * scale, kH * scale}, Image::RGB, Image::HWC, ML::U8);
    const std::pair<Shape, std::array<float, 3>> shapes[] = {
        {kBlue, {0.15f, 0.25f, 0.85f}}, {kRed, {0.9f, 0.15f, 0.15f}},
        {kOrange, {0.9f, 0.27f, 0.15f}}, {kBar, {0.9f, 0.85f, 0.2f}}};
    for (int y = 0; y < kH * scale; ++y)
        for (int x = 0; x < kW * scale; ++x) {
            const float t =
                0.5f + 0.2f * std::sin(0.3f * x + 0.1f * y) + 0.1f * static_cast<float>(((x / 8) + (y / 8)) % 2);
            std::array<float, 3> rgb{0.8f * t, t, 0.7f * t};
            const float sx = (x + 0.5f) / static_cast<float>(scale), sy = (y + 0.5f) / static_cast<float>(scale);
            for (const auto& [shape, colour] : shapes)
                if (shape.contains(sx, sy)) rgb = colour;
            for (int c = 0; c < 3; ++c) inprocess::setValue(*image, x, y, static_cast<ML::u32>(c), rgb[c]);
        }
    return image;
}

// Buffers by id (900 positive points, 901 negative points, 902 the box), as floats.
using Prompt = std::map<int, std::vector<float>>;

struct Render {
    Prompt prompt;
    ML::u32 frame = 0;
    std::optional<Rect> roi;
    bool mask = true;
    ML::u32 maskFormat = Image::R;
    bool colorized = false;
    ImagePtr input = picture();
};

struct Result {
    int status = -1;
    ImagePtr mask, colorized;
    ML::u64 fills = 0;  // buffers the plug-in filled for the host's cache: frames encoded
    std::vector<QHost::CacheRequest> cache;
};

Result render(const Render& r) {
    auto s = inprocess::packageSettings(3, kTarget, r.frame);
    s->setInputImage(r.frame, r.input);
    if (r.roi) s->setRoi(r.frame, *r.roi);
    for (const auto& [id, values] : r.prompt) {
        ML::Ptr<ML::Buffer> b(new ML::BufferImp(values.size() * sizeof(float)));
        if (!values.empty()) std::memcpy(b->getData(), values.data(), values.size() * sizeof(float));
        s->setInputBuffer(r.frame, b, {id, -1});
    }
    const Rect full{0, 0, r.input->getRect().x1, r.input->getRect().y1};
    Result out;
    const ML::u64 fillsBefore = host().cache().stats().fills;
    if (r.mask) s->setOutputImage(r.frame, out.mask = QHost::OwnedImage::make(full, r.maskFormat, Image::HWC, ML::F32));
    if (r.colorized)
        s->setOutputImage(r.frame, out.colorized = QHost::OwnedImage::make(full, Image::RGB, Image::HWC, ML::U8),
                          {1, -1});
    for (int mode : {3, 4}) {
        s->setMode(mode);
        out.status = host().run(&mlMain, s);
        if (out.status != ML::STATUS_OK) break;
    }
    out.cache = s->cacheRequests();
    out.fills = host().cache().stats().fills - fillsBefore;
    return out;
}

// Intersection over union of the mask (above one half) and the pixels `wanted` marks.
double iou(const QHost::OwnedImage& mask, const std::function<bool(float, float)>& wanted) {
    long both = 0, either = 0;
    const Rect r = mask.getRect();
    for (int y = r.y0; y < r.y1; ++y)
        for (int x = r.x0; x < r.x1; ++x) {
            const bool in = valueAt(mask, x - r.x0, y - r.y0) > 0.5f, want = wanted(x + 0.5f, y + 0.5f);
            both += in && want;
            either += in || want;
        }
    return either ? static_cast<double>(both) / static_cast<double>(either) : 0.0;
}

long maskArea(const QHost::OwnedImage& mask) {
    long n = 0;
    const Rect r = mask.getRect();
    for (int y = 0; y < r.height(); ++y)
        for (int x = 0; x < r.width(); ++x) n += valueAt(mask, x, y) > 0.5f;
    return n;
}

const auto in = [](const Shape& s) { return [s](float x, float y) { return s.contains(x, y); }; };

TEST(SegmentationEffect, PromptsSelectTheirObject) {
    const Shape barInBox{false, 20, 150, 120, 176};
    const struct {
        const char* name;
        Prompt prompt;
        std::function<bool(float, float)> wanted;
        int scale = 1;
        std::optional<Rect> roi = {};  // the mask is made inside it only
    } cases[] = {
        {"a click on the blue rectangle", {{900, {190, 60}}}, in(kBlue)},
        {"a click on the red disc takes the touching orange one of a near colour",
         {{900, {60, 60}}},
         [](float x, float y) { return kRed.contains(x, y) || kOrange.contains(x, y); }},
        {"a negative click on the orange rectangle leaves it out", {{900, {60, 60}}, {901, {125, 64}}}, in(kRed)},
        {"a box around half the bar limits the mask to it",
         {{900, {60, 163}}, {902, {10, 140, 120, 186}}},
         in(barInBox)},
        {"a box alone selects what it surrounds", {{902, {140, 14, 240, 110}}}, in(kBlue)},
        {"a picture larger than a tile of the mask's last stage", {{900, {570, 180}}},
         [](float x, float y) { return kBlue.contains(x / 3, y / 3); }, 3},
        // Prompts are in the picture's pixels, not the region's. The embedding is kept under the
        // frame alone, so each region gets a frame of its own.
        {"a click in a region off the origin", {{900, {190, 60}}},
         [](float x, float y) { return kBlue.contains(x, y) && x >= 120; }, 1, Rect{120, 10, 250, 180}},
        {"a region of the logits' own size", {{900, {380, 120}}},
         [](float x, float y) { return kBlue.contains(x / 2, y / 2); }, 2, Rect{250, 10, 506, 266}},
    };
    for (const auto& c : cases) {
        Render r;
        r.prompt = c.prompt;
        r.roi = c.roi;
        r.input = picture(c.scale);
        // A frame number for each picture and region: its embedding.
        r.frame = static_cast<ML::u32>(c.scale) + (c.roi ? 10u * static_cast<ML::u32>(c.roi->x0) : 0u);
        const Result result = render(r);
        ASSERT_EQ(result.status, ML::STATUS_OK) << c.name << testing::PrintToString(host().logger().lines());
        EXPECT_GT(iou(*result.mask, c.wanted), 0.8) << c.name;
    }
}

// Whether the render asked for the frame's embedding, and then whether it ran the encoder.
std::optional<bool> encoded(const Result& r, ML::u32 frame) {
    for (const QHost::CacheRequest& c : r.cache)
        if (c.compute && c.key == ML::SAM::encodingKey(frame)) return r.fills == 1;
    return std::nullopt;
}

TEST(SegmentationEffect, EncoderRunsOncePerFrameAndDecoderPerPrompt) {
    host().cache().clear();
    Render r;
    r.frame = 5;
    r.prompt = {{900, {190, 60}}};
    const Result first = render(r);
    ASSERT_EQ(first.status, ML::STATUS_OK);
    EXPECT_EQ(encoded(first, 5), true);

    // Another prompt and another region of the same frame: the embedding is the host's.
    r.prompt = {{900, {60, 60}}, {901, {125, 64}}};
    const Result second = render(r);
    EXPECT_EQ(encoded(second, 5), false);
    EXPECT_GT(iou(*second.mask, in(kRed)), 0.8);  // the decoder ran on the new prompt
    r.roi = Rect{8, 8, 248, 184};
    EXPECT_EQ(encoded(render(r), 5), false);

    // Another frame is encoded; an evicted embedding is encoded again, to the same mask.
    r.roi.reset();
    r.frame = 6;
    EXPECT_EQ(encoded(render(r), 6), true);
    r.frame = 5;
    ASSERT_TRUE(host().cache().evict(ML::SAM::encodingKey(5)));
    const Result again = render(r);
    EXPECT_EQ(encoded(again, 5), true);
    for (int y = 0; y < kH; y += 7)
        for (int x = 0; x < kW; x += 7) EXPECT_EQ(valueAt(*again.mask, x, y), valueAt(*second.mask, x, y));

    // Another model's embedding of another size under the frame's key is left alone: this
    // model encodes the frame beside it, to the same mask.
    host().cache().clear();
    host().cache().store(ML::SAM::encodingKey(5), ML::Ptr<ML::Buffer>(new ML::BufferImp(100)));
    const Result beside = render(r);
    ASSERT_EQ(beside.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    EXPECT_EQ(beside.fills, 1u);
    EXPECT_EQ(host().cache().find(ML::SAM::encodingKey(5))->getSize(), 100u);
    for (int y = 0; y < kH; y += 7)
        for (int x = 0; x < kW; x += 7) EXPECT_EQ(valueAt(*beside.mask, x, y), valueAt(*second.mask, x, y));
}

// Two host threads, each its own frames and prompts, from an emptied cache: the masks of a render
// one at a time.
TEST(SegmentationEffect, TwoHostThreadsGiveTheSameMasks) {
    const Prompt prompts[2] = {{{900, {190, 60}}}, {{900, {60, 60}}, {901, {125, 64}}}};
    const auto renderAll = [&](int thread, std::vector<ImagePtr>& masks) {
        for (ML::u32 f = 0; f < 3; ++f) {
            Render r;
            r.frame = 200 + 10 * static_cast<ML::u32>(thread) + f;
            r.prompt = prompts[(thread + static_cast<int>(f)) % 2];
            const Result result = render(r);
            masks.push_back(result.status == ML::STATUS_OK ? result.mask : nullptr);
        }
    };
    std::vector<ImagePtr> reference[2], masks[2];
    host().cache().clear();
    for (int t : {0, 1}) renderAll(t, reference[t]);
    host().cache().clear();
    std::thread second([&] { renderAll(1, masks[1]); });
    renderAll(0, masks[0]);
    second.join();
    for (int t : {0, 1})
        for (size_t i = 0; i < masks[t].size(); ++i) {
            ASSERT_TRUE(masks[t][i] && reference[t][i]) << "thread " << t << ", render " << i;
            for (int y = 0; y < kH; y += 5)
                for (int x = 0; x < kW; x += 5)
                    ASSERT_EQ(valueAt(*masks[t][i], x, y), valueAt(*reference[t][i], x, y))
                        << "thread " << t << ", render " << i << " at " << x << ", " << y;
        }
}

TEST(SegmentationEffect, ColourisedViewTintsTheMaskAndMarksThePrompt) {
    Render r;
    r.prompt = {{900, {190, 60}}, {901, {20, 20}}};
    r.colorized = true;
    const Result result = render(r);
    ASSERT_EQ(result.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    const QHost::OwnedImage& c = *result.colorized;
    EXPECT_EQ(valueAt(c, 190, 60, 1), 1.0f);  // the positive point in green
    EXPECT_EQ(valueAt(c, 190, 60, 0), 0.0f);
    EXPECT_EQ(valueAt(c, 20, 20, 0), 1.0f);  // the negative one in red
    EXPECT_EQ(valueAt(c, 20, 20, 1), 0.0f);
    // Inside the mask the blue tint shows; outside, the picture as it is.
    const ImagePtr source = picture();
    EXPECT_GT(valueAt(c, 200, 80, 2), valueAt(*source, 200, 80, 2) * 0.5f + 0.4f);
    EXPECT_NEAR(valueAt(c, 100, 150, 0), valueAt(*source, 100, 150, 0), 0.02f);
}

TEST(SegmentationEffect, BadPromptsAreRefused) {
    std::vector<float> points16(32, 100.0f), points14(28, 100.0f), points15(30, 100.0f);
    const std::vector<float> box{140, 14, 240, 110};
    const struct {
        const char* name;
        std::function<void(Render&)> change;
        std::string message;  // empty: the render succeeds
        bool beforeNetworks = true;
    } cases[] = {
        {"only negative points", [](Render& r) { r.prompt = {{901, {10, 10}}}; },
         "No positive points or bbox provided! Nothing to render! (we *could* set a default bbox from the image rect, "
         "but results dont seem good enough to enable this)"},
        {"two boxes", [](Render& r) { r.prompt = {{902, {1, 2, 3, 4, 5, 6, 7, 8}}}; },
         "bounding box buffer size should be 16 bytes. (4 floats). got: 32"},
        {"one and a half points", [](Render& r) { r.prompt = {{900, {1, 2, 3}}}; },
         "points buffer size mismatch! should be divisible by 8 (sizeof(float) * 2)"},
        {"fifteen points and a box", [&](Render& r) { r.prompt = {{900, points15}, {902, box}}; },
         "max number of total query points (positive+negative+bbox corners) is 16 . (this could be modified if we "
         "need, but testing so far suggests diminishing returns in result quality past this point)", false},
        {"sixteen points", [&](Render& r) { r.prompt = {{900, points16}}; }, ""},
        {"fourteen points and a box", [&](Render& r) { r.prompt = {{900, points14}, {902, box}}; }, ""},
        {"no output mask", [](Render& r) { r.mask = false; }, "SAM output mask is required!"},
        {"an RGB output", [](Render& r) { r.maskFormat = Image::RGB; },
         "SAM output image should be single channel mask! (ML::Image::ChannelFormat::R)"},
        {"a region beyond the picture", [](Render& r) { r.roi = Rect{0, 0, kW + 8, kH}; },
         "Output must fully cover output rect"},
    };
    for (const auto& c : cases) {
        host().logger().clear();
        Render r;
        r.prompt = {{900, {190, 60}}};
        c.change(r);
        const Result result = render(r);
        if (c.message.empty()) {
            EXPECT_EQ(result.status, ML::STATUS_OK) << c.name << testing::PrintToString(host().logger().lines());
            continue;
        }
        EXPECT_NE(result.status, ML::STATUS_OK) << c.name;
        EXPECT_FALSE(host().logger().linesWith(c.message).empty())
            << c.name << "\n" << testing::PrintToString(host().logger().lines());
        if (c.beforeNetworks)
            EXPECT_FALSE(encoded(result, 0).has_value()) << c.name << ": refused before any network ran";
    }
}

// A real photograph: a click on the lime of fruits.jpg (right, above the lemon) gives a mask
// around it, kept beside the test binaries.
TEST(SegmentationEffect, ClickOnAFruit) {
    constexpr float kFruitX = 420, kFruitY = 200;
    const QMedia::Frame photo = QMedia::readImage(testpkg::mediaDir / "fruits.jpg");
    auto image = QHost::OwnedImage::make({0, 0, photo.width(), photo.height()}, Image::RGB, Image::HWC, ML::U8);
    for (int y = 0; y < photo.height(); ++y)
        for (int x = 0; x < photo.width(); ++x)
            for (int c = 0; c < 3; ++c)
                inprocess::setValue(*image, x, y, static_cast<ML::u32>(c), photo.sample(x, y, c));
    Render r;
    r.input = image;
    r.frame = 100;  // no other picture's embedding
    r.prompt = {{900, {kFruitX, kFruitY}}};
    const Result result = render(r);
    ASSERT_EQ(result.status, ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    const QHost::OwnedImage& mask = *result.mask;
    QMedia::Frame kept(photo.width(), photo.height(), 1, ML::U8);
    for (int y = 0; y < photo.height(); ++y)
        for (int x = 0; x < photo.width(); ++x) kept.setSample(x, y, 0, valueAt(mask, x, y));
    QMedia::writeImage(std::filesystem::path(QUILLON_BIN_DIR) / "segmentation_fruits_mask.png", kept);
    const double share = static_cast<double>(maskArea(mask)) / (photo.width() * photo.height());
    EXPECT_GT(valueAt(mask, static_cast<int>(kFruitX), static_cast<int>(kFruitY)), 0.5f);
    EXPECT_GT(share, 0.05);
    EXPECT_LT(share, 0.25);
    // Nothing of the orange beside it or the lemon below: the mask lies around the lime.
    long around = 0;
    for (int y = 100; y < 320; ++y)
        for (int x = 300; x < photo.width(); ++x) around += valueAt(mask, x, y) > 0.5f;
    EXPECT_GT(static_cast<double>(around), 0.95 * static_cast<double>(maskArea(mask)));
}

}  // namespace
