// Device tensors of the ONNX Runtime backend: sizes, copies, views and refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

class OrtTensors : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);
};

TEST_F(OrtTensors, NewTensorsAreZeroRoundTripAndCopy) {
    EXPECT_EQ(context->createTensor({1, 3, 8, 8}, F16)->getByteSize(), 384u);
    auto tensor = context->createTensor({4, 16}, F32);
    std::vector<float> values(64, -1.0f);
    tensor->download(values.data());
    EXPECT_EQ(values, std::vector<float>(64, 0.0f));
    std::iota(values.begin(), values.end(), 1.0f);
    tensor->upload(values.data());
    auto copy = context->createTensor({64}, F32);
    copy->copyFrom(*tensor);
    std::vector<float> back(64);
    copy->download(back.data());
    EXPECT_EQ(back, values);

    auto empty = context->createTensor({0, 3}, F32);
    EXPECT_EQ(empty->getByteSize(), 0u);
    EXPECT_NO_THROW(empty->upload(nullptr));
    EXPECT_NO_THROW(empty->download(nullptr));
}

TEST_F(OrtTensors, ViewSharesTheStartOfTheMemoryAndKeepsItAlive) {
    auto bytes = context->createTensor({64}, U8);
    auto view = bytes->view({2, 2}, F32);
    EXPECT_EQ(view->getByteSize(), 16u);
    const std::vector<float> values{1, 2, 3, 4};
    view->upload(values.data());
    std::vector<u8> raw(64, 0xAB);
    bytes->download(raw.data());
    EXPECT_EQ(std::memcmp(raw.data(), values.data(), 16), 0);
    EXPECT_EQ(std::vector<u8>(raw.begin() + 16, raw.end()), std::vector<u8>(48, 0));

    auto whole = bytes->view({64}, U8);
    bytes.reset();
    std::vector<u8> back(64);
    whole->download(back.data());
    EXPECT_EQ(back, raw);
}

TEST_F(OrtTensors, RefusalsComeFromTheBackend) {
    auto i32x8 = context->createTensor({8}, I32);
    auto i32x4 = context->createTensor({4}, I32);
    auto u8x100 = context->createTensor({100}, U8);
    const struct { std::function<void()> body; const char* text; } cases[] = {
        {[&] { i32x4->copyFrom(*i32x8); }, "32 bytes into 16"},
        {[&] { u8x100->view({100}, F32); }, "needs 400 bytes, the tensor has 100"},
        {[&] { context->createTensor({4}, 11); }, "Unknown tensor data type 11"},
        {[&] { context->createTensor({u64(1) << 62, 16}, F32); }, ""},  // not allocated
    };
    for (const auto& c : cases) {
        const Exception e = exceptionOf(c.body);
        EXPECT_EQ(e.source(), Exception::BACKEND) << c.text;
        EXPECT_TRUE(contains(e, c.text)) << e.what();
    }
}
