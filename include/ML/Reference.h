#pragma once
// Reference-counted interfaces that cross library borders, their implementations and ML::Ptr.
// All inheritance from Reference and Handle is virtual so an implementation can combine an
// interface with the shared implementation bases.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ML/Types.h"

namespace ML {

class Reference {
public:
    virtual ~Reference() = default;
    virtual u32 addRef() = 0;
    virtual u32 release() = 0;
};

// A block of raw memory with a size.
class Handle : public virtual Reference {
public:
    ~Handle() override = default;
    virtual i32 allocate(u64 bytes) = 0;
    virtual i32 deallocate() = 0;
    virtual u64 getSize() const = 0;
    virtual void* getData() const = 0;
};

template <class Ch>
class StringT : public virtual Handle {
public:
    virtual bool isEmpty() const = 0;
};

template <u32 Type>
class ArrayT;

// Array of 8-byte elements: tensor shapes cross the border in it.
template <>
class ArrayT<10> : public virtual Handle {
public:
    virtual i32 resize(u64 count) = 0;
    virtual u64 size() const = 0;
    virtual u64* at(int index) const = 0;
    virtual u64* data() const = 0;
};

class ReferenceImp : public virtual Reference {
public:
    u32 addRef() override { return count.fetch_add(1, std::memory_order_relaxed) + 1; }
    u32 release() override {
        const u32 left = count.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;
        return left;
    }
    u32 useCount() const { return count.load(); }

private:
    std::atomic<u32> count{0};
};

class HandleImp : public virtual Handle, public virtual ReferenceImp {
public:
    HandleImp() = default;
    HandleImp(const HandleImp&) = delete;
    HandleImp& operator=(const HandleImp&) = delete;
    ~HandleImp() override { std::free(ptr); }
    i32 allocate(u64 bytes) override {
        deallocate();
        if (bytes == 0) return 0;
        ptr = std::calloc(bytes, 1);
        if (!ptr) return 4;
        bytes_ = bytes;
        return 0;
    }
    i32 deallocate() override {
        std::free(ptr);
        ptr = nullptr;
        bytes_ = 0;
        return 0;
    }
    u64 getSize() const override { return bytes_; }
    void* getData() const override { return ptr; }

private:
    void* ptr = nullptr;
    u64 bytes_ = 0;
};

// Immutable string: allocate and deallocate are refused with status 4.
template <class Ch>
class StringTImp : public StringT<Ch>, public virtual ReferenceImp {
public:
    explicit StringTImp(std::basic_string<Ch> s = {}) : text(std::move(s)) {}
    explicit StringTImp(const Ch* s) : text(s ? s : std::basic_string<Ch>{}) {}
    i32 allocate(u64) override { return 4; }
    i32 deallocate() override { return 4; }
    u64 getSize() const override { return text.size(); }
    void* getData() const override { return const_cast<Ch*>(text.c_str()); }
    bool isEmpty() const override { return text.empty(); }

private:
    std::basic_string<Ch> text;
};

template <u32 Type>
class ArrayTImp;

template <>
class ArrayTImp<10> : public ArrayT<10>, public HandleImp, public virtual ReferenceImp {
public:
    ArrayTImp() = default;
    explicit ArrayTImp(const std::vector<u64>& values) {
        resize(values.size());
        if (!values.empty()) std::memcpy(data(), values.data(), values.size() * 8);
    }
    i32 resize(u64 count) override { return allocate(count * 8); }
    u64 size() const override { return getSize() >> 3; }
    u64* at(int index) const override { return static_cast<u64*>(getData()) + index; }
    u64* data() const override { return static_cast<u64*>(getData()); }
};

// Intrusive reference-counting pointer, one pointer wide.
template <class T>
class Ptr {
public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    Ptr(T* p) : p_(p) { retain(); }
    Ptr(const Ptr& o) : p_(o.p_) { retain(); }
    Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(const Ptr<U>& o) : p_(o.get()) { retain(); }
    ~Ptr() { reset(); }
    Ptr& operator=(const Ptr& o) {
        if (this != &o) {
            T* old = p_;
            p_ = o.p_;
            retain();
            if (old) static_cast<Reference*>(old)->release();
        }
        return *this;
    }
    Ptr& operator=(Ptr&& o) noexcept {
        if (this != &o) {
            reset();
            p_ = o.p_;
            o.p_ = nullptr;
        }
        return *this;
    }
    void reset() {
        if (p_) {
            T* old = p_;
            p_ = nullptr;
            static_cast<Reference*>(old)->release();
        }
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    bool operator==(const Ptr& o) const { return p_ == o.p_; }
    bool operator!=(const Ptr& o) const { return p_ != o.p_; }

private:
    void retain() {
        if (p_) static_cast<Reference*>(p_)->addRef();
    }
    T* p_ = nullptr;
};

template <class T, class... Args>
Ptr<T> makePtr(Args&&... args) {
    return Ptr<T>(new T(std::forward<Args>(args)...));
}

using String = StringT<char>;
using WString = StringT<wchar_t>;
using Shape = ArrayT<10>;

inline Ptr<String> makeString(const std::string& s) { return Ptr<String>(new StringTImp<char>(s)); }
inline Ptr<WString> makeWString(const std::wstring& s) { return Ptr<WString>(new StringTImp<wchar_t>(s)); }

// Copies an SDK string into a standard string; a null pointer gives the empty string.
template <class Ch>
std::basic_string<Ch> toStd(const Ptr<StringT<Ch>>& s) {
    if (!s) return {};
    return std::basic_string<Ch>(static_cast<const Ch*>(s->getData()), s->getSize());
}

}  // namespace ML
