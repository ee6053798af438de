#include "Host/Media/VideoWriteOptions.h"

#include <algorithm>
#include <cctype>

#include "ML/Exception.h"

namespace QMedia {

VideoCodec parseVideoCodec(const std::string& text) {
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (t == "auto") return VideoCodec::Auto;
    if (t == "h264" || t == "x264" || t == "avc") return VideoCodec::H264;
    if (t == "mpeg4") return VideoCodec::MPEG4;
    if (t == "ffv1") return VideoCodec::FFV1;
    if (t == "vp9") return VideoCodec::VP9;
    ML_THROW("Unknown video codec \"" + text + "\" (use auto, h264, mpeg4, ffv1 or vp9)");
}

const char* videoCodecName(VideoCodec codec) {
    switch (codec) {
    case VideoCodec::Auto: return "auto";
    case VideoCodec::H264: return "h264";
    case VideoCodec::MPEG4: return "mpeg4";
    case VideoCodec::FFV1: return "ffv1";
    case VideoCodec::VP9: return "vp9";
    }
    return "auto";
}

}  // namespace QMedia
