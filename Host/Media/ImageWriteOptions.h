#pragma once
// What an image file is written as.
#include <string>

namespace QMedia {

// Element type stored in the file. Auto picks from the frame and the format:
// PNG U8 for U8 frames, else U16; JPEG U8; TIFF U8 for U8 frames, else F32;
// EXR F32 for F32 frames, else F16; other formats the frame's own type.
enum class BitDepth { Auto, U8, U16, F16, F32 };

struct ImageWriteOptions {
    BitDepth bitDepth = BitDepth::Auto;
    int jpegQuality = 95;  // 1..100
};

// "auto", "8", "16", "half", "float" (also "u8", "u16", "f16", "f32"); throws on anything else.
BitDepth parseBitDepth(const std::string& text);
// "auto", "8", "16", "half", "float".
const char* bitDepthName(BitDepth depth);

}  // namespace QMedia
