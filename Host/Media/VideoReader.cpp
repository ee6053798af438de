#include "Host/Media/VideoReader.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>

#include "Host/Media/FFmpegUtil.h"
#include "ML/Exception.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace fs = std::filesystem;

namespace QMedia {

struct VideoReader::Impl {
    fs::path path;
    ff::InputPtr input;
    ff::CodecPtr decoder;
    ff::FramePtr frame;
    ff::PacketPtr packet;
    ff::ScalerPtr scaler;
    int stream = -1;
    int width = 0;
    int height = 0;
    int frameCount = 0;
    FrameRate rate{0, 1};
    bool alpha = false;

    int nextIndex = 0;        // number of the frame the decoder hands out next
    bool haveFrame = false;   // `frame` holds frame nextIndex - 1
    bool draining = false;    // the demuxer is at its end; the decoder gives what it still holds
    bool packetPending = false;

    [[noreturn]] void fail(const std::string& what, int code) const {
        ML_THROW("Could not read video " + path.string() + ": " + what + " (" + ff::errorText(code) + ")");
    }

    void open() {
        AVFormatContext* raw = nullptr;
        int r = avformat_open_input(&raw, path.string().c_str(), nullptr, nullptr);
        if (r < 0) fail("not a readable video file", r);
        input.reset(raw);
        r = avformat_find_stream_info(input.get(), nullptr);
        if (r < 0) fail("no stream information", r);

        const AVCodec* codec = nullptr;
        stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
        if (stream == AVERROR_STREAM_NOT_FOUND)
            ML_THROW("Could not read video " + path.string() + ": the file has no video stream");
        if (stream < 0 || !codec) fail("no decoder for its video stream", stream < 0 ? stream : AVERROR_DECODER_NOT_FOUND);
        // Only our stream's packets are wanted; the demuxer can skip the others.
        for (unsigned i = 0; i < input->nb_streams; ++i)
            if (static_cast<int>(i) != stream) input->streams[i]->discard = AVDISCARD_ALL;

        AVStream* st = input->streams[stream];
        decoder.reset(avcodec_alloc_context3(codec));
        if (!decoder) ML_THROW("Out of memory for a video decoder");
        r = avcodec_parameters_to_context(decoder.get(), st->codecpar);
        if (r < 0) fail("bad codec parameters", r);
        decoder->thread_count = 0;  // as many as the decoder likes
        r = avcodec_open2(decoder.get(), codec, nullptr);
        if (r < 0) fail("could not open the decoder", r);

        frame = ff::allocFrame();
        packet = ff::allocPacket();
        nextIndex = 0;
        haveFrame = draining = packetPending = false;
    }

    void describe() {
        AVStream* st = input->streams[stream];
        width = decoder->width;
        height = decoder->height;
        if (width <= 0 || height <= 0) ML_THROW("Could not read video " + path.string() + ": no picture size");
        const AVRational guess = av_guess_frame_rate(input.get(), st, nullptr);
        rate = guess.num > 0 && guess.den > 0 ? FrameRate{guess.num, guess.den} : FrameRate{0, 1};
        const AVPixFmtDescriptor* desc = av_pix_fmt_desc_get(decoder->pix_fmt);
        alpha = desc && (desc->flags & AV_PIX_FMT_FLAG_ALPHA);
        frameCount = st->nb_frames > 0 && st->nb_frames < INT32_MAX ? static_cast<int>(st->nb_frames) : countPackets();
        if (frameCount <= 0) ML_THROW("Could not read video " + path.string() + ": the video has no frames");
    }

    // Walks the whole stream without decoding, then starts over.
    int countPackets() {
        int count = 0;
        int r;
        while ((r = av_read_frame(input.get(), packet.get())) >= 0) {
            if (packet->stream_index == stream) ++count;
            av_packet_unref(packet.get());
        }
        if (r != AVERROR_EOF) fail("could not read packets", r);
        reopen();
        return count;
    }

    void reopen() {
        scaler.reset();
        frame.reset();
        packet.reset();
        decoder.reset();
        input.reset();
        open();
    }

    // Next frame in presentation order into `frame`; false at the end of the stream.
    bool decodeNext() {
        for (;;) {
            int r = avcodec_receive_frame(decoder.get(), frame.get());
            if (r == 0) return true;
            if (r == AVERROR_EOF) return false;
            if (r != AVERROR(EAGAIN)) fail("decoding failed at frame " + std::to_string(nextIndex), r);
            if (draining) return false;

            if (!packetPending) {
                r = av_read_frame(input.get(), packet.get());
                if (r == AVERROR_EOF) {
                    draining = true;
                    r = avcodec_send_packet(decoder.get(), nullptr);
                    if (r < 0 && r != AVERROR_EOF) fail("could not flush the decoder", r);
                    continue;
                }
                if (r < 0) fail("could not read packets", r);
                if (packet->stream_index != stream) {
                    av_packet_unref(packet.get());
                    continue;
                }
            }
            r = avcodec_send_packet(decoder.get(), packet.get());
            packetPending = r == AVERROR(EAGAIN);
            if (packetPending) continue;
            av_packet_unref(packet.get());
            // A damaged packet costs its picture, not the whole video.
            if (r < 0 && r != AVERROR_INVALIDDATA) fail("could not decode a packet", r);
        }
    }

    Frame convert(int channels) {
        const int w = frame->width;
        const int h = frame->height;
        const AVPixelFormat dstFormat = channels == 4 ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24;
        scaler.reset(sws_getCachedContext(scaler.release(), w, h, static_cast<AVPixelFormat>(frame->format), w, h,
                                          dstFormat, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr,
                                          nullptr, nullptr));
        if (!scaler) ML_THROW("Could not read video " + path.string() + ": no conversion from its pixel format");
        // The file's own matrix and range; FFmpeg's default (BT.601, limited) when it names none.
        const int space = frame->colorspace == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : frame->colorspace;
        const int fullRange = frame->color_range == AVCOL_RANGE_JPEG ? 1 : 0;
        sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(space), fullRange,
                                 sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, 1 << 16, 1 << 16);

        // Convert into an aligned, padded buffer, then copy the rows out.
        uint8_t* dst[4] = {};
        int dstStride[4] = {};
        const int r = av_image_alloc(dst, dstStride, w, h, dstFormat, 64);
        if (r < 0) fail("out of memory", r);
        sws_scale(scaler.get(), frame->data, frame->linesize, 0, h, dst, dstStride);
        Frame out(w, h, channels, ML::U8);
        for (int y = 0; y < h; ++y)
            std::memcpy(out.row(y), dst[0] + static_cast<ptrdiff_t>(y) * dstStride[0], out.rowBytes());
        av_freep(&dst[0]);
        return out;
    }
};

VideoReader::VideoReader(const fs::path& path) : impl_(std::make_unique<Impl>()) {
    ff::quietLogging();
    std::error_code ec;
    const auto status = fs::status(path, ec);
    if (!fs::exists(status)) ML_THROW("Video file not found: " + path.string());
    if (!fs::is_regular_file(status)) ML_THROW("Not a video file: " + path.string());
    impl_->path = path;
    impl_->open();
    impl_->describe();
}

VideoReader::~VideoReader() = default;
VideoReader::VideoReader(VideoReader&&) noexcept = default;
VideoReader& VideoReader::operator=(VideoReader&&) noexcept = default;

const fs::path& VideoReader::path() const { return impl_->path; }
int VideoReader::width() const { return impl_->width; }
int VideoReader::height() const { return impl_->height; }
int VideoReader::frameCount() const { return impl_->frameCount; }
FrameRate VideoReader::frameRate() const { return impl_->rate; }
bool VideoReader::hasAlpha() const { return impl_->alpha; }

Frame VideoReader::read(int index, int channels) {
    Impl& v = *impl_;
    if (channels != 3 && channels != 4)
        ML_THROW("Video frames are read with 3 or 4 channels, not " + std::to_string(channels));
    if (index < 0 || index >= v.frameCount)
        ML_THROW("Frame " + std::to_string(index) + " is outside video " + v.path.string() + " (frames 0 to " +
                 std::to_string(v.frameCount - 1) + ")");

    const bool current = v.haveFrame && index == v.nextIndex - 1;
    if (!current) {
        if (index < v.nextIndex) v.reopen();
        while (v.nextIndex <= index) {
            v.haveFrame = false;
            if (!v.decodeNext()) {
                v.frameCount = v.nextIndex;
                ML_THROW("Video " + v.path.string() + " ends after " + std::to_string(v.nextIndex) +
                         " frames; frame " + std::to_string(index) + " is past its end");
            }
            ++v.nextIndex;
            v.haveFrame = true;
        }
    }
    return v.convert(channels);
}

}  // namespace QMedia
