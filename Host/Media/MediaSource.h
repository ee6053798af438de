#pragma once
// Frames from one input, whatever it is: one image file, a numbered image sequence or a video.
#include <filesystem>
#include <memory>

#include "Host/Media/Frame.h"
#include "Host/Media/FrameRange.h"
#include "Host/Media/FrameRate.h"
#include "Host/Media/MediaKind.h"

namespace QMedia {

class MediaSource {
public:
    virtual ~MediaSource() = default;

    // Chooses by mediaKindOf(path) and opens at once, so that a missing or unreadable input
    // is reported here rather than at the first frame.
    static std::unique_ptr<MediaSource> open(const std::filesystem::path& path);

    virtual MediaKind kind() const = 0;
    virtual const std::filesystem::path& path() const = 0;
    // Image: 0..0. Sequence: first..last file on disk. Video: 0..frame count - 1.
    virtual FrameRange frameRange() const = 0;
    // The video's rate; invalid (0/1) for images and sequences.
    virtual FrameRate frameRate() const { return FrameRate{0, 1}; }
    // One frame. An image stands for every frame number; sequences and videos throw for a
    // number outside their range, and a sequence for a file missing inside it.
    virtual Frame read(int frame) = 0;
};

}  // namespace QMedia
