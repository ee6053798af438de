#pragma once
// Small helpers shared by the video reader and writer: owners of FFmpeg objects and error text.
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace QMedia::ff {

// FFmpeg's text for an error code.
std::string errorText(int code);

// Silences FFmpeg's own console output, once per process, unless setLogVerbosity chose a level.
void quietLogging();

struct InputCloser {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
// Closes the output file (when the format has one) and frees the muxer.
struct OutputCloser {
    void operator()(AVFormatContext* c) const {
        if (c->pb && !(c->oformat->flags & AVFMT_NOFILE)) avio_closep(&c->pb);
        avformat_free_context(c);
    }
};
struct CodecFreer {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFreer {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFreer {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct ScalerFreer {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};

using InputPtr = std::unique_ptr<AVFormatContext, InputCloser>;
using OutputPtr = std::unique_ptr<AVFormatContext, OutputCloser>;
using CodecPtr = std::unique_ptr<AVCodecContext, CodecFreer>;
using FramePtr = std::unique_ptr<AVFrame, FrameFreer>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFreer>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerFreer>;

// Allocations that throw instead of returning null.
FramePtr allocFrame();
PacketPtr allocPacket();

}  // namespace QMedia::ff
