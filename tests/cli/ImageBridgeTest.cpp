// Pixels between frames and host images.
#include <gtest/gtest.h>

#include "Host/Cli/ImageBridge.h"

using namespace QCli;

TEST(CliImageBridge, GrayBecomesRgbAndKeepsType) {
    QMedia::Frame gray(3, 2, 1, ML::F32);
    gray.setSample(2, 1, 0, 0.75f);
    const auto image = toHostImage(gray);
    EXPECT_EQ(image->getChannelFormat(), ML::ImageImp::RGB);
    EXPECT_EQ(image->getDataType(), ML::F32);
    EXPECT_EQ(image->getMemoryLayout(), ML::ImageImp::HWC);
    EXPECT_EQ(image->getRect().x1, 3);
    EXPECT_EQ(image->getRect().y1, 2);
    for (ML::u32 c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(image->at<float>(2, 1, c), 0.75f);
    EXPECT_FLOAT_EQ(image->at<float>(0, 0, 0), 0.0f);
}

TEST(CliImageBridge, RgbaStaysRgba) {
    QMedia::Frame rgba(2, 2, 4, ML::U8);
    rgba.setSample(1, 0, 3, 1.0f);
    const auto image = toHostImage(rgba);
    EXPECT_EQ(image->getChannelFormat(), ML::ImageImp::RGBA);
    EXPECT_EQ(image->at<std::uint8_t>(1, 0, 3), 255);
}

TEST(CliImageBridge, OutputRegionIsPlacedInTheFrame) {
    ML::Rect roi;
    roi.x0 = 1;
    roi.y0 = 2;
    roi.x1 = 3;
    roi.y1 = 4;
    auto image = makeOutputImage(roi, ML::ImageImp::R, ML::F32, ML::ImageImp::CHW);
    image->at<float>(1, 2) = 0.5f;
    image->at<float>(2, 3) = 0.25f;
    const QMedia::Frame frame = toFrame(*image, 5, 6);
    EXPECT_EQ(frame.width(), 5);
    EXPECT_EQ(frame.height(), 6);
    EXPECT_EQ(frame.channels(), 1);
    EXPECT_FLOAT_EQ(frame.sample(1, 2, 0), 0.5f);
    EXPECT_FLOAT_EQ(frame.sample(2, 3, 0), 0.25f);
    EXPECT_FLOAT_EQ(frame.sample(0, 0, 0), 0.0f);
    EXPECT_THROW(toFrame(*image, 2, 2), std::invalid_argument);
}

TEST(CliImageBridge, PlanarColourIsInterleaved) {
    ML::Rect rect;
    rect.x1 = 2;
    rect.y1 = 1;
    auto image = makeOutputImage(rect, ML::ImageImp::RGB, ML::F32, ML::ImageImp::CHW);
    image->at<float>(1, 0, 0) = 0.1f;
    image->at<float>(1, 0, 1) = 0.2f;
    image->at<float>(1, 0, 2) = 0.3f;
    const QMedia::Frame frame = toFrame(*image, 2, 1);
    EXPECT_FLOAT_EQ(frame.sample(1, 0, 0), 0.1f);
    EXPECT_FLOAT_EQ(frame.sample(1, 0, 1), 0.2f);
    EXPECT_FLOAT_EQ(frame.sample(1, 0, 2), 0.3f);
    EXPECT_FLOAT_EQ(frame.sample(0, 0, 1), 0.0f);
}
