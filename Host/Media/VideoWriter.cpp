#include "Host/Media/VideoWriter.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <vector>

#include "Host/Media/FFmpegUtil.h"
#include "Host/Media/FrameConvert.h"
#include "Host/Media/PendingFile.h"
#include "ML/Exception.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libavutil/pixdesc.h>
}

namespace fs = std::filesystem;

namespace QMedia {
namespace {

std::string lowerExtension(const fs::path& path) {
    std::string ext = path.extension().string();
    if (!ext.empty()) ext.erase(0, 1);
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

// Encoders to try, best first.
std::vector<const char*> encoderCandidates(VideoCodec codec, const std::string& ext) {
    switch (codec) {
    case VideoCodec::H264: return {"libx264", "libopenh264"};
    case VideoCodec::MPEG4: return {"mpeg4"};
    case VideoCodec::FFV1: return {"ffv1"};
    case VideoCodec::VP9: return {"libvpx-vp9"};
    case VideoCodec::Auto: break;
    }
    if (ext == "mp4" || ext == "mov" || ext == "m4v") return {"libx264", "libopenh264", "mpeg4"};
    if (ext == "mkv") return {"ffv1"};
    if (ext == "avi") return {"mpeg4"};
    if (ext == "webm") return {"libvpx-vp9", "libvpx"};
    return {};
}

bool supports(const AVCodec* codec, AVPixelFormat format) {
    if (!codec->pix_fmts) return true;
    for (const AVPixelFormat* p = codec->pix_fmts; *p != AV_PIX_FMT_NONE; ++p)
        if (*p == format) return true;
    return false;
}

bool fits(AVPixelFormat format, int width, int height) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    const int xs = 1 << d->log2_chroma_w;
    const int ys = 1 << d->log2_chroma_h;
    return width % xs == 0 && height % ys == 0;
}

bool hasAlphaChannel(AVPixelFormat format) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    return d && (d->flags & AV_PIX_FMT_FLAG_ALPHA);
}

bool isRgb(AVPixelFormat format) {
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(format);
    return d && (d->flags & AV_PIX_FMT_FLAG_RGB);
}

}  // namespace

struct VideoWriter::Impl {
    // Declared first so that it goes last: the muxer closes the file before it is removed.
    PendingFile file;
    VideoWriteOptions options;
    ff::OutputPtr output;
    const AVCodec* codec = nullptr;
    ff::CodecPtr encoder;
    AVStream* stream = nullptr;
    ff::FramePtr picture;
    ff::PacketPtr packet;
    ff::ScalerPtr scaler;
    uint8_t* source[4] = {};
    int sourceStride[4] = {};
    int sourceChannels = 3;
    int width = 0;
    int height = 0;
    int written = 0;
    bool failed = false;
    bool finished = false;
    std::string encoderName;

    explicit Impl(const fs::path& path, const VideoWriteOptions& o) : file(path), options(o) {}
    ~Impl() { av_freep(&source[0]); }

    [[noreturn]] void fail(const std::string& what, int code) const {
        ML_THROW("Could not write video " + file.target().string() + ": " + what + " (" + ff::errorText(code) + ")");
    }
    [[noreturn]] void fail(const std::string& what) const {
        ML_THROW("Could not write video " + file.target().string() + ": " + what);
    }

    void create() {
        const fs::path& target = file.target();
        const std::string ext = lowerExtension(target);
        const std::vector<const char*> candidates = encoderCandidates(options.codec, ext);
        if (candidates.empty())
            fail("unknown video extension \"" + ext + "\" (use mp4, mov, mkv, avi or webm)");
        if (!options.frameRate.valid())
            fail("bad frame rate " + std::to_string(options.frameRate.num) + "/" + std::to_string(options.frameRate.den));

        AVFormatContext* raw = nullptr;
        int r = avformat_alloc_output_context2(&raw, nullptr, nullptr, target.string().c_str());
        if (r < 0 || !raw) fail("no container format for this extension", r < 0 ? r : AVERROR_MUXER_NOT_FOUND);
        output.reset(raw);

        for (const char* name : candidates)
            if ((codec = avcodec_find_encoder_by_name(name))) break;
        if (!codec) fail(std::string("no ") + videoCodecName(options.codec) + " encoder is available");
        encoderName = codec->name;
        if (avformat_query_codec(output->oformat, codec->id, FF_COMPLIANCE_NORMAL) == 0)
            fail(std::string("a .") + ext + " file cannot hold " + encoderName + " video");

        if (!(output->oformat->flags & AVFMT_NOFILE)) {
            r = avio_open(&output->pb, file.tempPath().string().c_str(), AVIO_FLAG_WRITE);
            if (r < 0) fail("cannot create the file", r);
        }
    }

    AVPixelFormat choosePixelFormat(bool alpha) const {
        std::vector<AVPixelFormat> wanted;
        if (codec->id == AV_CODEC_ID_FFV1) {
            // Lossless RGB: nothing is lost to a colour matrix.
            if (alpha) wanted = {AV_PIX_FMT_RGB32, AV_PIX_FMT_GBRAP};
            wanted.insert(wanted.end(), {AV_PIX_FMT_0RGB32, AV_PIX_FMT_GBRP});
        } else {
            if (alpha) wanted.push_back(AV_PIX_FMT_YUVA420P);
            wanted.insert(wanted.end(), {AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUV444P});
        }
        for (AVPixelFormat f : wanted)
            if (supports(codec, f) && fits(f, width, height)) return f;
        fail("the " + encoderName + " encoder cannot store a " + std::to_string(width) + "x" + std::to_string(height) +
             " picture (it needs even width and height)");
    }

    void start(const Frame& first) {
        width = first.width();
        height = first.height();
        const AVPixelFormat format = choosePixelFormat(first.channels() == 2 || first.channels() == 4);
        sourceChannels = hasAlphaChannel(format) ? 4 : 3;

        encoder.reset(avcodec_alloc_context3(codec));
        if (!encoder) fail("out of memory");
        encoder->width = width;
        encoder->height = height;
        encoder->pix_fmt = format;
        encoder->time_base = AVRational{options.frameRate.den, options.frameRate.num};
        encoder->framerate = AVRational{options.frameRate.num, options.frameRate.den};
        encoder->sample_aspect_ratio = AVRational{1, 1};
        if (!isRgb(format)) {
            encoder->colorspace = AVCOL_SPC_BT709;
            encoder->color_primaries = AVCOL_PRI_BT709;
            encoder->color_trc = AVCOL_TRC_BT709;
            encoder->color_range = AVCOL_RANGE_MPEG;
        }
        if (output->oformat->flags & AVFMT_GLOBALHEADER) encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;

        AVDictionary* settings = nullptr;
        const std::string name = encoderName;
        if (name == "libx264") {
            av_dict_set(&settings, "preset", "medium", 0);
            av_dict_set(&settings, "crf", std::to_string(options.crf >= 0 ? options.crf : 18).c_str(), 0);
        } else if (name == "libvpx-vp9" || name == "libvpx") {
            encoder->bit_rate = 0;
            av_dict_set(&settings, "crf", std::to_string(options.crf >= 0 ? options.crf : 30).c_str(), 0);
            av_dict_set(&settings, "deadline", "good", 0);
            av_dict_set(&settings, "cpu-used", "4", 0);
        } else if (codec->id == AV_CODEC_ID_MPEG4) {
            encoder->flags |= AV_CODEC_FLAG_QSCALE;
            encoder->global_quality = 3 * FF_QP2LAMBDA;
        }
        int r = avcodec_open2(encoder.get(), codec, &settings);
        av_dict_free(&settings);
        if (r < 0) fail("could not open the " + encoderName + " encoder", r);

        stream = avformat_new_stream(output.get(), nullptr);
        if (!stream) fail("out of memory");
        stream->time_base = encoder->time_base;
        stream->avg_frame_rate = encoder->framerate;
        r = avcodec_parameters_from_context(stream->codecpar, encoder.get());
        if (r < 0) fail("bad codec parameters", r);
        r = avformat_write_header(output.get(), nullptr);
        if (r < 0) fail("could not write the header", r);

        picture = ff::allocFrame();
        picture->format = format;
        picture->width = width;
        picture->height = height;
        r = av_frame_get_buffer(picture.get(), 0);
        if (r < 0) fail("out of memory", r);
        packet = ff::allocPacket();

        const AVPixelFormat sourceFormat = sourceChannels == 4 ? AV_PIX_FMT_RGBA : AV_PIX_FMT_RGB24;
        r = av_image_alloc(source, sourceStride, width, height, sourceFormat, 64);
        if (r < 0) fail("out of memory", r);
        scaler.reset(sws_getContext(width, height, sourceFormat, width, height, format,
                                    SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr, nullptr, nullptr));
        if (!scaler) fail("no conversion to the encoder's pixel format");
        if (!isRgb(format))
            sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(SWS_CS_DEFAULT), 1,
                                     sws_getCoefficients(SWS_CS_ITU709), 0, 0, 1 << 16, 1 << 16);
    }

    // Sends one picture (or null to flush) and writes whatever packets come out.
    void encode(AVFrame* f) {
        int r = avcodec_send_frame(encoder.get(), f);
        if (r < 0) fail("encoding failed", r);
        for (;;) {
            r = avcodec_receive_packet(encoder.get(), packet.get());
            if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return;
            if (r < 0) fail("encoding failed", r);
            av_packet_rescale_ts(packet.get(), encoder->time_base, stream->time_base);
            packet->stream_index = stream->index;
            r = av_interleaved_write_frame(output.get(), packet.get());
            if (r < 0) fail("could not write to the file", r);
        }
    }

    void append(const Frame& frame) {
        if (written == 0) start(frame);
        if (frame.width() != width || frame.height() != height)
            fail("frames must all be " + std::to_string(width) + "x" + std::to_string(height) + ", frame " +
                 std::to_string(written) + " is " + std::to_string(frame.width()) + "x" +
                 std::to_string(frame.height()));
        const Frame rgb = convertChannels(convertType(frame, ML::U8), sourceChannels);
        for (int y = 0; y < height; ++y)
            std::memcpy(source[0] + static_cast<ptrdiff_t>(y) * sourceStride[0], rgb.row(y), rgb.rowBytes());

        int r = av_frame_make_writable(picture.get());
        if (r < 0) fail("out of memory", r);
        sws_scale(scaler.get(), source, sourceStride, 0, height, picture->data, picture->linesize);
        picture->pts = written;
        if (encoder->flags & AV_CODEC_FLAG_QSCALE) picture->quality = encoder->global_quality;
        encode(picture.get());
        ++written;
    }

    void complete() {
        if (written == 0) fail("no frames were written");
        encode(nullptr);
        const int r = av_write_trailer(output.get());
        if (r < 0) fail("could not complete the file", r);
        output.reset();  // closes the file
        file.commit();
    }

    // Frees the encoder and muxer and removes the temporary file.
    void abandon() {
        failed = true;
        scaler.reset();
        picture.reset();
        packet.reset();
        encoder.reset();
        output.reset();
        file.discard();
    }
};

VideoWriter::VideoWriter(const fs::path& path, const VideoWriteOptions& options) {
    ff::quietLogging();
    auto impl = std::make_unique<Impl>(path, options);
    impl->create();
    impl_ = std::move(impl);
}

VideoWriter::~VideoWriter() = default;
VideoWriter::VideoWriter(VideoWriter&&) noexcept = default;
VideoWriter& VideoWriter::operator=(VideoWriter&&) noexcept = default;

const fs::path& VideoWriter::path() const { return impl_->file.target(); }
const std::string& VideoWriter::encoderName() const { return impl_->encoderName; }
int VideoWriter::framesWritten() const { return impl_->written; }

void VideoWriter::write(const Frame& frame) {
    Impl& v = *impl_;
    if (v.finished) v.fail("the video is already finished");
    if (v.failed) v.fail("an earlier frame failed");
    if (frame.empty()) v.fail("empty frame");
    try {
        v.append(frame);
    } catch (...) {
        v.abandon();
        throw;
    }
}

void VideoWriter::finish() {
    Impl& v = *impl_;
    if (v.finished) return;
    if (v.failed) v.fail("an earlier frame failed");
    try {
        v.complete();
        v.finished = true;
    } catch (...) {
        v.abandon();
        throw;
    }
}

}  // namespace QMedia
