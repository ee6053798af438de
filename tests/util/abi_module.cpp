// A separately linked library that makes SDK objects and hands them out as ML::Ptr, as a host
// or backend would. Only the extern "C" functions are visible; every object counts its own
// destruction so the other side can tell when the last release deleted it.
#include <atomic>
#include <string>
#include <vector>

#include "ML/Buffer.h"
#include "ML/ImageImp.h"

#define ABI_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::atomic<ML::u32> g_destroyed{0};

template <class Base>
class Counted final : public Base {
public:
    using Base::Base;
    ~Counted() override { g_destroyed.fetch_add(1); }
};

}  // namespace

ABI_EXPORT ML::u32 abi_destroyed_count() { return g_destroyed.load(); }

// A fresh string at reference count 0, owned by nobody yet.
ABI_EXPORT ML::Reference* abi_new_raw_string(const char* text) {
    return static_cast<ML::Reference*>(new Counted<ML::StringTImp<char>>(text));
}

ABI_EXPORT ML::Ptr<ML::String> abi_make_string(const char* text) {
    return ML::Ptr<ML::String>(new Counted<ML::StringTImp<char>>(text));
}

ABI_EXPORT ML::Ptr<ML::WString> abi_make_wstring(const wchar_t* text) {
    return ML::Ptr<ML::WString>(new Counted<ML::StringTImp<wchar_t>>(text));
}

ABI_EXPORT ML::Ptr<ML::Shape> abi_make_shape(const ML::u64* values, ML::u64 count) {
    return ML::Ptr<ML::Shape>(new Counted<ML::ArrayTImp<10>>(std::vector<ML::u64>(values, values + count)));
}

ABI_EXPORT ML::Ptr<ML::Image> abi_make_image(ML::Rect rect, ML::u32 format, ML::u32 layout, ML::u32 type, void* data,
                                             ML::u32 rowBytes, ML::u32 channelBytes) {
    return ML::Ptr<ML::Image>(new Counted<ML::ImageImp>(rect, format, layout, type, data, rowBytes, channelBytes));
}

ABI_EXPORT ML::Ptr<ML::Buffer> abi_make_buffer(ML::u64 bytes) {
    return ML::Ptr<ML::Buffer>(new Counted<ML::BufferImp>(bytes));
}

// Takes a share of an object made on the other side and gives it back, as a callee that keeps
// a copy for a while would.
ABI_EXPORT ML::u32 abi_hold_and_report(ML::Ptr<ML::Buffer> buffer) {
    ML::Ptr<ML::Buffer> copy = buffer;
    const ML::u32 count = copy->addRef();
    copy->release();
    return count;
}
