// Pixels between frames and host images.
#include <gtest/gtest.h>

#include "Host/Cli/ImageBridge.h"

using namespace QCli;

TEST(CliImageBridge, FramesToHostImages) {
    QMedia::Frame gray(3, 2, 1, ML::F32);
    gray.setSample(2, 1, 0, 0.75f);
    const auto rgb = toHostImage(gray);  // gray becomes RGB and keeps its type
    EXPECT_EQ(rgb->getChannelFormat(), ML::ImageImp::RGB);
    EXPECT_EQ(rgb->getDataType(), ML::F32);
    EXPECT_EQ(rgb->getMemoryLayout(), ML::ImageImp::HWC);
    EXPECT_EQ(rgb->getRect(), (ML::Rect{0, 0, 3, 2}));
    for (ML::u32 c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(rgb->at<float>(2, 1, c), 0.75f);
    EXPECT_FLOAT_EQ(rgb->at<float>(0, 0, 0), 0.0f);

    QMedia::Frame rgbaFrame(2, 2, 4, ML::U8);
    rgbaFrame.setSample(1, 0, 3, 1.0f);
    const auto rgba = toHostImage(rgbaFrame);
    EXPECT_EQ(rgba->getChannelFormat(), ML::ImageImp::RGBA);
    EXPECT_EQ(rgba->at<std::uint8_t>(1, 0, 3), 255);
}

TEST(CliImageBridge, OutputsToFramesInterleavedAndPlacedByRegion) {
    auto image = makeOutputImage(ML::Rect{1, 2, 3, 4}, ML::ImageImp::RGB, ML::F32, ML::ImageImp::CHW);
    for (ML::u32 c = 0; c < 3; ++c) image->at<float>(2, 3, c) = 0.1f * float(c + 1);
    const QMedia::Frame frame = toFrame(*image, 5, 6);
    EXPECT_EQ(frame.width(), 5);
    EXPECT_EQ(frame.height(), 6);
    EXPECT_EQ(frame.channels(), 3);
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(frame.sample(2, 3, c), 0.1f * float(c + 1));
    EXPECT_FLOAT_EQ(frame.sample(1, 2, 0), 0.0f);
    EXPECT_FLOAT_EQ(frame.sample(3, 3, 0), 0.0f);
    EXPECT_THROW(toFrame(*image, 2, 2), std::invalid_argument);
}
