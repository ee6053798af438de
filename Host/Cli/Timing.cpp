#include "Host/Cli/Timing.h"

#include <cmath>

#include "Host/Cli/CliError.h"

namespace QCli {

Timing timingFor(const QMedia::FrameRange& frames, std::optional<double> speed, std::optional<double> fps,
                 const QMedia::FrameRate& sourceRate) {
    Timing timing;
    if (!speed && !fps) {
        timing.outputs = frames;
        for (int f = frames.first; f <= frames.last; ++f) timing.positions.push_back(f);
        return timing;
    }
    if (speed && fps) throw UsageError("--speed and --fps cannot be used together");
    double step = 1.0;
    if (speed) {
        if (!(*speed > 0.0) || *speed > 1000.0) throw UsageError("speed must be above 0 and at most 1000");
        step = *speed;
    } else {
        if (!sourceRate.valid())
            throw UsageError("--fps needs an input with a frame rate (a video); use --speed for images and sequences");
        try {
            timing.rate = QMedia::FrameRate::fromDouble(*fps);
        } catch (const std::exception& e) {
            throw UsageError(std::string("bad frame rate: ") + e.what());
        }
        step = sourceRate.value() / timing.rate->value();
    }
    // The last output frame may fall on the last source frame but not past it.
    const double span = frames.last - frames.first;
    const long count = static_cast<long>(std::floor(span / step + 1e-9)) + 1;
    if (count > 10'000'000) throw UsageError("that would make more than ten million frames");
    timing.outputs = {frames.first, frames.first + static_cast<int>(count) - 1};
    for (long n = 0; n < count; ++n) timing.positions.push_back(frames.first + static_cast<double>(n) * step);
    return timing;
}

}  // namespace QCli
