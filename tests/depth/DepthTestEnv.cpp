#include "depth/DepthTestEnv.h"

#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "Plugin/PluginMain.h"

namespace depthtest {

namespace {

// Releases the plug-in's context once every test has run, while the host is still alive.
class PluginEnvironment : public ::testing::Environment {
public:
    void TearDown() override { mlShutdown(); }
};

const auto* const g_environment = ::testing::AddGlobalTestEnvironment(new PluginEnvironment);

}  // namespace

std::filesystem::path packageDir() { return QUILLON_TEST_PACKAGE_DIR; }

QHost::Host& host() {
    static QHost::Host instance;
    return instance;
}

std::shared_ptr<QHost::CallSettings> depthSettings(ML::u32 frame, int mode) {
    auto settings = std::make_shared<QHost::CallSettings>(mode, kDepthTarget);
    settings->setModelIndex(0);
    settings->setDataFolder((packageDir() / "config").string());
    settings->setAuxFolder((packageDir() / "models").string());
    settings->setFrame(frame);
    return settings;
}

float expectedDepth(float r, float g, float b) { return 1.0f - (0.2126f * r + 0.7152f * g + 0.0722f * b); }

std::array<float, 3> expectedRamp(float d) {
    d = std::clamp(d, 0.0f, 1.0f);
    std::array<float, 3> rgb{};
    for (int k = 0; k < 3; ++k) rgb[k] = std::clamp(1.5f - std::fabs(4.0f * d - static_cast<float>(3 - k)), 0.0f, 1.0f);
    return rgb;
}

namespace {

void setValue(QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel, float value) {
    switch (image.getDataType()) {
        case ML::U8:
            image.at<std::uint8_t>(x, y, channel) =
                static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
            break;
        case ML::F16: image.at<Imath::half>(x, y, channel) = Imath::half(value); break;
        default: image.at<float>(x, y, channel) = value; break;
    }
}

}  // namespace

ImagePtr filledImage(const ML::Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, float value) {
    ImagePtr image = QHost::OwnedImage::make(rect, format, layout, type);
    for (ML::i32 y = rect.y0; y < rect.y1; ++y)
        for (ML::i32 x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c) setValue(*image, x, y, c, value);
    return image;
}

void paint(QHost::OwnedImage& image, const ML::Rect& rect, float r, float g, float b) {
    const ML::Rect bounds = image.getRect();
    const float rgb[3] = {r, g, b};
    for (ML::i32 y = std::max(rect.y0, bounds.y0); y < std::min(rect.y1, bounds.y1); ++y)
        for (ML::i32 x = std::max(rect.x0, bounds.x0); x < std::min(rect.x1, bounds.x1); ++x)
            for (ML::u32 c = 0; c < image.channels(); ++c) setValue(image, x, y, c, c < 3 ? rgb[c] : 1.0f);
}

float valueAt(const QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel) {
    switch (image.getDataType()) {
        case ML::U8: return image.at<std::uint8_t>(x, y, channel) / 255.0f;
        case ML::F16: return static_cast<float>(image.at<Imath::half>(x, y, channel));
        default: return image.at<float>(x, y, channel);
    }
}

}  // namespace depthtest
