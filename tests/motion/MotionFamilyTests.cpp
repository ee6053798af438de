// Optical flow and retiming end to end through mlMain, with the default package's classical
// stand-in networks on the ONNX Runtime CPU backend: known motion is measured and interpolated,
// whole positions copy their frame, tiles are feathered together, and every refusal says why.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/Media/ImageReader.h"
#include "Host/OwnedImage.h"
#include "Plugin/Models/RIFE/RenderState.h"
#include "Plugin/PluginMain.h"
#include "Plugin/TiledExecution.h"

#include "util/InProcessPlugin.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;

using namespace inprocess;

// Smooth random-looking texture, shifted by (dx, dy): the picture at p is the texture at p - d.
float texture(float x, float y, int c) {
    return 0.5f + 0.18f * std::sin(0.21f * x + 0.7f * c) * std::cos(0.17f * y) +
           0.12f * std::sin(0.05f * (x + 2 * y) + c) + 0.08f * std::cos(0.13f * x - 0.11f * y);
}

ImagePtr texturedImage(const Rect& rect, float dx, float dy, ML::u32 type = ML::F32) {
    ImagePtr image = QHost::OwnedImage::make(rect, Image::RGB, Image::HWC, type);
    for (int y = rect.y0; y < rect.y1; ++y)
        for (int x = rect.x0; x < rect.x1; ++x)
            for (int c = 0; c < 3; ++c) setValue(*image, x, y, c, texture(x - dx, y - dy, c));
    return image;
}

ImagePtr filled(const Rect& rect, ML::u32 format) { return filledImage(rect, format, ML::F32, kSentinel); }

// ---------------------------------------------------------------------------------------------
// Optical flow

std::shared_ptr<QHost::CallSettings> flowSettings(const ImagePtr& first, const ImagePtr& second, ImagePtr flow,
                                                  ImagePtr colour, int offset = 1) {
    auto settings = packageSettings(4, 3, 10);
    settings->setIntParam(700, 0, offset);
    if (first) settings->setInputImage(10, first);
    if (second) settings->setInputImage(static_cast<ML::u32>(10 + offset), second);
    if (flow) settings->setOutputImage(10, flow, {0, -1});
    if (colour) settings->setOutputImage(10, colour, {1, -1});
    return settings;
}

// Mean flow over the inner part of the picture (away from the borders that the motion uncovers).
std::pair<double, double> meanFlow(const QHost::OwnedImage& flow, int border) {
    const Rect r = flow.getRect();
    double sx = 0, sy = 0;
    long n = 0;
    for (int y = r.y0 + border; y < r.y1 - border; ++y)
        for (int x = r.x0 + border; x < r.x1 - border; ++x, ++n) {
            sx += valueAt(flow, x, y, 0);
            sy += valueAt(flow, x, y, 1);
        }
    return {sx / n, sy / n};
}

// The flow of a known shift, at the network's size and at twice it (the vectors then scale).
TEST(OpticalFlow, MeasuresAKnownShiftInPicturePixels) {
    const struct {
        Rect rect;
        float dx, dy;
    } cases[] = {{{0, 0, 512, 288}, 3.0f, -2.0f}, {{0, 0, 512, 288}, 0.5f, 1.25f}, {{0, 0, 1024, 576}, 8.0f, 4.0f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rect.toString() + " " + std::to_string(c.dx) + "," + std::to_string(c.dy));
        ImagePtr flow = filled(c.rect, Image::RG);
        ASSERT_EQ(render(flowSettings(texturedImage(c.rect, 0, 0), texturedImage(c.rect, c.dx, c.dy), flow, nullptr)),
                  ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
        const auto [mx, my] = meanFlow(*flow, c.rect.width() / 8);
        EXPECT_NEAR(mx, c.dx, 0.1 * std::max(1.0f, std::fabs(c.dx)));
        EXPECT_NEAR(my, c.dy, 0.1 * std::max(1.0f, std::fabs(c.dy)));
    }
}

// Only the coloured layer: its rectangle is the region, and the colours follow the motion.
TEST(OpticalFlow, ColouredLayerAlone) {
    const Rect rect{0, 0, 256, 144};
    ImagePtr first = texturedImage(rect, 0, 0);
    ImagePtr second = QHost::OwnedImage::make(rect, Image::RGB, Image::HWC, ML::F32);
    // The left half moves right by 4, the right half stays.
    for (int y = 0; y < rect.y1; ++y)
        for (int x = 0; x < rect.x1; ++x)
            for (int c = 0; c < 3; ++c) setValue(*second, x, y, c, texture(x < 128 ? x - 4.0f : x, y, c));
    ImagePtr colour = filled(rect, Image::RGB);
    ASSERT_EQ(render(flowSettings(first, second, nullptr, colour)), ML::STATUS_OK)
        << testing::PrintToString(host().logger().lines());
    float spread = 0;
    for (int c = 0; c < 3; ++c) spread = std::max(spread, std::fabs(valueAt(*colour, 40, 72, c) - valueAt(*colour, 216, 72, c)));
    EXPECT_GT(spread, 0.2f);  // moving and still parts differ in colour
    for (int c = 0; c < 3; ++c) EXPECT_GE(valueAt(*colour, 216, 72, c), 0.0f);
}

TEST(OpticalFlow, RefusedRendersLogTheirReason) {
    const Rect rect{0, 0, 64, 48};
    const struct {
        const char* what;
        ImagePtr first, second, flow, colour;
        std::string logged;
        ML::i32 status = ML::STATUS_OTHER;
    } cases[] = {
        {"flow output not RG", texturedImage(rect, 0, 0), texturedImage(rect, 1, 0), filled(rect, Image::RGB), nullptr,
         "Flow output channel format must be ML::Image::ChannelFormat::RG"},
        {"no output", texturedImage(rect, 0, 0), texturedImage(rect, 1, 0), nullptr, nullptr,
         "[Quillon] [W] Attempting to render optical flow without requesting either output layers. nothing to do, "
         "render is cancelled!",
         ML::STATUS_CANCELLED},
        {"outputs of two sizes", texturedImage(rect, 0, 0), texturedImage(rect, 1, 0), filled(rect, Image::RG),
         filled({0, 0, 32, 48}, Image::RGB), "Rect for both outputs must match! ((0,0->32,48) vs (0,0->64,48))"},
        {"second frame missing", texturedImage(rect, 0, 0), nullptr, filled(rect, Image::RG), nullptr,
         "No input image returned by getInputImage()"},
        {"frames of two sizes", texturedImage(rect, 0, 0), texturedImage({0, 0, 64, 50}, 1, 0), filled(rect, Image::RG),
         nullptr, "Input image rectangles must match: (0,0->64,48) vs (0,0->64,50)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(render(flowSettings(c.first, c.second, c.flow, c.colour)), c.status);
        expectRefusalLogged(c.status, c.logged);
    }
}

// Real footage: the flow varies over the picture, stays finite and of a plausible size.
TEST(OpticalFlow, RealFramePairsGivePlausibleFlow) {
    for (const char* pair : {"rubberwhale", "basketball"}) {
        SCOPED_TRACE(pair);
        const auto dir = std::filesystem::path(QUILLON_SOURCE_DIR) / ".deps" / "media";
        ImagePtr frames[2];
        for (int i = 0; i < 2; ++i) {
            const QMedia::Frame f = QMedia::readImage(dir / (std::string(pair) + std::to_string(i + 1) + ".png"));
            frames[i] = QHost::OwnedImage::make({0, 0, f.width(), f.height()}, Image::RGB, Image::HWC, ML::F32);
            for (int y = 0; y < f.height(); ++y)
                for (int x = 0; x < f.width(); ++x)
                    for (int c = 0; c < 3; ++c) setValue(*frames[i], x, y, c, f.sample(x, y, std::min(c, f.channels() - 1)));
        }
        const Rect rect = frames[0]->getRect();
        ImagePtr flow = filled(rect, Image::RG);
        ImagePtr colour = filled(rect, Image::RGB);
        ASSERT_EQ(render(flowSettings(frames[0], frames[1], flow, colour)), ML::STATUS_OK)
            << testing::PrintToString(host().logger().lines());
        float largest = 0, lo = 1e9f, hi = -1e9f;
        bool finite = true;
        for (int y = rect.y0; y < rect.y1; ++y)
            for (int x = rect.x0; x < rect.x1; ++x) {
                const float u = valueAt(*flow, x, y, 0), v = valueAt(*flow, x, y, 1);
                finite = finite && std::isfinite(u) && std::isfinite(v);
                largest = std::max(largest, std::hypot(u, v));
                lo = std::min(lo, u);
                hi = std::max(hi, u);
            }
        EXPECT_TRUE(finite);
        EXPECT_LT(largest, 60.0f);
        EXPECT_GT(hi - lo, 0.5f);  // not one uniform motion
    }
}

// ---------------------------------------------------------------------------------------------
// Retiming

std::shared_ptr<QHost::CallSettings> retimingSettings(float t, const std::vector<std::pair<int, ImagePtr>>& frames,
                                                      ImagePtr output) {
    auto settings = packageSettings(4, 5, 3);
    settings->setFloatParam(400, 0, t);
    for (const auto& [n, image] : frames) settings->setInputImage(static_cast<ML::u32>(n), image);
    if (output) settings->setOutputImage(3, output);
    return settings;
}

// A bright square on the texture, its left edge at x.
ImagePtr squareAt(const Rect& rect, float x) {
    ImagePtr image = texturedImage(rect, 0, 0);
    for (int y = 100; y < 140; ++y)
        for (int px = static_cast<int>(x); px < static_cast<int>(x) + 40; ++px)
            for (int c = 0; c < 3; ++c) setValue(*image, px, y, c, c == 0 ? 1.0f : 0.05f);
    return image;
}

// Centroid in x of the square's red-only colour.
double squareCentre(const QHost::OwnedImage& image) {
    const Rect r = image.getRect();
    double sum = 0, weight = 0;
    for (int y = r.y0; y < r.y1; ++y)
        for (int x = r.x0; x < r.x1; ++x) {
            const float w = std::max(0.0f, valueAt(image, x, y, 0) - valueAt(image, x, y, 1) - 0.5f);
            sum += w * x;
            weight += w;
        }
    return weight > 0 ? sum / weight : -1;
}

TEST(Retiming, WholePositionsCopyAndFractionsInterpolate) {
    const Rect rect{0, 0, 320, 240};
    ImagePtr a = squareAt(rect, 100), b = squareAt(rect, 112);
    const struct {
        float t;
        std::vector<std::pair<int, ImagePtr>> frames;
        std::optional<ImagePtr> copied;  // the frame copied, if any
        double centre;                   // where the square's centre lands
    } cases[] = {
        {10.0f, {{10, a}}, a, 120.0},
        {10.0005f, {{10, a}}, a, 120.0},
        {10.9995f, {{11, b}}, b, 132.0},
        {10.5f, {{10, a}, {11, b}}, std::nullopt, 126.0},
        {-0.5f, {{-1, a}, {0, b}}, std::nullopt, 126.0},  // the floor, not truncation
        {10.25f, {{10, a}, {11, b}}, std::nullopt, 123.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.t);
        ImagePtr output = filled(rect, Image::RGB);
        ASSERT_EQ(render(retimingSettings(c.t, c.frames, output)), ML::STATUS_OK)
            << testing::PrintToString(host().logger().lines());
        if (c.copied) {
            float difference = 0;
            for (int y = 0; y < rect.y1; ++y)
                for (int x = 0; x < rect.x1; ++x)
                    for (int ch = 0; ch < 3; ++ch)
                        difference = std::max(difference, std::fabs(valueAt(*output, x, y, ch) - valueAt(**c.copied, x, y, ch)));
            EXPECT_EQ(difference, 0.0f);
        }
        EXPECT_NEAR(squareCentre(*output), c.centre, 1.0);
    }
}

// A region wider than a tile: the tiles, feathered together, agree with one tile's render of a
// part of it away from that part's own edges, and leave no seam.
TEST(Retiming, FeatheredTilesAgreeWithOneTile) {
    const Rect wide{0, 0, 700, 240}, part{150, 0, 450, 240};
    ImagePtr a = squareAt(wide, 300), b = squareAt(wide, 306);
    ImagePtr tiled = filled(wide, Image::RGB), single = filled(part, Image::RGB);
    ASSERT_EQ(render(retimingSettings(2.5f, {{2, a}, {3, b}}, tiled)), ML::STATUS_OK);
    ASSERT_EQ(render(retimingSettings(2.5f, {{2, a}, {3, b}}, single)), ML::STATUS_OK);
    double sum = 0;
    long n = 0;
    for (int y = 20; y < 220; ++y)
        for (int x = part.x0 + 40; x < part.x1 - 40; ++x)
            for (int c = 0; c < 3; ++c, ++n) sum += std::fabs(valueAt(*tiled, x, y, c) - valueAt(*single, x, y, c));
    EXPECT_LT(sum / n, 0.01);
    // No pixel of the wide render was left out of the running sum.
    for (int x = 0; x < wide.x1; x += 3) EXPECT_GT(valueAt(*tiled, x, 120, 1), 0.0f) << x;
}

TEST(Retiming, FeatherWeightsAndMotionMargin) {
    // Tiles of 256 with overlap 32 over a width of 1000.
    const ML::TiledExecution::ExecutionPlan plan = ML::TiledExecution::makePlan({0, 0, 1000, 256}, 256, 256, 32);
    std::vector<float> first, second;
    ML::RIFE::makeFeatherWeights(first, 256, 32, ML::TiledExecution::tileAxisX(plan.tiles[0]));
    ML::RIFE::makeFeatherWeights(second, 256, 32, ML::TiledExecution::tileAxisX(plan.tiles[1]));
    EXPECT_EQ(first[192], 1.0f);
    EXPECT_FLOAT_EQ(first[193], 63.0f / 64);
    EXPECT_FLOAT_EQ(first[255], 1.0f / 64);
    for (int i = 0; i < 64; ++i) EXPECT_FLOAT_EQ(second[static_cast<std::size_t>(i)], i / 64.0f) << i;
    EXPECT_EQ(second[64], 1.0f);

    const struct {
        float maxFlow;
        int tile, margin;
    } margins[] = {{0, 512, 32}, {100, 960, 128}, {100, 256, 32}, {100, 150, 0}, {30, 960, 32}, {NAN, 960, 160 & ~31}, {-5, 960, 32}};
    for (const auto& m : margins)
        EXPECT_EQ(ML::RIFE::motionMargin(m.maxFlow, m.tile, m.tile), m.margin) << m.maxFlow << " " << m.tile;
}

TEST(Retiming, RefusedRendersLogTheirReason) {
    const Rect rect{0, 0, 64, 48};
    auto image = [&](ML::u32 type = ML::F32) { return texturedImage(rect, 0, 0, type); };
    ImagePtr chw = QHost::OwnedImage::make(rect, Image::RGB, Image::CHW, ML::F32);
    ImagePtr rgba = QHost::OwnedImage::make(rect, Image::RGBA, Image::HWC, ML::F32);
    const struct {
        const char* what;
        std::vector<std::pair<int, ImagePtr>> frames;
        bool output;
        std::string logged;
        ML::i32 status = ML::STATUS_OTHER;
        float t = 3.5f;
    } cases[] = {
        {"position past the last frame number", {{3, image()}, {4, image()}}, true,
         "Retiming position out of range: 3000000000", ML::STATUS_OTHER, 3e9f},
        {"no output", {{3, image()}, {4, image()}}, false,
         "[Quillon] [W] Attempting to render retiming without providing output image. nothing to do, returning!",
         ML::STATUS_CANCELLED},
        {"second frame missing", {{3, image()}}, true, "No input image returned by host for frame 4"},
        {"frame smaller than the output", {{3, image()}, {4, texturedImage({0, 0, 60, 48}, 0, 0)}}, true,
         "Input rect must fully cover output rect"},
        {"types differ", {{3, image()}, {4, image(ML::F16)}}, true, "Input images should have same data type!"},
        {"formats differ", {{3, image()}, {4, rgba}}, true, "Input images should have same channel format!"},
        {"layouts differ", {{3, image()}, {4, chw}}, true, "Input images should have same memory layout!"},
        {"rectangles differ", {{3, image()}, {4, texturedImage({0, 0, 64, 50}, 0, 0)}}, true,
         "Input image rectangles must match: (0,0->64,48) vs (0,0->64,50)"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(render(retimingSettings(c.t, c.frames, c.output ? filled(rect, Image::RGB) : nullptr)), c.status);
        expectRefusalLogged(c.status, c.logged);
    }
}

}  // namespace
