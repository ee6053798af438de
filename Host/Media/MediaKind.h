#pragma once
// What a media path names: a frame placeholder makes it a numbered sequence, a video
// extension (mp4, mov, m4v, mkv, avi, webm) a video file, anything else one image file.
#include <filesystem>

namespace QMedia {

enum class MediaKind { Image, Sequence, Video };

MediaKind mediaKindOf(const std::filesystem::path& path);
// "image", "sequence", "video".
const char* mediaKindName(MediaKind kind);

}  // namespace QMedia
