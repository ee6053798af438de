#pragma once
// A single image file as a media source: read once, the same picture for every frame.
#include "Host/Media/MediaSource.h"

namespace QMedia {

class ImageSource : public MediaSource {
public:
    explicit ImageSource(const std::filesystem::path& path);

    MediaKind kind() const override { return MediaKind::Image; }
    const std::filesystem::path& path() const override { return path_; }
    FrameRange frameRange() const override { return {0, 0}; }
    Frame read(int frame) override { return image_; }

private:
    std::filesystem::path path_;
    Frame image_;
};

}  // namespace QMedia
