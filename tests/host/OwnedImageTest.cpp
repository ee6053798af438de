#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>

#include "Host/OwnedImage.h"

using QHost::OwnedImage;

namespace {
std::ptrdiff_t offsetOf(const OwnedImage& image, const void* element) {
    return static_cast<const std::byte*>(element) - static_cast<const std::byte*>(image.getData());
}
}  // namespace

TEST(OwnedImage, InterleavedRowsWithPaddingAndOffsetOrigin) {
    const ML::Rect rect{10, 20, 15, 23};  // 5 x 3
    auto image = OwnedImage::make(rect, ML::Image::RGBA, ML::Image::HWC, ML::F32, 12);
    EXPECT_EQ(image->getRect(), rect);
    EXPECT_EQ(image->getRowBytes(), 5u * 4 * 4 + 12);
    EXPECT_EQ(image->byteSize(), 3u * (80 + 12));
    EXPECT_EQ(image->getData(), static_cast<void*>(image->storage()));

    EXPECT_EQ(offsetOf(*image, image->element(10, 20, 0)), 0);
    EXPECT_EQ(offsetOf(*image, image->element(11, 20, 2)), 16 + 8);
    EXPECT_EQ(offsetOf(*image, image->element(14, 22, 3)), 2 * 92 + 4 * 16 + 12);

    image->at<float>(12, 21, 1) = 0.5f;
    const auto* row = reinterpret_cast<const float*>(static_cast<const std::byte*>(image->getData()) + 92);
    EXPECT_EQ(row[2 * 4 + 1], 0.5f);
}

TEST(OwnedImage, PlanarPlanesFollowEachOther) {
    const ML::Rect rect{-4, 2, 0, 5};  // 4 x 3
    auto image = OwnedImage::make(rect, ML::Image::RGB, ML::Image::CHW, ML::U8, 3);
    EXPECT_EQ(image->getRowBytes(), 4u + 3);
    EXPECT_EQ(image->getChannelBytes(), 7u * 3);
    EXPECT_EQ(image->byteSize(), 3u * 21);
    EXPECT_EQ(offsetOf(*image, image->element(-3, 3, 2)), 2 * 21 + 7 + 1);
    image->at<std::uint8_t>(-1, 4, 1) = 9;
    EXPECT_EQ(static_cast<const std::uint8_t*>(image->getData())[21 + 2 * 7 + 3], 9);
}

TEST(OwnedImage, StartsZeroedAndPackedWithoutPadding) {
    auto image = OwnedImage::make({0, 0, 3, 2}, ML::Image::RG, ML::Image::HWC, ML::F16);
    EXPECT_EQ(image->getRowBytes(), 3u * 2 * 2);
    for (ML::u64 i = 0; i < image->byteSize(); ++i) EXPECT_EQ(image->storage()[i], std::byte{0});
    EXPECT_THROW(image->getChannelBytes(), std::runtime_error);
}

TEST(OwnedImage, EmptyRectangleStillHasData) {
    auto image = OwnedImage::make({5, 5, 5, 5}, ML::Image::R, ML::Image::HWC, ML::U8);
    EXPECT_NE(image->getData(), nullptr);
    EXPECT_EQ(image->byteSize(), 0u);
    EXPECT_THROW(image->element(5, 5), std::out_of_range);
}

TEST(OwnedImage, RefusesBadDescriptionsAndBadAccess) {
    EXPECT_THROW(OwnedImage({0, 0, 2, 2}, ML::Image::RGB, ML::Image::HWC, ML::I32), std::invalid_argument);
    EXPECT_THROW(OwnedImage({0, 0, 2, 2}, 6, ML::Image::HWC, ML::U8), std::invalid_argument);
    EXPECT_THROW(OwnedImage({0, 0, 2, 2}, ML::Image::RGB, 2, ML::U8), std::invalid_argument);
    EXPECT_THROW(OwnedImage({2, 0, 0, 2}, ML::Image::RGB, ML::Image::HWC, ML::U8), std::invalid_argument);
    EXPECT_THROW(OwnedImage({0, 0, 1 << 30, 1}, ML::Image::RGBA, ML::Image::HWC, ML::F32), std::invalid_argument);

    auto image = OwnedImage::make({0, 0, 2, 2}, ML::Image::RGB, ML::Image::HWC, ML::F32);
    EXPECT_THROW(image->element(2, 0), std::out_of_range);
    EXPECT_THROW(image->element(0, -1), std::out_of_range);
    EXPECT_THROW(image->element(0, 0, 3), std::out_of_range);
    EXPECT_THROW(image->at<std::uint8_t>(0, 0), std::invalid_argument);
}

