#pragma once
// Which source position each output frame shows. Effects render output frame n from source frame
// n; retiming renders a new clip whose frames fall between source frames: slower or faster by a
// speed factor, or at another frame rate.
#include <optional>
#include <vector>

#include "Host/Media/FrameRange.h"
#include "Host/Media/FrameRate.h"

namespace QCli {

struct Timing {
    QMedia::FrameRange outputs;     // output frame numbers
    std::vector<double> positions;  // source position of each output frame, in source frames
    std::optional<QMedia::FrameRate> rate;  // of the output video, when not the source's
};

// One output frame per source frame of `frames` unless speed or fps is given: then the output
// starts at frames.first and steps through the source by `speed` source frames, or by the source
// rate over `fps`, up to frames.last. Throws UsageError for a step that is not positive or an
// fps with no source rate to compare it to.
Timing timingFor(const QMedia::FrameRange& frames, std::optional<double> speed, std::optional<double> fps,
                 const QMedia::FrameRate& sourceRate);

}  // namespace QCli
