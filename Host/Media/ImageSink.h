#pragma once
// A single image file as a media sink: takes exactly one frame.
#include "Host/Media/MediaSink.h"

namespace QMedia {

class ImageSink : public MediaSink {
public:
    ImageSink(const std::filesystem::path& path, const ImageWriteOptions& options);

    MediaKind kind() const override { return MediaKind::Image; }
    const std::filesystem::path& path() const override { return path_; }
    void write(int frame, const Frame& pixels) override;
    void finish() override;

private:
    std::filesystem::path path_;
    ImageWriteOptions options_;
    bool written_ = false;
};

}  // namespace QMedia
