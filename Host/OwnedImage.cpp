#include "Host/OwnedImage.h"

#include <limits>
#include <string>

namespace QHost {

namespace {

ML::u32 channelsOf(ML::u32 format) {
    switch (format) {
        case ML::Image::RGB:
        case ML::Image::BGR: return 3;
        case ML::Image::RGBA:
        case ML::Image::ARGB: return 4;
        case ML::Image::R: return 1;
        case ML::Image::RG: return 2;
        default: throw std::invalid_argument("Unknown channel format for an image: " + std::to_string(format));
    }
}

ML::u32 elementBytesOf(ML::u32 type) {
    switch (type) {
        case ML::U8: return 1;
        case ML::F16: return 2;
        case ML::F32: return 4;
        default: throw std::invalid_argument("Unsupported image data type: " + std::to_string(type));
    }
}

}  // namespace

struct OwnedImage::Geometry {
    ML::u32 channels;
    ML::u32 elementBytes;
    ML::u32 rowBytes;
    ML::u32 channelBytes;  // 0 for HWC
    ML::u64 byteSize;
};

OwnedImage::Geometry OwnedImage::geometry(const ML::Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type,
                                          ML::u32 rowPadding) {
    if (rect.width() < 0 || rect.height() < 0)
        throw std::invalid_argument("Image rectangle has a negative size: " + rect.toString());
    if (layout != ML::Image::HWC && layout != ML::Image::CHW)
        throw std::invalid_argument("Unknown memory layout for an image: " + std::to_string(layout));
    Geometry g{};
    g.channels = channelsOf(format);
    g.elementBytes = elementBytesOf(type);
    const ML::u64 width = static_cast<ML::u64>(rect.width());
    const ML::u64 height = static_cast<ML::u64>(rect.height());
    const ML::u64 packed = layout == ML::Image::HWC ? width * g.channels * g.elementBytes : width * g.elementBytes;
    const ML::u64 rowBytes = packed + rowPadding;
    const ML::u64 limit = std::numeric_limits<ML::u32>::max();
    if (rowBytes > limit) throw std::invalid_argument("Image rows are too long: " + rect.toString());
    g.rowBytes = static_cast<ML::u32>(rowBytes);
    if (layout == ML::Image::CHW) {
        if (rowBytes * height > limit) throw std::invalid_argument("Image planes are too large: " + rect.toString());
        g.channelBytes = static_cast<ML::u32>(rowBytes * height);
        g.byteSize = static_cast<ML::u64>(g.channelBytes) * g.channels;
    } else {
        g.byteSize = rowBytes * height;
    }
    return g;
}

OwnedImage::OwnedImage(const ML::Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, ML::u32 rowPadding)
    : OwnedImage(geometry(rect, format, layout, type, rowPadding), rect, format, layout, type, rowPadding) {}

OwnedImage::OwnedImage(const Geometry& g, const ML::Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type,
                       ML::u32 rowPadding)
    : ML::ImageImp(rect, format, layout, type, nullptr, g.rowBytes, g.channelBytes),
      // An empty rectangle still gets one byte, so that the image always has a data pointer.
      storage_(new std::byte[g.byteSize ? g.byteSize : 1]()),
      byteSize_(g.byteSize),
      channels_(g.channels),
      elementBytes_(g.elementBytes),
      rowPadding_(rowPadding),
      rowStride_(g.rowBytes),
      planeStride_(g.channelBytes) {
    setData(storage_.get());
}

const void* OwnedImage::element(ML::i32 x, ML::i32 y, ML::u32 channel) const {
    const ML::Rect r = getRect();
    if (x < r.x0 || x >= r.x1 || y < r.y0 || y >= r.y1 || channel >= channels_)
        throw std::out_of_range("Pixel (" + std::to_string(x) + "," + std::to_string(y) + ") channel " +
                                std::to_string(channel) + " is outside image " + r.toString());
    const ML::u64 dx = static_cast<ML::u64>(x - r.x0);
    const ML::u64 dy = static_cast<ML::u64>(y - r.y0);
    ML::u64 offset = dy * rowStride_;
    if (getMemoryLayout() == ML::Image::HWC)
        offset += (dx * channels_ + channel) * elementBytes_;
    else
        offset += channel * planeStride_ + dx * elementBytes_;
    return storage_.get() + offset;
}

void* OwnedImage::element(ML::i32 x, ML::i32 y, ML::u32 channel) {
    return const_cast<void*>(static_cast<const OwnedImage*>(this)->element(x, y, channel));
}

void OwnedImage::checkElementSize(std::size_t size) const {
    if (size != elementBytes_)
        throw std::invalid_argument("Element access of " + std::to_string(size) + " bytes on an image of " +
                                    std::to_string(elementBytes_) + "-byte elements");
}

}  // namespace QHost
