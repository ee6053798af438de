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

}  // namespace inprocess
