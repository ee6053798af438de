#include "Host/Media/FFmpegUtil.h"

#include <atomic>
#include <mutex>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include "Host/Media/MediaLog.h"
#include "ML/Exception.h"

namespace QMedia {

namespace {
// Set once the host has chosen a level; quietLogging leaves it alone then.
std::atomic<bool> levelChosen{false};
}  // namespace

void setLogVerbosity(int verbosity) {
    levelChosen = true;
    av_log_set_level(verbosity >= 2 ? AV_LOG_WARNING : verbosity == 1 ? AV_LOG_ERROR : AV_LOG_QUIET);
}

namespace ff {

std::string errorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    if (av_strerror(code, text, sizeof(text)) < 0) return "error " + std::to_string(code);
    return text;
}

void quietLogging() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (!levelChosen) av_log_set_level(AV_LOG_QUIET);
    });
}

FramePtr allocFrame() {
    FramePtr f(av_frame_alloc());
    if (!f) ML_THROW("Out of memory for a video frame");
    return f;
}

PacketPtr allocPacket() {
    PacketPtr p(av_packet_alloc());
    if (!p) ML_THROW("Out of memory for a video packet");
    return p;
}

}  // namespace ff
}  // namespace QMedia
