#pragma once
// A numbered image sequence as a media source. The range is taken from the files on disk
// when the source is opened.
#include "Host/Media/MediaSource.h"
#include "Host/Media/SequencePattern.h"

namespace QMedia {

class SequenceSource : public MediaSource {
public:
    // Throws for a bad pattern or when no file of the sequence exists.
    explicit SequenceSource(const std::filesystem::path& pattern);

    MediaKind kind() const override { return MediaKind::Sequence; }
    const std::filesystem::path& path() const override { return pattern_.pattern(); }
    FrameRange frameRange() const override { return range_; }
    Frame read(int frame) override;

    const SequencePattern& pattern() const { return pattern_; }

private:
    SequencePattern pattern_;
    FrameRange range_;
};

}  // namespace QMedia
