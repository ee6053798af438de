#include "Host/Media/FrameConvert.h"

#include <string>

#include "ML/Exception.h"

namespace QMedia {
namespace {

bool hasAlpha(int channels) { return channels == 2 || channels == 4; }

// Colour of one pixel as R, G, B, A.
void readPixel(const Frame& f, int x, int y, float rgba[4]) {
    switch (f.channels()) {
    case 1:
    case 2: rgba[0] = rgba[1] = rgba[2] = f.sample(x, y, 0); break;
    default:
        for (int c = 0; c < 3; ++c) rgba[c] = f.sample(x, y, c);
        break;
    }
    rgba[3] = hasAlpha(f.channels()) ? f.sample(x, y, f.channels() - 1) : 1.0f;
}

void writePixel(Frame& f, int x, int y, const float rgba[4], bool grayFromColour) {
    switch (f.channels()) {
    case 1:
    case 2: {
        const float gray = grayFromColour ? 0.2126f * rgba[0] + 0.7152f * rgba[1] + 0.0722f * rgba[2] : rgba[0];
        f.setSample(x, y, 0, gray);
        break;
    }
    default:
        for (int c = 0; c < 3; ++c) f.setSample(x, y, c, rgba[c]);
        break;
    }
    if (hasAlpha(f.channels())) f.setSample(x, y, f.channels() - 1, rgba[3]);
}

}  // namespace

Frame convertType(const Frame& frame, ML::DataType type) {
    frameElementBytes(type);  // rejects types a frame cannot hold
    if (frame.empty()) return Frame();
    if (frame.type() == type) return frame;
    Frame out(frame.width(), frame.height(), frame.channels(), type);
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x)
            for (int c = 0; c < frame.channels(); ++c) out.setSample(x, y, c, frame.sample(x, y, c));
    return out;
}

Frame convertChannels(const Frame& frame, int channels) {
    if (channels < 1 || channels > 4) ML_THROW("Frame channels must be 1 to 4, not " + std::to_string(channels));
    if (frame.empty()) return Frame();
    if (frame.channels() == channels) return frame;
    Frame out(frame.width(), frame.height(), channels, frame.type());
    const bool grayFromColour = frame.channels() >= 3;
    float rgba[4];
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x) {
            readPixel(frame, x, y, rgba);
            writePixel(out, x, y, rgba, grayFromColour);
        }
    return out;
}

}  // namespace QMedia
