#pragma once
// Frames per second as an exact fraction, as video files store it.
#include <string>

namespace QMedia {

struct FrameRate {
    int num = 24;
    int den = 1;

    double value() const { return den > 0 ? static_cast<double>(num) / den : 0.0; }
    bool valid() const { return num > 0 && den > 0; }
    bool operator==(const FrameRate& o) const {
        return static_cast<long long>(num) * o.den == static_cast<long long>(o.num) * den;
    }

    // 24 -> 24/1, 25 -> 25/1, 29.97 -> 30000/1001, 23.976 -> 24000/1001, 12.5 -> 25/2.
    // Throws for a rate that is not positive or above 1000.
    static FrameRate fromDouble(double fps);
    // "24", "29.97", "30000/1001"; throws on anything else.
    static FrameRate parse(const std::string& text);
};

}  // namespace QMedia
