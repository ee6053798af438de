#pragma once
// Single-channel masks and the area of each pixel that a shape really covers, measured by dense
// supersampling: the reference for anti-aliased drawing.
#include <Imath/half.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

#include "Host/OwnedImage.h"
#include "Plugin/ImageDrawUtil.h"

namespace masksampling {

constexpr int kSamples = 64;  // per pixel side

inline ML::Ptr<QHost::OwnedImage> maskImage(const ML::Rect& rect, ML::u32 type) {
    return QHost::OwnedImage::make(rect, ML::Image::R, ML::Image::HWC, type);
}

inline float pixel(const QHost::OwnedImage& image, int x, int y, ML::u32 channel = 0) {
    switch (image.getDataType()) {
        case ML::U8:
            return image.at<std::uint8_t>(x, y, channel);
        case ML::F16:
            return static_cast<float>(image.at<Imath::half>(x, y, channel));
        default:
            return image.at<float>(x, y, channel);
    }
}

// Mask value back on the 0..1 scale; U8 holds value * 255 truncated.
inline float coverageAt(const QHost::OwnedImage& image, int x, int y) {
    const float v = pixel(image, x, y);
    return image.getDataType() == ML::U8 ? v / 255.0f : v;
}

inline bool insideOval(const ML::Oval& o, double px, double py) {
    const double c = std::cos(o.angle), s = std::sin(o.angle);
    const double dx = px - o.cx, dy = py - o.cy;
    const double u = dx * c + dy * s, v = -dx * s + dy * c;
    return u * u / (double(o.a) * o.a) + v * v / (double(o.b) * o.b) <= 1.0;
}

// Even-odd rule on the flat x, y list.
inline bool insidePolygon(const std::vector<float>& xy, double px, double py) {
    bool in = false;
    const size_t n = xy.size() / 2;
    for (size_t i = 0, j = n - 1; i < n; j = i++) {
        const double xi = xy[2 * i], yi = xy[2 * i + 1], xj = xy[2 * j], yj = xy[2 * j + 1];
        if ((yi > py) != (yj > py) && px < (xj - xi) * (py - yi) / (yj - yi) + xi) in = !in;
    }
    return in;
}

// Share of pixel [x, x + 1) x [y, y + 1) (absolute coordinates) for which inside() holds.
inline double sampledArea(int x, int y, const std::function<bool(double, double)>& inside) {
    int hits = 0;
    for (int j = 0; j < kSamples; ++j)
        for (int i = 0; i < kSamples; ++i)
            if (inside(x + (i + 0.5) / kSamples, y + (j + 0.5) / kSamples)) ++hits;
    return double(hits) / (kSamples * kSamples);
}

}  // namespace masksampling
