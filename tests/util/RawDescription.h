#pragma once
// An image description whose fields are taken as given, so that values no real image has can be
// tried; it holds no pixels.
#include "ML/ImageImp.h"

class RawDescription : public ML::Image, public virtual ML::ReferenceImp {
public:
    RawDescription(ML::u32 format, ML::u32 layout, ML::u32 type, int size = 2)
        : format(format), layout(layout), type(type), size(size) {}
    ML::Rect getRect() const override { return {0, 0, size, size}; }
    ML::u32 getDataType() const override { return type; }
    ML::u32 getChannelFormat() const override { return format; }
    ML::u32 getMemoryLayout() const override { return layout; }
    void* getData() override { return nullptr; }
    const void* getData() const override { return nullptr; }
    void setData(void*) override {}
    ML::u32 getRowBytes() const override { return 0; }
    ML::u32 getChannelBytes() const override { return 0; }

private:
    ML::u32 format, layout, type;
    int size;
};
