#pragma once
// A video file as a media sink: frames arrive in order and the file appears at finish().
#include "Host/Media/MediaSink.h"
#include "Host/Media/VideoWriter.h"

namespace QMedia {

class VideoSink : public MediaSink {
public:
    VideoSink(const std::filesystem::path& path, const VideoWriteOptions& options) : writer_(path, options) {}

    MediaKind kind() const override { return MediaKind::Video; }
    const std::filesystem::path& path() const override { return writer_.path(); }
    void write(int frame, const Frame& pixels) override;
    void finish() override { writer_.finish(); }

private:
    VideoWriter writer_;
    int nextFrame_ = 0;
};

}  // namespace QMedia
