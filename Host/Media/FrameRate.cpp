#include "Host/Media/FrameRate.h"

#include <cmath>
#include <cstdlib>
#include <numeric>

#include "ML/Exception.h"

namespace QMedia {

FrameRate FrameRate::fromDouble(double fps) {
    if (!(fps > 0.0) || fps > 1000.0) ML_THROW("Frame rate must be above 0 and at most 1000, not " + std::to_string(fps));
    // The NTSC family: n * 1000 / 1001.
    const double ntsc = fps * 1.001;
    if (std::fabs(ntsc - std::round(ntsc)) < 0.005 && std::fabs(fps - std::round(fps)) > 0.005)
        return {static_cast<int>(std::lround(ntsc)) * 1000, 1001};
    // Otherwise the nearest fraction with a small denominator.
    for (int den = 1; den <= 1000; ++den) {
        const double num = fps * den;
        if (std::fabs(num - std::round(num)) < 1e-6 * den) {
            const int n = static_cast<int>(std::lround(num));
            const int g = std::gcd(n, den);
            return {n / g, den / g};
        }
    }
    return {static_cast<int>(std::lround(fps * 1000.0)), 1000};
}

FrameRate FrameRate::parse(const std::string& text) {
    const auto slash = text.find('/');
    char* end = nullptr;
    if (slash != std::string::npos) {
        const std::string a = text.substr(0, slash);
        const std::string b = text.substr(slash + 1);
        const long num = std::strtol(a.c_str(), &end, 10);
        const bool numOk = !a.empty() && *end == '\0';
        const long den = std::strtol(b.c_str(), &end, 10);
        const bool denOk = !b.empty() && *end == '\0';
        if (numOk && denOk && num > 0 && den > 0 && num <= 1000000 && den <= 1000000 &&
            static_cast<double>(num) / den <= 1000.0) {
            const long g = std::gcd(num, den);
            return {static_cast<int>(num / g), static_cast<int>(den / g)};
        }
    } else {
        const double fps = std::strtod(text.c_str(), &end);
        if (!text.empty() && *end == '\0' && fps > 0.0) return fromDouble(fps);
    }
    ML_THROW("Bad frame rate \"" + text + "\" (use a number like 24 or 29.97, or a fraction like 30000/1001)");
}

}  // namespace QMedia
