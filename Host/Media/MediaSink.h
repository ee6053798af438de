#pragma once
// Frames to one output, whatever it is: one image file, a numbered image sequence or a video.
#include <filesystem>
#include <memory>

#include "Host/Media/Frame.h"
#include "Host/Media/ImageWriteOptions.h"
#include "Host/Media/MediaKind.h"
#include "Host/Media/VideoWriteOptions.h"

namespace QMedia {

struct MediaSinkOptions {
    ImageWriteOptions image;  // images and sequences
    VideoWriteOptions video;  // videos
};

class MediaSink {
public:
    virtual ~MediaSink() = default;

    // Chooses by mediaKindOf(path). Checks the output folder and format at once, so that a
    // bad output is reported before any frame is made.
    static std::unique_ptr<MediaSink> create(const std::filesystem::path& path, const MediaSinkOptions& options = {});

    virtual MediaKind kind() const = 0;
    virtual const std::filesystem::path& path() const = 0;
    // Image: one frame, any number. Sequence: one file per frame number. Video: consecutive
    // frame numbers, starting anywhere.
    virtual void write(int frame, const Frame& pixels) = 0;
    // Completes the output (a video appears only now); throws when nothing was written.
    // A sink destroyed without finish() leaves no partial video behind; images and sequence
    // files already written stay.
    virtual void finish() = 0;
};

}  // namespace QMedia
