#pragma once
// A video file as a media source: frames 0..count-1, RGB, or RGBA when the video has alpha.
#include "Host/Media/MediaSource.h"
#include "Host/Media/VideoReader.h"

namespace QMedia {

class VideoSource : public MediaSource {
public:
    explicit VideoSource(const std::filesystem::path& path) : reader_(path) {}

    MediaKind kind() const override { return MediaKind::Video; }
    const std::filesystem::path& path() const override { return reader_.path(); }
    FrameRange frameRange() const override { return {0, reader_.frameCount() - 1}; }
    FrameRate frameRate() const override { return reader_.frameRate(); }
    Frame read(int frame) override { return reader_.read(frame, reader_.hasAlpha() ? 4 : 3); }

private:
    VideoReader reader_;
};

}  // namespace QMedia
