#include "Host/Media/MediaSink.h"

#include "Host/Media/ImageSink.h"
#include "Host/Media/SequenceSink.h"
#include "Host/Media/VideoSink.h"

namespace QMedia {

std::unique_ptr<MediaSink> MediaSink::create(const std::filesystem::path& path, const MediaSinkOptions& options) {
    switch (mediaKindOf(path)) {
    case MediaKind::Sequence: return std::make_unique<SequenceSink>(path, options.image);
    case MediaKind::Video: return std::make_unique<VideoSink>(path, options.video);
    case MediaKind::Image: break;
    }
    return std::make_unique<ImageSink>(path, options.image);
}

}  // namespace QMedia
