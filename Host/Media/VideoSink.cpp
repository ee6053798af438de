#include "Host/Media/VideoSink.h"

#include <string>

#include "ML/Exception.h"

namespace QMedia {

void VideoSink::write(int frame, const Frame& pixels) {
    if (writer_.framesWritten() > 0 && frame != nextFrame_)
        ML_THROW("Video output " + writer_.path().string() + " takes frames in order: expected frame " +
                 std::to_string(nextFrame_) + ", got " + std::to_string(frame));
    writer_.write(pixels);
    nextFrame_ = frame + 1;
}

}  // namespace QMedia
