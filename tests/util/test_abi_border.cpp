// SDK objects made in a separately loaded library and used, shared and released on this side.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ML/Buffer.h"
#include "ML/ImageImp.h"

namespace {

class AbiBorder : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        module = dlopen(QUILLON_ABI_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(module, nullptr) << dlerror();
    }
    static void TearDownTestSuite() {
        if (module) dlclose(module);
        module = nullptr;
    }

    // The module's export name, with the type of the function it is.
    template <class F>
    static F* symbol(const char* name) {
        void* f = dlsym(module, name);
        if (!f) throw std::runtime_error(std::string("missing export ") + name);
        return reinterpret_cast<F*>(f);
    }

    static ML::u32 destroyed() { return symbol<ML::u32()>("abi_destroyed_count")(); }
    static ML::Ptr<ML::String> makeString(const char* text) {
        return symbol<ML::Ptr<ML::String>(const char*)>("abi_make_string")(text);
    }

    static void* module;
};

void* AbiBorder::module = nullptr;

TEST_F(AbiBorder, ReferenceCountsAndTheLastReleaseDeletesOnTheOtherSide) {
    // A fresh object counts 0, 1, 0 and dies at the last release.
    ML::Reference* raw = symbol<ML::Reference*(const char*)>("abi_new_raw_string")("fresh");
    const ML::u32 before = destroyed();
    EXPECT_EQ(raw->addRef(), 1u);
    EXPECT_EQ(raw->release(), 0u);
    EXPECT_EQ(destroyed(), before + 1);
    {
        // A returned Ptr holds exactly one reference; copies add one, moves none.
        ML::Ptr<ML::String> s = makeString("hello");
        EXPECT_EQ(s->addRef(), 2u);
        EXPECT_EQ(s->release(), 1u);
        {
            ML::Ptr<ML::String> copy = s;
            EXPECT_EQ(copy->addRef(), 3u);
            copy->release();
        }
        ML::Ptr<ML::String> moved = std::move(s);
        EXPECT_EQ(moved->addRef(), 2u);
        moved->release();
        EXPECT_EQ(destroyed(), before + 1);
    }
    EXPECT_EQ(destroyed(), before + 2);
}

TEST_F(AbiBorder, StringsAreImmutableAndShapesKeepTheirElements) {
    ML::Ptr<ML::String> s = makeString("quillon");
    EXPECT_EQ(s->allocate(64), 4);
    EXPECT_EQ(s->deallocate(), 4);
    EXPECT_EQ(s->getSize(), 7u);
    EXPECT_EQ(ML::toStd(s), "quillon");
    EXPECT_EQ(static_cast<const char*>(s->getData())[7], '\0');
    EXPECT_TRUE(makeString("")->isEmpty());
    ML::Ptr<ML::WString> wide = symbol<ML::Ptr<ML::WString>(const wchar_t*)>("abi_make_wstring")(L"wide");
    EXPECT_EQ(ML::toStd(wide), L"wide");
    EXPECT_EQ(wide->allocate(1), 4);

    const ML::u64 dims[] = {1, 3, 1080, 1920};
    auto makeShape = symbol<ML::Ptr<ML::Shape>(const ML::u64*, ML::u64)>("abi_make_shape");
    ML::Ptr<ML::Shape> shape = makeShape(dims, 4);
    ASSERT_EQ(shape->size(), 4u);
    EXPECT_EQ(shape->getSize(), 32u);
    EXPECT_EQ(*shape->at(2), 1080u);
    EXPECT_EQ(shape->resize(2), 0);
    EXPECT_EQ(shape->size(), 2u);
    EXPECT_EQ(shape->data()[0], 0u);  // a new block is zeroed
    EXPECT_EQ(makeShape(nullptr, 0)->size(), 0u);
}

TEST_F(AbiBorder, ImageStridesAndFailuresComeFromTheOtherSide) {
    float pixels[2 * 5 * 4] = {};
    auto make = symbol<ML::Ptr<ML::Image>(ML::Rect, ML::u32, ML::u32, ML::u32, void*, ML::u32, ML::u32)>("abi_make_image");
    const ML::Rect r{0, 0, 5, 2};
    ML::Ptr<ML::Image> hwc = make(r, ML::Image::RGBA, ML::Image::HWC, ML::F32, pixels, 0, 0);
    ML::Ptr<ML::Image> chw = make(r, ML::Image::RGBA, ML::Image::CHW, ML::F32, pixels, 0, 40);
    EXPECT_EQ(hwc->getRect(), r);
    EXPECT_EQ(hwc->getRowBytes(), 80u);
    EXPECT_EQ(chw->getRowBytes(), 20u);
    EXPECT_EQ(chw->getChannelBytes(), 40u);
    EXPECT_EQ(hwc->getData(), static_cast<void*>(pixels));
    EXPECT_THROW(hwc->getChannelBytes(), std::runtime_error);

    ML::Ptr<ML::Image> bare = make(r, ML::Image::R, ML::Image::HWC, ML::U8, nullptr, 0, 0);
    try {
        bare->getRowBytes();
        FAIL() << "no failure for an image without data";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "getRowBytes should not be called on image that does not have a data pointer");
    }
    bare->setData(pixels);
    EXPECT_EQ(bare->getRowBytes(), 5u);
    EXPECT_THROW(make(r, ML::Image::R, ML::Image::HWC, ML::U16, pixels, 0, 0), std::runtime_error);
}

TEST_F(AbiBorder, BuffersResizeAndAreSharedBothWays) {
    const ML::u32 before = destroyed();
    {
        ML::Ptr<ML::Buffer> buffer = symbol<ML::Ptr<ML::Buffer>(ML::u64)>("abi_make_buffer")(16);
        buffer->resize(1000);
        EXPECT_EQ(buffer->getSize(), 1000u);
        static_cast<char*>(buffer->getData())[999] = 'z';
        buffer->resize(0);
        EXPECT_EQ(buffer->getSize(), 0u);
        // Passed by value: the callee's parameter and its copy are two more references.
        EXPECT_EQ(symbol<ML::u32(ML::Ptr<ML::Buffer>)>("abi_hold_and_report")(buffer), 4u);
        EXPECT_EQ(buffer->addRef(), 2u);
        buffer->release();
    }
    EXPECT_EQ(destroyed(), before + 1);
}

}  // namespace
