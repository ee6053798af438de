#pragma once
// Shared pieces of the depth tests: one host for the whole executable (the plug-in keeps the
// first logger and folders it sees for the life of the process), call settings for a depth
// render, images filled and read as floats, and the expected values of the package's stand-in
// networks.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

namespace depthtest {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;

constexpr int kDepthTarget = 9;
// fp16 tensors plus U8 input quantisation.
constexpr float kTolerance = 4e-3f;
// Written into outputs before a render, to see which pixels the plug-in touched.
constexpr float kSentinel = -7.25f;

inline std::filesystem::path packageDir() { return QUILLON_TEST_PACKAGE_DIR; }

// The process-wide host; its logger is the one the plug-in logs to.
inline QHost::Host& host() {
    static QHost::Host instance;
    return instance;
}

// Releases the plug-in's context once every test has run, while the host is still alive.
struct PluginShutdown : ::testing::Environment {
    void TearDown() override { mlShutdown(); }
};
inline const auto* const g_pluginShutdown = ::testing::AddGlobalTestEnvironment(new PluginShutdown);

// Settings for a depth render of frame in the given mode, with the package's folders.
inline std::shared_ptr<QHost::CallSettings> depthSettings(ML::u32 frame, int mode = 4) {
    auto settings = std::make_shared<QHost::CallSettings>(mode, kDepthTarget);
    settings->setModelIndex(0);
    settings->setDataFolder((packageDir() / "config").string());
    settings->setAuxFolder((packageDir() / "models").string());
    settings->setFrame(frame);
    return settings;
}

// 1 - Rec. 709 luminance of an RGB colour in 0..1.
inline float expectedDepth(float r, float g, float b) { return 1.0f - (0.2126f * r + 0.7152f * g + 0.0722f * b); }

// The colour ramp of the colorize network for depth d.
inline std::array<float, 3> expectedRamp(float d) {
    d = std::clamp(d, 0.0f, 1.0f);
    std::array<float, 3> rgb{};
    for (int k = 0; k < 3; ++k) rgb[k] = std::clamp(1.5f - std::fabs(4.0f * d - static_cast<float>(3 - k)), 0.0f, 1.0f);
    return rgb;
}

// One element as float, whatever the data type (U8 scaled to 0..1), and the other way.
inline float valueAt(const QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel = 0) {
    switch (image.getDataType()) {
        case ML::U8: return image.at<std::uint8_t>(x, y, channel) / 255.0f;
        case ML::F16: return static_cast<float>(image.at<Imath::half>(x, y, channel));
        default: return image.at<float>(x, y, channel);
    }
}
inline void setValue(QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel, float value) {
    switch (image.getDataType()) {
        case ML::U8:
            image.at<std::uint8_t>(x, y, channel) =
                static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
            break;
        case ML::F16: image.at<Imath::half>(x, y, channel) = Imath::half(value); break;
        default: image.at<float>(x, y, channel) = value; break;
    }
}

// Sets the pixels of rect (clipped to the image) to an RGB colour; a fourth channel gets 1.
inline void paint(QHost::OwnedImage& image, const Rect& rect, float r, float g, float b) {
    const Rect bounds = image.getRect();
    const float rgb[3] = {r, g, b};
    for (ML::i32 y = std::max(rect.y0, bounds.y0); y < std::min(rect.y1, bounds.y1); ++y)
        for (ML::i32 x = std::max(rect.x0, bounds.x0); x < std::min(rect.x1, bounds.x1); ++x)
            for (ML::u32 c = 0; c < image.channels(); ++c) setValue(image, x, y, c, c < 3 ? rgb[c] : 1.0f);
}

// Image with every element of every pixel set to value.
inline ImagePtr filledImage(const Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, float value) {
    ImagePtr image = QHost::OwnedImage::make(rect, format, layout, type);
    for (ML::i32 y = rect.y0; y < rect.y1; ++y)
        for (ML::i32 x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c) setValue(*image, x, y, c, value);
    return image;
}

// Every element inside roi holds want[channel] (within tolerance); every element outside it
// still holds `outside`.
inline void expectWrittenOnlyInRoi(const QHost::OwnedImage& image, const Rect& roi, const std::vector<float>& want,
                                   const std::string& what, float outside = kSentinel) {
    const Rect r = image.getRect();
    int wrong = 0;
    for (ML::i32 y = r.y0; y < r.y1; ++y)
        for (ML::i32 x = r.x0; x < r.x1; ++x) {
            const bool inside = x >= roi.x0 && x < roi.x1 && y >= roi.y0 && y < roi.y1;
            for (ML::u32 c = 0; c < image.channels(); ++c) {
                const float v = valueAt(image, x, y, c), expected = inside ? want[c] : outside;
                if (std::fabs(v - expected) > (inside ? kTolerance : 0.5f / 255.0f) && ++wrong <= 3)
                    ADD_FAILURE() << what << " at " << x << "," << y << " channel " << c << ": " << v << " instead of "
                                  << expected << (inside ? "" : " (outside the region)");
            }
        }
    EXPECT_EQ(wrong, 0) << what;
}

}  // namespace depthtest
