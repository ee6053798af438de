// Device tensors of the ONNX Runtime backend: sizes, copies and views.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

class OrtTensors : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);
};

TEST_F(OrtTensors, ByteSizeFollowsShapeAndType) {
    auto tensor = context->createTensor({1, 3, 8, 8}, F16);
    EXPECT_EQ(tensor->getByteSize(), 384u);
    EXPECT_EQ(tensor->getShape(), (std::vector<u64>{1, 3, 8, 8}));
    EXPECT_EQ(tensor->getDataType(), F16);
    EXPECT_EQ(context->createTensor({2, 5}, SIZE_T)->getByteSize(), 80u);
}

TEST_F(OrtTensors, NewTensorsAreZeroAndRoundTrip) {
    auto tensor = context->createTensor({4, 16}, F32);
    std::vector<float> values(64, -1.0f);
    tensor->download(values.data());
    EXPECT_EQ(values, std::vector<float>(64, 0.0f));
    std::iota(values.begin(), values.end(), 1.0f);
    tensor->upload(values.data());
    std::vector<float> back(64);
    tensor->download(back.data());
    EXPECT_EQ(back, values);
}

TEST_F(OrtTensors, CopyFromCopiesTheWholeTensor) {
    auto source = context->createTensor({8}, I32);
    auto target = context->createTensor({8}, I32);
    const std::vector<i32> values{1, -2, 3, -4, 5, -6, 7, -8};
    source->upload(values.data());
    target->copyFrom(*source);
    std::vector<i32> back(8);
    target->download(back.data());
    EXPECT_EQ(back, values);
}

TEST_F(OrtTensors, CopyBetweenDifferentSizesIsRefused) {
    auto source = context->createTensor({8}, I32);
    auto target = context->createTensor({4}, I32);
    try {
        target->copyFrom(*source);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.source(), Exception::BACKEND);
        EXPECT_NE(std::string(e.what()).find("32 bytes into 16"), std::string::npos) << e.what();
    }
}

TEST_F(OrtTensors, ViewSharesMemoryWithItsTensor) {
    auto bytes = context->createTensor({1024}, U8);
    auto view = bytes->view({16, 16}, F32);
    EXPECT_EQ(view->getByteSize(), 1024u);
    EXPECT_EQ(view->getShape(), (std::vector<u64>{16, 16}));
    std::vector<float> values(256);
    std::iota(values.begin(), values.end(), 0.25f);
    view->upload(values.data());
    std::vector<u8> raw(1024);
    bytes->download(raw.data());
    EXPECT_EQ(std::memcmp(raw.data(), values.data(), 1024), 0);
}

TEST_F(OrtTensors, SmallerViewCoversTheStartOnly) {
    auto bytes = context->createTensor({64}, U8);
    auto view = bytes->view({4}, F32);
    const std::vector<float> values{1, 2, 3, 4};
    view->upload(values.data());
    std::vector<u8> raw(64, 0xAB);
    bytes->download(raw.data());
    EXPECT_EQ(std::memcmp(raw.data(), values.data(), 16), 0);
    EXPECT_EQ(std::vector<u8>(raw.begin() + 16, raw.end()), std::vector<u8>(48, 0));
}

TEST_F(OrtTensors, ViewKeepsTheMemoryAliveAfterItsTensorGoes) {
    auto bytes = context->createTensor({16}, U8);
    const std::vector<u8> values{9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 1, 2, 3, 4, 5, 6};
    bytes->upload(values.data());
    auto view = bytes->view({2, 8}, U8);
    bytes.reset();
    std::vector<u8> back(16);
    view->download(back.data());
    EXPECT_EQ(back, values);
}

TEST_F(OrtTensors, ViewLargerThanTheMemoryIsRefused) {
    auto bytes = context->createTensor({100}, U8);
    try {
        bytes->view({100}, F32);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.source(), Exception::BACKEND);
        EXPECT_EQ(e.code(), Exception::INTERNAL);
        EXPECT_NE(std::string(e.what()).find("needs 400 bytes, the tensor has 100"), std::string::npos) << e.what();
    }
}

TEST_F(OrtTensors, UnknownDataTypeIsRefusedByTheBackend) {
    try {
        context->createTensor({4}, 11);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.source(), Exception::BACKEND);
        EXPECT_NE(std::string(e.what()).find("Unknown tensor data type 11"), std::string::npos) << e.what();
    }
}

TEST_F(OrtTensors, ImpossiblyLargeShapeIsRefusedNotAllocated) {
    EXPECT_THROW(context->createTensor({u64(1) << 62, 16}, F32), Exception);
}

TEST_F(OrtTensors, EmptyTensorsAreAllowed) {
    auto empty = context->createTensor({0, 3}, F32);
    EXPECT_EQ(empty->getByteSize(), 0u);
    EXPECT_NO_THROW(empty->upload(nullptr));
    EXPECT_NO_THROW(empty->download(nullptr));
}
