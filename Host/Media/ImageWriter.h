#pragma once
// Writing of still image files. The format follows the file extension.
#include <filesystem>

#include "Host/Media/Frame.h"
#include "Host/Media/ImageWriteOptions.h"

namespace QMedia {

// Writes a frame as one image file, converting it to what the format stores:
//   PNG  U8 or U16;   JPEG U8 (an alpha channel is dropped);
//   TIFF U8, U16 or F32;   EXR F16 or F32;
// other formats get the frame's own type or the nearest one they support.
// Values are written as given, alpha included (no premultiplication or division).
// A bit depth the format cannot store is an error. The file is written under a temporary
// name in the same folder and renamed at the end: on failure no partial file is left behind
// and an older file of that name is untouched.
void writeImage(const std::filesystem::path& path, const Frame& frame, const ImageWriteOptions& options = {});

// Throws unless the folder of `path` exists and its extension names a format that can be
// written. Writes nothing.
void checkImageOutput(const std::filesystem::path& path);

}  // namespace QMedia
