#include "Host/Media/ImageWriteOptions.h"

#include <algorithm>
#include <cctype>

#include "ML/Exception.h"

namespace QMedia {

BitDepth parseBitDepth(const std::string& text) {
    std::string t = text;
    std::transform(t.begin(), t.end(), t.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (t == "auto") return BitDepth::Auto;
    if (t == "8" || t == "u8") return BitDepth::U8;
    if (t == "16" || t == "u16") return BitDepth::U16;
    if (t == "half" || t == "f16") return BitDepth::F16;
    if (t == "float" || t == "f32" || t == "32") return BitDepth::F32;
    ML_THROW("Unknown bit depth \"" + text + "\" (use auto, 8, 16, half or float)");
}

const char* bitDepthName(BitDepth depth) {
    switch (depth) {
    case BitDepth::Auto: return "auto";
    case BitDepth::U8: return "8";
    case BitDepth::U16: return "16";
    case BitDepth::F16: return "half";
    case BitDepth::F32: return "float";
    }
    return "auto";
}

}  // namespace QMedia
