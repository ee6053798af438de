#pragma once
// A frame as planar RGB floats of another size, resampled bilinearly between pixel centres (edges
// clamped): how test inputs of networks with a fixed size are made from pictures.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "Host/Media/Frame.h"

namespace testutil {

inline std::vector<float> planarResized(const QMedia::Frame& f, int64_t height, int64_t width) {
    std::vector<float> v(static_cast<size_t>(3 * height * width));
    for (int64_t y = 0; y < height; ++y)
        for (int64_t x = 0; x < width; ++x) {
            const float sx = std::clamp((x + 0.5f) * f.width() / width - 0.5f, 0.0f, f.width() - 1.0f);
            const float sy = std::clamp((y + 0.5f) * f.height() / height - 0.5f, 0.0f, f.height() - 1.0f);
            const int x0 = int(sx), y0 = int(sy), x1 = std::min(x0 + 1, f.width() - 1), y1 = std::min(y0 + 1, f.height() - 1);
            const float ax = sx - x0, ay = sy - y0;
            for (int c = 0; c < 3; ++c) {
                const int cc = std::min(c, f.channels() - 1);
                const float top = f.sample(x0, y0, cc) * (1 - ax) + f.sample(x1, y0, cc) * ax;
                const float bottom = f.sample(x0, y1, cc) * (1 - ax) + f.sample(x1, y1, cc) * ax;
                v[static_cast<size_t>((c * height + y) * width + x)] = top * (1 - ay) + bottom * ay;
            }
        }
    return v;
}

}  // namespace testutil
