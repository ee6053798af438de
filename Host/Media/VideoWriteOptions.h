#pragma once
// How a video file is encoded.
#include <string>

#include "Host/Media/FrameRate.h"

namespace QMedia {

// Auto chooses by extension: .mp4/.mov/.m4v H.264 (MPEG-4 part 2 where no H.264 encoder is
// present), .mkv FFV1 (lossless), .avi MPEG-4 part 2, .webm VP9.
enum class VideoCodec { Auto, H264, MPEG4, FFV1, VP9 };

struct VideoWriteOptions {
    FrameRate frameRate{24, 1};
    VideoCodec codec = VideoCodec::Auto;
    // Constant quality for H.264 and VP9 (CRF, lower is better); -1 keeps our default
    // (H.264 18, VP9 30). MPEG-4 part 2 always uses a fixed quantiser of 3; FFV1 is lossless.
    int crf = -1;
};

// "auto", "h264", "mpeg4", "ffv1", "vp9"; throws on anything else.
VideoCodec parseVideoCodec(const std::string& text);
const char* videoCodecName(VideoCodec codec);

}  // namespace QMedia
