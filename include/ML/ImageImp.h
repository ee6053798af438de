#pragma once
// Image description shared by host, plug-in and backends. An ImageImp never owns its pixels.
#include <stdexcept>

#include "ML/Rect.h"
#include "ML/Reference.h"

namespace ML {

// Bytes per element of every DataType, indexed by value (0..10).
u32 bytesPerElement(u32 dataType);

class Image : public virtual Reference {
public:
    enum ChannelFormat : u32 { RGB = 0, RGBA = 1, R = 2, RG = 3, ARGB = 4, BGR = 5 };
    enum MemoryLayout : u32 { HWC = 0, CHW = 1 };

    virtual Rect getRect() const = 0;
    virtual u32 getDataType() const = 0;
    virtual u32 getChannelFormat() const = 0;
    virtual u32 getMemoryLayout() const = 0;
    virtual void* getData() = 0;
    virtual const void* getData() const = 0;
    virtual void setData(void* data) = 0;
    virtual u32 getRowBytes() const = 0;
    virtual u32 getChannelBytes() const = 0;
};

class ImageImp : public Image, public virtual ReferenceImp {
public:
    // Description only: no pixels, both strides 0.
    ImageImp(const Rect& rect, u32 channelFormat, u32 memoryLayout, u32 dataType)
        : ImageImp(rect, channelFormat, memoryLayout, dataType, nullptr, 0, 0) {}
    ImageImp(const Rect& rect, u32 channelFormat, u32 memoryLayout, u32 dataType, void* data, u32 rowBytes,
             u32 channelBytes)
        : rect_(rect), format_(channelFormat), layout_(memoryLayout), type_(dataType), data_(data),
          rowBytes_(rowBytes), channelBytes_(channelBytes) {
        if (dataType != U8 && dataType != F16 && dataType != F32)
            throw std::runtime_error("Unsupported image data type");
    }

    Rect getRect() const override { return rect_; }
    u32 getDataType() const override { return type_; }
    u32 getChannelFormat() const override { return format_; }
    u32 getMemoryLayout() const override { return layout_; }
    void* getData() override { return data_; }
    const void* getData() const override { return data_; }
    void setData(void* data) override { data_ = data; }
    u32 getRowBytes() const override;
    u32 getChannelBytes() const override;

private:
    Rect rect_;
    u32 format_;
    u32 layout_;
    u32 type_;
    void* data_;
    u32 rowBytes_;
    u32 channelBytes_;
};

}  // namespace ML
