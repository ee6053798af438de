#pragma once
// Names of image formats, data types and tensor sizes as they appear in helper network names
// and on the command line, and their parsing.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "ML/ImageImp.h"
#include "ML/Types.h"

namespace qpkg {

// Bad input from the user (unknown name, bad size, bad arguments).
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One format of an image tensor: memory layout, element type and channel format.
struct ImageFormat {
    ML::u32 layout = ML::Image::HWC;
    ML::u32 dataType = ML::U8;
    ML::u32 channels = ML::Image::RGB;

    bool operator==(const ImageFormat& o) const {
        return layout == o.layout && dataType == o.dataType && channels == o.channels;
    }
    bool operator!=(const ImageFormat& o) const { return !(*this == o); }
};

const std::vector<ML::u32>& allLayouts();         // HWC, CHW
const std::vector<ML::u32>& allPixelTypes();      // U8, F16, F32
const std::vector<ML::u32>& allFloatTypes();      // F16, F32
const std::vector<ML::u32>& allChannelFormats();  // RGB, RGBA, R, RG, ARGB, BGR
// Every combination, layouts outermost, then types, then channel formats.
std::vector<ImageFormat> allImageFormats();

std::string layoutText(ML::u32 layout);
std::string typeText(ML::u32 dataType);  // U8, F16, F32, I64
std::string channelsText(ML::u32 channels);
int channelCount(ML::u32 channels);

// "HWC-U8-RGBA"
std::string formatKey(const ImageFormat& f);
// The inverse of formatKey; UsageError for anything else.
ImageFormat parseFormatKey(const std::string& key);
// A type name among the allowed ones; UsageError otherwise.
ML::u32 parseDataType(const std::string& text, const std::vector<ML::u32>& allowed);

// Batch and tile size of the fixed-size helper networks.
struct TensorSize {
    int64_t n = 1;
    int64_t h = 1;
    int64_t w = 1;
};
// Largest batch, height or width of a fixed-size network.
constexpr int64_t kMaxExtent = 65536;
// "NxHxW" with three integers from 1 to kMaxExtent; UsageError otherwise.
TensorSize parseTensorSize(const std::string& text);
// "NxHxW"
std::string sizeText(const TensorSize& s);

}  // namespace qpkg
