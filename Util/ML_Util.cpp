#include "Util/ML_Util.h"

#include <cstring>
#include <stdexcept>

namespace ML {

namespace {

// Name lookups without failure; nullptr for values outside the enumeration.
const char* findFormatName(u32 channelFormat) {
    switch (channelFormat) {
        case Image::RGB: return "RGB";
        case Image::RGBA: return "RGBA";
        case Image::R: return "R";
        case Image::RG: return "RG";
        case Image::ARGB: return "ARGB";
        case Image::BGR: return "BGR";
        default: return nullptr;
    }
}

const char* findLayoutName(u32 memoryLayout) {
    switch (memoryLayout) {
        case Image::HWC: return "HWC";
        case Image::CHW: return "CHW";
        default: return nullptr;
    }
}

const char* findTypeName(u32 dataType) {
    switch (dataType) {
        case U8: return "U8";
        case I8: return "I8";
        case U16: return "U16";
        case I16: return "I16";
        case U32: return "U32";
        case I32: return "I32";
        case U64: return "U64";
        case I64: return "I64";
        case F16: return "F16";
        case F32: return "F32";
        case SIZE_T: return "U64";
        default: return nullptr;
    }
}

// Name for messages about an image that may itself be malformed: falls back to the number.
std::string nameOrNumber(const char* name, u32 value) { return name ? std::string(name) : std::to_string(value); }

// "type-format-layout" of an image, for mismatch messages.
std::string describeFormat(const Image& image) {
    return nameOrNumber(findTypeName(image.getDataType()), image.getDataType()) + "-" +
           nameOrNumber(findFormatName(image.getChannelFormat()), image.getChannelFormat()) + "-" +
           nameOrNumber(findLayoutName(image.getMemoryLayout()), image.getMemoryLayout());
}

// Byte offset of (x, y) from the image's origin pixel, given the bytes of one step in x.
std::ptrdiff_t byteOffset(const Rect& origin, i32 x, i32 y, u64 rowBytes, u64 xStepBytes) {
    return static_cast<std::ptrdiff_t>(static_cast<i64>(y - origin.y0) * static_cast<i64>(rowBytes) +
                                       static_cast<i64>(x - origin.x0) * static_cast<i64>(xStepBytes));
}

}  // namespace

u32 channelCount(u32 channelFormat) {
    switch (channelFormat) {
        case Image::RGB: return 3;
        case Image::RGBA: return 4;
        case Image::R: return 1;
        case Image::RG: return 2;
        case Image::ARGB: return 4;
        case Image::BGR: return 3;
        default: ML_THROW("Unexpected channel format!");
    }
}

const char* formatName(u32 channelFormat) {
    if (const char* name = findFormatName(channelFormat)) return name;
    ML_THROW("Unknown channel format type");
}

const char* layoutName(u32 memoryLayout) {
    if (const char* name = findLayoutName(memoryLayout)) return name;
    ML_THROW("Unknown layout type");
}

const char* typeName(u32 dataType) {
    if (const char* name = findTypeName(dataType)) return name;
    ML_THROW("Unknown data type");
}

const char* pixelTypeName(u32 dataType) {
    switch (dataType) {
        case U8: return "U8";
        case F16: return "F16";
        case F32: return "F32";
        default: ML_THROW("Unknown pixel type");
    }
}

u32 bytesPerPixel(const Image& image) {
    return channelCount(image.getChannelFormat()) * bytesPerElement(image.getDataType());
}

void clearImage(const Ptr<Image>& image) {
    if (image->getMemoryLayout() != Image::HWC) ML_THROW("clearImage only supports HWC images for now");
    const Rect rect = image->getRect();
    if (rect.isEmpty()) return;

    const u64 rowBytes = image->getRowBytes();
    const u64 packedRow = static_cast<u64>(rect.width()) * bytesPerPixel(*image);
    const u64 rows = static_cast<u64>(rect.height());
    auto* base = static_cast<u8*>(image->getData());
    if (packedRow == rowBytes) {
        std::memset(base, 0, rows * rowBytes);
        return;
    }
    for (u64 y = 0; y < rows; ++y) std::memset(base + y * rowBytes, 0, packedRow);
}

void copySlice(const Ptr<Image>& input, const Ptr<Image>& output, const Rect& inRect, const Rect& outRect) {
    if (input->getDataType() != output->getDataType() || input->getChannelFormat() != output->getChannelFormat() ||
        input->getMemoryLayout() != output->getMemoryLayout())
        ML_THROW("copySlice output image does not match input image format: (" + describeFormat(*input) + " vs " +
                 describeFormat(*output) + ")");
    if (inRect.width() != outRect.width() || inRect.height() != outRect.height())
        ML_THROW("copySlice input and output rectangles must have same shape: " + inRect.toString() + " vs " +
                 outRect.toString());
    const Rect inImageRect = input->getRect();
    const Rect outImageRect = output->getRect();
    if (!covers(inImageRect, inRect))
        ML_THROW("copySlice slice out of bounds in input image. input rect: " + inImageRect.toString() +
                 ", slice rect: " + inRect.toString());
    if (!covers(outImageRect, outRect))
        ML_THROW("copySlice slice out of bounds in output image. output rect: " + outImageRect.toString() +
                 ", slice rect: " + outRect.toString());

    const u32 layout = input->getMemoryLayout();
    if (layout != Image::HWC && layout != Image::CHW)
        ML_THROW("copySlice not implemented for unknown memoty layout! (not CHW or HWC)");
    if (inRect.isEmpty()) return;

    const u64 element = bytesPerElement(input->getDataType());
    const u64 channels = channelCount(input->getChannelFormat());
    const u64 inRowBytes = input->getRowBytes();
    const u64 outRowBytes = output->getRowBytes();
    const auto* src = static_cast<const u8*>(static_cast<const Image&>(*input).getData());
    auto* dst = static_cast<u8*>(output->getData());
    const u64 rows = static_cast<u64>(inRect.height());

    // Row copies use memmove: a slice may be copied within one image.
    auto copyRows = [&](const u8* from, u8* to, u64 rowLength) {
        for (u64 y = 0; y < rows; ++y) std::memmove(to + y * outRowBytes, from + y * inRowBytes, rowLength);
    };

    if (layout == Image::HWC) {
        const u64 pixel = channels * element;
        copyRows(src + byteOffset(inImageRect, inRect.x0, inRect.y0, inRowBytes, pixel),
                 dst + byteOffset(outImageRect, outRect.x0, outRect.y0, outRowBytes, pixel),
                 static_cast<u64>(inRect.width()) * pixel);
        return;
    }

    // Planar: one plane is the image's height times its row bytes.
    const u64 inPlane = static_cast<u64>(inImageRect.height()) * inRowBytes;
    const u64 outPlane = static_cast<u64>(outImageRect.height()) * outRowBytes;
    const u8* inStart = src + byteOffset(inImageRect, inRect.x0, inRect.y0, inRowBytes, element);
    u8* outStart = dst + byteOffset(outImageRect, outRect.x0, outRect.y0, outRowBytes, element);
    for (u64 c = 0; c < channels; ++c)
        copyRows(inStart + c * inPlane, outStart + c * outPlane, static_cast<u64>(inRect.width()) * element);
}

Ptr<Image> makeNewImageView(const Ptr<Image>& image, const Rect& rect) {
    const Rect own = image->getRect();
    if (rect == own) return image;
    if (!covers(own, rect))
        throw std::runtime_error("new rectangle for image view must be smaller than original rectangle!");
    if (image->getMemoryLayout() == Image::CHW)
        throw std::runtime_error("TODO: implement makeNewImageView for CHW image!");

    const u32 rowBytes = image->getRowBytes();
    auto* data =
        static_cast<u8*>(image->getData()) + byteOffset(own, rect.x0, rect.y0, rowBytes, bytesPerPixel(*image));
    return Ptr<Image>(new ImageImp(rect, image->getChannelFormat(), image->getMemoryLayout(), image->getDataType(),
                                   data, rowBytes, 0));
}

}  // namespace ML
