#pragma once
// Reading of still image files (PNG, JPEG, TIFF, EXR and whatever else OpenImageIO reads).
#include <filesystem>

#include "Host/Media/Frame.h"

namespace QMedia {

// Reads the first subimage of a file into a frame of its first 1 to 4 channels
// (OpenImageIO puts R, G, B, A first). Element types:
//   8-bit integer files        -> U8, as stored;
//   half float files           -> F16;
//   float files                -> F32;
//   16- and 32-bit integer     -> F32 scaled to 0..1 (F16 would keep only 11 of 16 bits).
// Values are kept as stored: straight (unassociated) alpha stays straight, nothing is
// premultiplied or divided. Only the data window is read. Throws when the file is missing or cannot be decoded.
Frame readImage(const std::filesystem::path& path);

}  // namespace QMedia
