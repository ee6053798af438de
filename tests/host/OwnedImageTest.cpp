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

TEST(OwnedImage, RowsAndPlanesWithPaddingAndOffsetOrigin) {
    // 5 x 3 interleaved RGBA F32 rows of 80 bytes + 12 padding.
    auto packed = OwnedImage::make({10, 20, 15, 23}, ML::Image::RGBA, ML::Image::HWC, ML::F32, 12);
    EXPECT_EQ(packed->getRowBytes(), 92u);
    EXPECT_EQ(packed->byteSize(), 3u * 92);
    EXPECT_EQ(offsetOf(*packed, packed->element(14, 22, 3)), 2 * 92 + 4 * 16 + 12);
    for (ML::u64 i = 0; i < packed->byteSize(); ++i) ASSERT_EQ(packed->storage()[i], std::byte{0});

    // 4 x 3 planar RGB U8 rows of 4 bytes + 3 padding, planes of 21 bytes.
    auto planar = OwnedImage::make({-4, 2, 0, 5}, ML::Image::RGB, ML::Image::CHW, ML::U8, 3);
    EXPECT_EQ(planar->getRowBytes(), 7u);
    EXPECT_EQ(planar->getChannelBytes(), 21u);
    EXPECT_EQ(planar->byteSize(), 3u * 21);
    planar->at<std::uint8_t>(-1, 4, 1) = 9;
    EXPECT_EQ(static_cast<const std::uint8_t*>(planar->getData())[21 + 2 * 7 + 3], 9);

    auto empty = OwnedImage::make({5, 5, 5, 5}, ML::Image::R, ML::Image::HWC, ML::U8);
    EXPECT_NE(empty->getData(), nullptr);
    EXPECT_EQ(empty->byteSize(), 0u);
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
