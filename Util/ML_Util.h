#pragma once
// Image helpers shared by the plug-in, the host and the tools.
#include <string>

#include "ML/Exception.h"
#include "ML/ImageImp.h"

namespace ML {

u32 channelCount(u32 channelFormat);        // "Unexpected channel format!"
const char* formatName(u32 channelFormat);  // "Unknown channel format type"
const char* layoutName(u32 memoryLayout);   // "Unknown layout type"
const char* typeName(u32 dataType);         // "Unknown data type"
const char* pixelTypeName(u32 dataType);    // U8, F16, F32 only: "Unknown pixel type"

inline i32 rectWidth(const Rect& r) { return r.width(); }
inline i32 rectHeight(const Rect& r) { return r.height(); }
inline bool rectCovers(const Rect& a, const Rect& b) { return covers(a, b); }
inline bool rectEquals(const Rect& a, const Rect& b) { return a == b; }
inline std::string rectToString(const Rect& r) { return r.toString(); }

// Bytes of one pixel (all channels) of an image.
u32 bytesPerPixel(const Image& image);

// Fills the image's rectangle with zero bytes; HWC only; row padding is left untouched.
void clearImage(const Ptr<Image>& image);

// Copies the pixels of inRect of input into outRect of output (absolute coordinates).
void copySlice(const Ptr<Image>& input, const Ptr<Image>& output, const Rect& inRect, const Rect& outRect);

// A view of part of an HWC image without copying; the same image when the rectangle is its own.
Ptr<Image> makeNewImageView(const Ptr<Image>& image, const Rect& rect);

}  // namespace ML
