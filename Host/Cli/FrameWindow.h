#pragma once
// The frames around the ones being rendered, for effects that read neighbouring frames: each
// source frame is read once while it is in reach, and frame numbers past the clip's ends give the
// clip's first or last frame.
#include <functional>
#include <map>

#include "Host/Cli/FrameRenderer.h"
#include "Host/Media/FrameRange.h"

namespace QCli {

class FrameWindow {
public:
    using Reader = std::function<QMedia::Frame(int frame)>;

    // `clip` is the range of frames the source has; `radius` the frames read on each side.
    FrameWindow(QMedia::FrameRange clip, int radius, Reader read);

    const QMedia::Frame& frame(int number);
    // Frames number - radius .. number + radius but number itself, by the numbers asked for.
    NeighbourFrames neighboursOf(int number);
    // Lets go of frames that no frame from `number` on needs.
    void forgetBefore(int number);

private:
    QMedia::FrameRange clip_;
    int radius_;
    Reader read_;
    std::map<int, QMedia::Frame> frames_;  // by source frame
};

}  // namespace QCli
