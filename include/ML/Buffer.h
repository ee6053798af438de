#pragma once
#include <cstdlib>

#include "ML/Reference.h"

namespace ML {

// Opaque bytes: state between renders, JSON and binary results.
class Buffer : public virtual Reference {
public:
    virtual u64 getSize() const = 0;
    virtual void resize(u64 bytes) = 0;  // old contents are not kept
    virtual void* getData() const = 0;
};

class BufferImp : public Buffer, public virtual ReferenceImp {
public:
    explicit BufferImp(u64 bytes = 0) { resize(bytes); }
    BufferImp(const BufferImp&) = delete;
    BufferImp& operator=(const BufferImp&) = delete;
    ~BufferImp() override { std::free(ptr); }
    u64 getSize() const override { return size; }
    void resize(u64 bytes) override {
        void* fresh = bytes ? std::malloc(bytes) : nullptr;
        std::free(ptr);
        ptr = fresh;
        size = fresh ? bytes : 0;
    }
    void* getData() const override { return ptr; }

private:
    void* ptr = nullptr;
    u64 size = 0;
};

}  // namespace ML
