#include "Host/Media/Frame.h"

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "ML/Exception.h"

namespace QMedia {

size_t frameElementBytes(ML::DataType type) {
    switch (type) {
    case ML::U8: return 1;
    case ML::F16: return 2;
    case ML::F32: return 4;
    default: ML_THROW("Frame element type must be U8, F16 or F32, not type " + std::to_string(type));
    }
}

Frame::Frame(int width, int height, int channels, ML::DataType type) {
    if (width <= 0 || height <= 0)
        ML_THROW("Frame size must be positive, not " + std::to_string(width) + "x" + std::to_string(height));
    if (channels < 1 || channels > 4) ML_THROW("Frame channels must be 1 to 4, not " + std::to_string(channels));
    const size_t element = frameElementBytes(type);
    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    if (pixels > std::numeric_limits<size_t>::max() / (element * static_cast<size_t>(channels)))
        ML_THROW("Frame too large: " + std::to_string(width) + "x" + std::to_string(height));
    width_ = width;
    height_ = height;
    channels_ = channels;
    type_ = type;
    pixels_.assign(pixels * element * static_cast<size_t>(channels), 0);
}

size_t Frame::elementBytes() const { return frameElementBytes(type_); }

float Frame::sample(int x, int y, int c) const {
    const size_t i = offset(x, y, c);
    switch (type_) {
    case ML::U8: return static_cast<float>(pixels_[i]) / 255.0f;
    case ML::F16: {
        Imath::half h;
        std::memcpy(&h, pixels_.data() + i * 2, 2);
        return static_cast<float>(h);
    }
    default: {
        float f;
        std::memcpy(&f, pixels_.data() + i * 4, 4);
        return f;
    }
    }
}

void Frame::setSample(int x, int y, int c, float value) {
    const size_t i = offset(x, y, c);
    switch (type_) {
    case ML::U8: {
        const float v = std::isnan(value) ? 0.0f : std::clamp(value, 0.0f, 1.0f);
        pixels_[i] = static_cast<std::uint8_t>(std::lround(v * 255.0f));
        break;
    }
    case ML::F16: {
        const Imath::half h(value);
        std::memcpy(pixels_.data() + i * 2, &h, 2);
        break;
    }
    default: std::memcpy(pixels_.data() + i * 4, &value, 4); break;
    }
}

bool Frame::operator==(const Frame& other) const {
    return width_ == other.width_ && height_ == other.height_ && channels_ == other.channels_ &&
           type_ == other.type_ && pixels_ == other.pixels_;
}

}  // namespace QMedia
