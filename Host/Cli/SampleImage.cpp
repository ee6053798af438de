#include "Host/Cli/SampleImage.h"

#include <algorithm>
#include <cmath>

namespace QCli {

namespace {

float smoothstep(float edge0, float edge1, float x) {
    const float t = std::clamp((x - edge0) / (edge1 - edge0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

void blend(float* rgb, const float* colour, float amount) {
    for (int c = 0; c < 3; ++c) rgb[c] += (colour[c] - rgb[c]) * amount;
}

}  // namespace

QMedia::Frame makeSampleImage(int width, int height) {
    QMedia::Frame frame(width, height, 3, ML::U8);
    const float horizon = 0.55f;
    const float sun[3] = {1.0f, 0.92f, 0.6f};
    const float ball[3] = {0.85f, 0.2f, 0.15f};
    const float box[3] = {0.15f, 0.35f, 0.8f};
    for (int y = 0; y < height; ++y) {
        const float v = (y + 0.5f) / height;
        for (int x = 0; x < width; ++x) {
            const float u = (x + 0.5f) / width;
            const float aspect = static_cast<float>(width) / height;
            float rgb[3];
            if (v < horizon) {  // sky: light near the horizon
                const float t = v / horizon;
                rgb[0] = 0.35f + 0.5f * t;
                rgb[1] = 0.55f + 0.35f * t;
                rgb[2] = 0.95f - 0.1f * t;
            } else {  // ground: darker towards the viewer
                const float t = (v - horizon) / (1.0f - horizon);
                rgb[0] = 0.45f - 0.3f * t;
                rgb[1] = 0.6f - 0.35f * t;
                rgb[2] = 0.3f - 0.2f * t;
            }
            // A sun, a ball on the ground and a box, with soft edges.
            const float ds = std::hypot((u - 0.8f) * aspect, v - 0.2f);
            blend(rgb, sun, 1.0f - smoothstep(0.06f, 0.075f, ds));
            const float db = std::hypot((u - 0.3f) * aspect, v - 0.7f);
            const float shade = 1.0f - 0.5f * smoothstep(0.0f, 0.18f, std::hypot((u - 0.27f) * aspect, v - 0.66f));
            const float shaded[3] = {ball[0] * shade, ball[1] * shade, ball[2] * shade};
            blend(rgb, shaded, 1.0f - smoothstep(0.16f, 0.17f, db));
            const float inBox = (1.0f - smoothstep(0.0f, 0.005f, std::fabs(u - 0.62f) - 0.08f)) *
                                (1.0f - smoothstep(0.0f, 0.005f, std::fabs(v - 0.62f) - 0.12f));
            blend(rgb, box, inBox);
            for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, rgb[c]);
        }
    }
    return frame;
}

}  // namespace QCli
