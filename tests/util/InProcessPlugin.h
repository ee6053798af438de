#pragma once
// The plug-in linked into a test executable and driven by the in-memory host: one host for the
// whole process (its logger is the one the plug-in logs to), and the plug-in's context released
// once every test has run, while that host is still alive. Include it in one source file of a
// test executable.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

namespace inprocess {

// Written into outputs before a render, to see which pixels the plug-in touched.
constexpr float kSentinel = -7.25f;

inline QHost::Host& host() {
    static QHost::Host instance;
    return instance;
}

struct PluginShutdown : ::testing::Environment {
    void TearDown() override { mlShutdown(); }
};
inline const auto* const g_pluginShutdown = ::testing::AddGlobalTestEnvironment(new PluginShutdown);

// One element of a host image as float, whatever its data type (U8 scaled to 0..1), and the
// other way (U8 clamped and rounded).
inline float valueAt(const QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel = 0) {
    switch (image.getDataType()) {
        case ML::U8: return image.at<std::uint8_t>(x, y, channel) / 255.0f;
        case ML::F16: return static_cast<float>(image.at<Imath::half>(x, y, channel));
        default: return image.at<float>(x, y, channel);
    }
}
inline void setValue(QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel, float value) {
    if (image.getDataType() == ML::U8)
        image.at<std::uint8_t>(x, y, channel) = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
    else if (image.getDataType() == ML::F16)
        image.at<Imath::half>(x, y, channel) = Imath::half(value);
    else
        image.at<float>(x, y, channel) = value;
}

// Settings of a render of frame by the given model of a target, with the default package's
// networks and, unless given, its configuration folder.
inline std::shared_ptr<QHost::CallSettings> packageSettings(
    int mode, int target, ML::u32 frame, int model = 0,
    const std::filesystem::path& config = std::filesystem::path(QUILLON_TEST_PACKAGE_DIR) / "config") {
    auto settings = std::make_shared<QHost::CallSettings>(mode, target);
    settings->setDataFolder(config.string());
    settings->setAuxFolder((std::filesystem::path(QUILLON_TEST_PACKAGE_DIR) / "models").string());
    settings->setModelIndex(model);
    settings->setFrame(frame);
    return settings;
}

// An image with every element of every pixel set to value.
inline ML::Ptr<QHost::OwnedImage> filledImage(const ML::Rect& rect, ML::u32 format, ML::u32 type, float value,
                                              ML::u32 layout = ML::Image::HWC) {
    auto image = QHost::OwnedImage::make(rect, format, layout, type);
    for (ML::i32 y = rect.y0; y < rect.y1; ++y)
        for (ML::i32 x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c) setValue(*image, x, y, c, value);
    return image;
}

// One render through mlMain, with the log cleared first so that it holds this render's lines only.
inline ML::i32 render(const std::shared_ptr<QHost::CallSettings>& settings) {
    host().logger().clear();
    return host().run(&mlMain, settings);
}

// What a refused render logged: a cancelled one logs no error and `logged` (its warning, if any)
// on some line; any other exactly one error line, holding `logged`.
inline void expectRefusalLogged(ML::i32 status, const std::string& logged) {
    const auto errors = host().logger().linesWith("[Quillon] [E] ");
    if (status == ML::STATUS_CANCELLED) {
        EXPECT_TRUE(errors.empty()) << errors.front();
        EXPECT_TRUE(logged.empty() || host().logger().contains(logged))
            << ::testing::PrintToString(host().logger().lines());
        return;
    }
    ASSERT_EQ(errors.size(), 1u) << ::testing::PrintToString(host().logger().lines());
    EXPECT_NE(errors[0].find(logged), std::string::npos) << errors[0];
}

}  // namespace inprocess
