#pragma once
// A numbered image sequence as a media sink: each frame becomes its own file at once.
#include <optional>

#include "Host/Media/FrameRange.h"
#include "Host/Media/MediaSink.h"
#include "Host/Media/SequencePattern.h"

namespace QMedia {

class SequenceSink : public MediaSink {
public:
    SequenceSink(const std::filesystem::path& pattern, const ImageWriteOptions& options);

    MediaKind kind() const override { return MediaKind::Sequence; }
    const std::filesystem::path& path() const override { return pattern_.pattern(); }
    void write(int frame, const Frame& pixels) override;
    void finish() override;

    // Lowest and highest frame written so far.
    std::optional<FrameRange> written() const { return written_; }

private:
    SequencePattern pattern_;
    ImageWriteOptions options_;
    std::optional<FrameRange> written_;
};

}  // namespace QMedia
