#include "Host/Media/MediaSource.h"

#include "Host/Media/ImageSource.h"
#include "Host/Media/SequenceSource.h"
#include "Host/Media/VideoSource.h"

namespace QMedia {

std::unique_ptr<MediaSource> MediaSource::open(const std::filesystem::path& path) {
    switch (mediaKindOf(path)) {
    case MediaKind::Sequence: return std::make_unique<SequenceSource>(path);
    case MediaKind::Video: return std::make_unique<VideoSource>(path);
    case MediaKind::Image: break;
    }
    return std::make_unique<ImageSource>(path);
}

}  // namespace QMedia
