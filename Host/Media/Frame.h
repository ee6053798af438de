#pragma once
// One picture in memory: owned, packed, interleaved (HWC) pixels of 1 to 4 channels,
// with elements of U8, F16 or F32.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ML/Types.h"

namespace QMedia {

class Frame {
public:
    // An empty frame: no pixels, width and height 0.
    Frame() = default;
    // Zero-filled pixels. Throws for a non-positive size, channels outside 1..4 or a type
    // other than U8, F16 and F32.
    Frame(int width, int height, int channels, ML::DataType type);

    int width() const { return width_; }
    int height() const { return height_; }
    int channels() const { return channels_; }
    ML::DataType type() const { return type_; }
    bool empty() const { return pixels_.empty(); }

    size_t elementBytes() const;
    size_t pixelBytes() const { return elementBytes() * static_cast<size_t>(channels_); }
    size_t rowBytes() const { return pixelBytes() * static_cast<size_t>(width_); }
    size_t byteSize() const { return pixels_.size(); }

    std::uint8_t* data() { return pixels_.data(); }
    const std::uint8_t* data() const { return pixels_.data(); }
    std::uint8_t* row(int y) { return data() + rowBytes() * static_cast<size_t>(y); }
    const std::uint8_t* row(int y) const { return data() + rowBytes() * static_cast<size_t>(y); }

    // One element as a float: U8 scaled to 0..1, F16 and F32 as stored. No bounds checks.
    float sample(int x, int y, int c) const;
    // Stores a float: U8 clamps to 0..1 and rounds to the nearest of 256 steps.
    void setSample(int x, int y, int c, float value);

    // Same size, channels, type and bytes.
    bool operator==(const Frame& other) const;
    bool operator!=(const Frame& other) const { return !(*this == other); }

private:
    size_t offset(int x, int y, int c) const {
        return (static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x)) *
                   static_cast<size_t>(channels_) +
               static_cast<size_t>(c);
    }

    int width_ = 0;
    int height_ = 0;
    int channels_ = 0;
    ML::DataType type_ = ML::U8;
    std::vector<std::uint8_t> pixels_;
};

// Bytes of one element of a frame type; throws for types a frame cannot hold.
size_t frameElementBytes(ML::DataType type);

}  // namespace QMedia
