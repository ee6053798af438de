#pragma once
// An image that owns its pixel memory: what the host hands the plug-in as input and output.
//
// The pixels are zero-filled at construction. The rectangle may start anywhere (x0 and y0 need
// not be 0); getData() points at the pixel (x0, y0). Rows may carry padding, a number of unused
// bytes after the packed pixels of each row, so that code which assumes packed rows shows up in
// tests. Layouts:
//   HWC: rowBytes = width * channels * element size + padding, height rows.
//   CHW: rowBytes = width * element size + padding, channelBytes = rowBytes * height, one plane
//        per channel, planes one after the other.
// Row bytes (and channel bytes for CHW) are always stored explicitly, never 0.
#include <cstddef>
#include <memory>
#include <stdexcept>

#include "ML/ImageImp.h"

namespace QHost {

class OwnedImage final : public ML::ImageImp {
public:
    // Throws std::invalid_argument for a negative size, an unknown channel format or layout, a
    // data type other than U8, F16 and F32, or rows too large for 32-bit row bytes.
    OwnedImage(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 memoryLayout, ML::u32 dataType,
               ML::u32 rowPadding = 0);

    static ML::Ptr<OwnedImage> make(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 memoryLayout,
                                    ML::u32 dataType, ML::u32 rowPadding = 0) {
        return ML::Ptr<OwnedImage>(new OwnedImage(rect, channelFormat, memoryLayout, dataType, rowPadding));
    }

    ML::u32 channels() const { return channels_; }
    ML::u32 elementBytes() const { return elementBytes_; }
    ML::u32 rowPadding() const { return rowPadding_; }
    // Bytes of the whole pixel block, padding included.
    ML::u64 byteSize() const { return byteSize_; }
    // Start of the owned block (what getData() gives unless setData replaced it).
    std::byte* storage() { return storage_.get(); }
    const std::byte* storage() const { return storage_.get(); }

    // Address of one element in the owned block; x and y are absolute coordinates inside the
    // rectangle. Throws std::out_of_range outside the rectangle or for a channel >= channels().
    void* element(ML::i32 x, ML::i32 y, ML::u32 channel = 0);
    const void* element(ML::i32 x, ML::i32 y, ML::u32 channel = 0) const;

    // Typed access to one element; T must have the size of the image's element type
    // (std::uint8_t for U8, Imath::half or std::uint16_t for F16, float for F32).
    template <class T>
    T& at(ML::i32 x, ML::i32 y, ML::u32 channel = 0) {
        checkElementSize(sizeof(T));
        return *static_cast<T*>(element(x, y, channel));
    }
    template <class T>
    const T& at(ML::i32 x, ML::i32 y, ML::u32 channel = 0) const {
        checkElementSize(sizeof(T));
        return *static_cast<const T*>(element(x, y, channel));
    }

private:
    struct Geometry;
    OwnedImage(const Geometry& geometry, const ML::Rect& rect, ML::u32 channelFormat, ML::u32 memoryLayout,
               ML::u32 dataType, ML::u32 rowPadding);
    static Geometry geometry(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 memoryLayout, ML::u32 dataType,
                             ML::u32 rowPadding);
    void checkElementSize(std::size_t size) const;

    std::unique_ptr<std::byte[]> storage_;
    ML::u64 byteSize_ = 0;
    ML::u32 channels_ = 0;
    ML::u32 elementBytes_ = 0;
    ML::u32 rowPadding_ = 0;
    ML::u32 rowStride_ = 0;
    ML::u64 planeStride_ = 0;
};

}  // namespace QHost
