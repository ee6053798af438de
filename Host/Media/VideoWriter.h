#pragma once
// Writes frames to a video file with FFmpeg. The container follows the extension and the
// codec follows VideoWriteOptions. The file is written under a temporary name in the same
// folder and appears under its own name only when finish() succeeds; a writer destroyed
// before that, or one that failed, deletes its temporary file.
#include <filesystem>
#include <memory>
#include <string>

#include "Host/Media/Frame.h"
#include "Host/Media/VideoWriteOptions.h"

namespace QMedia {

class VideoWriter {
public:
    // Picks the container and encoder and creates the temporary file. Throws for a missing
    // folder, an unknown extension, a missing encoder or a codec the container cannot hold.
    explicit VideoWriter(const std::filesystem::path& path, const VideoWriteOptions& options = {});
    ~VideoWriter();
    VideoWriter(VideoWriter&&) noexcept;
    VideoWriter& operator=(VideoWriter&&) noexcept;

    const std::filesystem::path& path() const;
    // FFmpeg's name of the chosen encoder, e.g. "libx264", "mpeg4", "ffv1".
    const std::string& encoderName() const;
    int framesWritten() const;

    // Appends one frame. The first frame fixes the size; later frames must match it. Any
    // channel count and type is accepted: frames become U8 RGB, or RGBA where the codec keeps
    // alpha (FFV1, VP9). After any failure the writer refuses further frames.
    void write(const Frame& frame);
    // Flushes the encoder, completes the file and moves it to its name. Throws when no frame
    // was written or writing fails; the temporary file is removed then.
    void finish();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace QMedia
