#pragma once
// Frames of a video file, decoded with FFmpeg. Frames are numbered from 0 in presentation
// order. Reading forward decodes sequentially; reading an earlier frame reopens the file and
// decodes up to it, so every frame number always gives the same picture.
#include <filesystem>
#include <memory>

#include "Host/Media/Frame.h"
#include "Host/Media/FrameRate.h"

namespace QMedia {

class VideoReader {
public:
    // Opens the file and its best video stream. Throws when the file is missing, is not a
    // video or has no decoder.
    explicit VideoReader(const std::filesystem::path& path);
    ~VideoReader();
    VideoReader(VideoReader&&) noexcept;
    VideoReader& operator=(VideoReader&&) noexcept;

    const std::filesystem::path& path() const;
    int width() const;
    int height() const;
    // Number of frames: from the container, or by counting the stream's packets where the
    // container does not say. Lowered if decoding ends earlier.
    int frameCount() const;
    // Nominal rate; invalid (0/1) when the file gives none.
    FrameRate frameRate() const;
    // True when the stream's pixels carry an alpha channel.
    bool hasAlpha() const;

    // Frame `index` (0-based) as U8 RGB (channels 3) or RGBA (channels 4; opaque when the
    // video has no alpha). Throws for an index outside 0..frameCount()-1 or a decoding error.
    Frame read(int index, int channels = 3);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace QMedia
