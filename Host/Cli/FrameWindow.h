#pragma once
// Source frames near the ones being rendered, for effects that read more than their own frame:
// each source frame is read once while it is in reach, and frame numbers past the clip's ends
// give the clip's first or last frame.
#include <functional>
#include <map>

#include "Host/Media/Frame.h"
#include "Host/Media/FrameRange.h"

namespace QCli {

class FrameWindow {
public:
    using Reader = std::function<QMedia::Frame(int frame)>;

    // `clip` is the range of frames the source has.
    FrameWindow(QMedia::FrameRange clip, Reader read);

    const QMedia::Frame& frame(int number);
    // Lets go of the frames before `number`.
    void forgetBefore(int number);

private:
    QMedia::FrameRange clip_;
    Reader read_;
    std::map<int, QMedia::Frame> frames_;  // by source frame
};

}  // namespace QCli
