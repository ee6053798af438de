#include "Host/Media/MediaKind.h"

#include <algorithm>
#include <cctype>
#include <string>

#include "Host/Media/SequencePattern.h"

namespace QMedia {

MediaKind mediaKindOf(const std::filesystem::path& path) {
    if (SequencePattern::isPattern(path)) return MediaKind::Sequence;
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* video : {".mp4", ".mov", ".m4v", ".mkv", ".avi", ".webm"})
        if (ext == video) return MediaKind::Video;
    return MediaKind::Image;
}

const char* mediaKindName(MediaKind kind) {
    switch (kind) {
    case MediaKind::Image: return "image";
    case MediaKind::Sequence: return "sequence";
    case MediaKind::Video: return "video";
    }
    return "image";
}

}  // namespace QMedia
