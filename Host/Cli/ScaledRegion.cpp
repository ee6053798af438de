#include "Host/Cli/ScaledRegion.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "Host/Cli/CliError.h"

namespace QCli {

namespace {

// One axis. Arithmetic in 32-bit floats, as the plug-in does it, so that the input handed over
// is exactly the input that the plug-in asks for.
struct Axis {
    float scale, origin;
    ML::i32 toOutput(ML::i32 i, bool up) const {
        const float p = (static_cast<float>(i) - origin) * scale + origin;
        return static_cast<ML::i32>(up ? std::ceil(p) : std::floor(p));
    }
    ML::i32 toInput(ML::i32 o, bool up) const {
        const float p = (static_cast<float>(o) - origin) / scale + origin;
        return static_cast<ML::i32>(up ? std::ceil(p) : std::floor(p));
    }
};

// Output range [first, last) for an input of `size` pixels and an output frame of `frameSize`.
std::pair<ML::i32, ML::i32> outputRange(const Axis& a, ML::i32 size, ML::i32 frameSize) {
    const ML::i32 i0 = std::clamp(a.toInput(0, false), 0, size);
    const ML::i32 i1 = std::clamp(a.toInput(frameSize, true), 0, size);
    return {a.toOutput(i0, true), a.toOutput(i1, false)};
}

}  // namespace

ScaledRegion scaledRegion(int inputWidth, int inputHeight, float scale, int originX, int originY,
                          const std::optional<ML::Rect>& roi) {
    const Axis x{scale, static_cast<float>(originX)}, y{scale, static_cast<float>(originY)};
    const auto frameW = static_cast<ML::i32>(std::floor(static_cast<float>(inputWidth) * scale));
    const auto frameH = static_cast<ML::i32>(std::floor(static_cast<float>(inputHeight) * scale));

    ScaledRegion region;
    if (roi) {
        region.output = *roi;
    } else {
        const auto [x0, x1] = outputRange(x, inputWidth, frameW);
        const auto [y0, y1] = outputRange(y, inputHeight, frameH);
        region.output = {x0, y0, x1, y1};
    }
    const ML::Rect& o = region.output;
    if (std::max(o.x0, 0) >= std::min(o.x1, frameW) || std::max(o.y0, 0) >= std::min(o.y1, frameH))
    {
        std::ostringstream why;
        why << "scaled by " << scale << " about " << originX << "," << originY
            << ", no output pixel falls inside the " << frameW << "x" << frameH << " frame";
        throw UsageError(why.str());
    }

    region.input = {std::clamp(x.toInput(o.x0, true), 0, inputWidth), std::clamp(y.toInput(o.y0, true), 0, inputHeight),
                    std::clamp(x.toInput(o.x1, false), 0, inputWidth),
                    std::clamp(y.toInput(o.y1, false), 0, inputHeight)};
    region.input.x1 = std::max(region.input.x0, region.input.x1);
    region.input.y1 = std::max(region.input.y0, region.input.y1);
    return region;
}

}  // namespace QCli
