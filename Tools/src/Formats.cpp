#include "Formats.h"


namespace qpkg {

const std::vector<ML::u32>& allLayouts() {
    static const std::vector<ML::u32> v{ML::Image::HWC, ML::Image::CHW};
    return v;
}

const std::vector<ML::u32>& allPixelTypes() {
    static const std::vector<ML::u32> v{ML::U8, ML::F16, ML::F32};
    return v;
}

const std::vector<ML::u32>& allFloatTypes() {
    static const std::vector<ML::u32> v{ML::F16, ML::F32};
    return v;
}

const std::vector<ML::u32>& allChannelFormats() {
    static const std::vector<ML::u32> v{ML::Image::RGB, ML::Image::RGBA, ML::Image::R,
                                        ML::Image::RG,  ML::Image::ARGB, ML::Image::BGR};
    return v;
}

std::vector<ImageFormat> allImageFormats() {
    std::vector<ImageFormat> out;
    for (ML::u32 layout : allLayouts())
        for (ML::u32 type : allPixelTypes())
            for (ML::u32 channels : allChannelFormats()) out.push_back({layout, type, channels});
    return out;
}

std::string layoutText(ML::u32 layout) {
    switch (layout) {
        case ML::Image::HWC: return "HWC";
        case ML::Image::CHW: return "CHW";
        default: throw std::logic_error("unknown layout " + std::to_string(layout));
    }
}

std::string typeText(ML::u32 dataType) {
    switch (dataType) {
        case ML::U8: return "U8";
        case ML::F16: return "F16";
        case ML::F32: return "F32";
        case ML::I64: return "I64";
        default: throw std::logic_error("unknown data type " + std::to_string(dataType));
    }
}

std::string channelsText(ML::u32 channels) {
    switch (channels) {
        case ML::Image::RGB: return "RGB";
        case ML::Image::RGBA: return "RGBA";
        case ML::Image::R: return "R";
        case ML::Image::RG: return "RG";
        case ML::Image::ARGB: return "ARGB";
        case ML::Image::BGR: return "BGR";
        default: throw std::logic_error("unknown channel format " + std::to_string(channels));
    }
}

int channelCount(ML::u32 channels) {
    switch (channels) {
        case ML::Image::R: return 1;
        case ML::Image::RG: return 2;
        case ML::Image::RGB:
        case ML::Image::BGR: return 3;
        case ML::Image::RGBA:
        case ML::Image::ARGB: return 4;
        default: throw std::logic_error("unknown channel format " + std::to_string(channels));
    }
}

std::string formatKey(const ImageFormat& f) {
    return layoutText(f.layout) + "-" + typeText(f.dataType) + "-" + channelsText(f.channels);
}

ImageFormat parseFormatKey(const std::string& key) {
    for (const ImageFormat& f : allImageFormats())
        if (formatKey(f) == key) return f;
    throw UsageError("unknown image format '" + key +
                     "' (expected <layout>-<type>-<channels>, e.g. HWC-U8-RGBA: layout HWC or CHW, "
                     "type U8, F16 or F32, channels RGB, RGBA, R, RG, ARGB or BGR)");
}

ML::u32 parseDataType(const std::string& text, const std::vector<ML::u32>& allowed) {
    std::string names;
    for (ML::u32 t : allowed) {
        if (typeText(t) == text) return t;
        names += (names.empty() ? "" : ", ") + typeText(t);
    }
    throw UsageError("unknown data type '" + text + "' (expected one of " + names + ")");
}

namespace {

// A whole decimal number from 1 to kMaxExtent.
bool parsePositive(const std::string& text, int64_t& out) {
    if (text.empty() || text.size() > 9) return false;
    int64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    if (v <= 0 || v > kMaxExtent) return false;
    out = v;
    return true;
}

}  // namespace

TensorSize parseTensorSize(const std::string& text) {
    std::vector<std::string> parts(1);
    for (char c : text) {
        if (c == 'x')
            parts.emplace_back();
        else
            parts.back() += c;
    }
    TensorSize s;
    if (parts.size() != 3 || !parsePositive(parts[0], s.n) || !parsePositive(parts[1], s.h) ||
        !parsePositive(parts[2], s.w))
        throw UsageError("bad size '" + text + "' (expected NxHxW with three integers from 1 to " +
                         std::to_string(kMaxExtent) + ", e.g. 1x512x512)");
    return s;
}

std::string sizeText(const TensorSize& s) {
    return std::to_string(s.n) + "x" + std::to_string(s.h) + "x" + std::to_string(s.w);
}

}  // namespace qpkg
