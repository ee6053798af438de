#include "ML/ImageImp.h"

#include <array>
#include <stdexcept>

#include "Util/ML_Util.h"

namespace ML {

namespace {

// Bytes of one element, indexed by DataType. Constant-initialised, so it is filled before any
// code of the library runs.
constexpr std::array<u32, 11> kBytesPerElement = {
    1,  // U8
    1,  // I8
    2,  // U16
    2,  // I16
    4,  // U32
    4,  // I32
    8,  // U64
    8,  // I64
    2,  // F16
    4,  // F32
    8,  // SIZE_T
};

}  // namespace

u32 bytesPerElement(u32 dataType) { return kBytesPerElement.at(dataType); }

u32 ImageImp::getRowBytes() const {
    if (!data_) throw std::runtime_error("getRowBytes should not be called on image that does not have a data pointer");
    if (rowBytes_ != 0) return rowBytes_;
    const u64 width = rect_.width() > 0 ? static_cast<u64>(rect_.width()) : 0;
    const u64 element = bytesPerElement(type_);
    if (layout_ == CHW) return static_cast<u32>(element * width);
    if (layout_ == HWC) return static_cast<u32>(channelCount(format_) * element * width);
    throw std::runtime_error("getRowBytes called on image of unknown memory layout " + std::to_string(layout_));
}

u32 ImageImp::getChannelBytes() const {
    if (!data_)
        throw std::runtime_error("getChannelBytes should not be called on image that does not have a data pointer");
    if (layout_ != CHW) throw std::runtime_error("getChannelBytes should only be called on planar (CHW) image");
    if (channelBytes_ == 0) throw std::runtime_error("not implemented! get packed channel bytes for CHW image!\n");
    return channelBytes_;
}

}  // namespace ML
