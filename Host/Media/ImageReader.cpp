#include "Host/Media/ImageReader.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <string>
#include <system_error>

#include "ML/Exception.h"

namespace fs = std::filesystem;

namespace QMedia {
namespace {

// The frame type that holds a file's pixels without loss of what matters.
ML::DataType frameTypeFor(const OIIO::ImageSpec& imageSpec, int channels) {
    bool allU8 = true;
    bool allHalf = true;
    for (int c = 0; c < channels; ++c) {
        const OIIO::TypeDesc t = imageSpec.channelformat(c);
        allU8 = allU8 && t == OIIO::TypeDesc::UINT8;
        allHalf = allHalf && t == OIIO::TypeDesc::HALF;
    }
    if (allU8) return ML::U8;
    if (allHalf) return ML::F16;
    return ML::F32;
}

OIIO::TypeDesc oiioType(ML::DataType type) {
    switch (type) {
    case ML::U8: return OIIO::TypeDesc::UINT8;
    case ML::F16: return OIIO::TypeDesc::HALF;
    default: return OIIO::TypeDesc::FLOAT;
    }
}

std::string lastError(const std::string& fallback) {
    std::string e = OIIO::geterror();
    return e.empty() ? fallback : e;
}

}  // namespace

Frame readImage(const fs::path& path) {
    std::error_code ec;
    const auto status = fs::status(path, ec);
    if (!fs::exists(status)) ML_THROW("Image file not found: " + path.string());
    if (!fs::is_regular_file(status)) ML_THROW("Not an image file: " + path.string());

    // Pixels as stored: straight alpha is not multiplied in.
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(path.string(), &config);
    if (!in) ML_THROW("Could not read image " + path.string() + ": " + lastError("unknown format"));
    const OIIO::ImageSpec& imageSpec = in->spec();
    if (imageSpec.deep) ML_THROW("Could not read image " + path.string() + ": deep images are not supported");
    if (imageSpec.depth > 1) ML_THROW("Could not read image " + path.string() + ": volume images are not supported");
    if (imageSpec.width <= 0 || imageSpec.height <= 0 || imageSpec.nchannels <= 0)
        ML_THROW("Could not read image " + path.string() + ": empty image");

    const int channels = std::min(imageSpec.nchannels, 4);
    Frame frame(imageSpec.width, imageSpec.height, channels, frameTypeFor(imageSpec, channels));
    if (!in->read_image(0, 0, 0, channels, oiioType(frame.type()), frame.data())) {
        const std::string e = in->geterror();
        ML_THROW("Could not read image " + path.string() + ": " + (e.empty() ? "decoding failed" : e));
    }
    in->close();
    return frame;
}

}  // namespace QMedia
