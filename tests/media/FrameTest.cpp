// Frames, their conversions and the small option types of the media library.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include "Host/Media/Frame.h"
#include "Host/Media/FrameConvert.h"
#include "Host/Media/FrameRate.h"
#include "Host/Media/ImageWriteOptions.h"
#include "Host/Media/VideoWriteOptions.h"
#include "ML/Exception.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;

TEST(Frame, SizesAndZeroFill) {
    Frame f(5, 3, 4, ML::F32);
    EXPECT_EQ(f.pixelBytes(), 16u);
    EXPECT_EQ(f.rowBytes(), 80u);
    EXPECT_EQ(f.byteSize(), 240u);
    EXPECT_EQ(f.row(2) - f.data(), 160);
    for (size_t i = 0; i < f.byteSize(); ++i) ASSERT_EQ(f.data()[i], 0);
    EXPECT_TRUE(Frame().empty());
}

TEST(Frame, RejectsBadShapesAndTypes) {
    EXPECT_THROW(Frame(0, 4, 3, ML::U8), ML::Exception);
    EXPECT_THROW(Frame(4, -1, 3, ML::U8), ML::Exception);
    EXPECT_THROW(Frame(4, 4, 0, ML::U8), ML::Exception);
    EXPECT_THROW(Frame(4, 4, 5, ML::U8), ML::Exception);
    EXPECT_THROW(Frame(4, 4, 3, ML::U16), ML::Exception);
    EXPECT_THROW(Frame(1 << 30, 1 << 30, 4, ML::F32), ML::Exception);
}

TEST(Frame, SamplesRoundClampAndKeepHalf) {
    Frame u8(2, 1, 1, ML::U8);
    u8.setSample(0, 0, 0, 0.5f);
    EXPECT_EQ(u8.data()[0], 128);
    u8.setSample(1, 0, 0, 7.0f);
    EXPECT_EQ(u8.data()[1], 255);
    u8.setSample(1, 0, 0, -1.0f);
    EXPECT_EQ(u8.data()[1], 0);
    u8.setSample(1, 0, 0, NAN);
    EXPECT_EQ(u8.data()[1], 0);

    Frame h(1, 1, 2, ML::F16);
    h.setSample(0, 0, 1, 3.25f);
    const auto* halves = reinterpret_cast<const Imath::half*>(h.data());
    EXPECT_EQ(float(halves[1]), 3.25f);
    EXPECT_EQ(h.sample(0, 0, 1), 3.25f);
}

TEST(FrameConvert, TypeRoundTripsAreExact) {
    const Frame u8 = QMediaTest::gradient(17, 9, 3, ML::U8);
    EXPECT_EQ(convertType(convertType(u8, ML::F32), ML::U8), u8);
    EXPECT_EQ(convertType(convertType(u8, ML::F16), ML::U8), u8);  // 8 bits fit a half's mantissa

    Frame f(1, 1, 1, ML::F32);
    f.setSample(0, 0, 0, 1.0f / 3.0f);
    const Frame h = convertType(f, ML::F16);
    EXPECT_EQ(h.type(), ML::F16);
    EXPECT_EQ(h.sample(0, 0, 0), float(Imath::half(1.0f / 3.0f)));
    EXPECT_THROW(convertType(f, ML::I32), ML::Exception);
}

TEST(FrameConvert, ChannelsFollowGrayRgbAlphaRules) {
    Frame rgba(1, 1, 4, ML::F32);
    const float px[4] = {0.2f, 0.4f, 0.6f, 0.3f};
    for (int c = 0; c < 4; ++c) rgba.setSample(0, 0, c, px[c]);

    const Frame rgb = convertChannels(rgba, 3);
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(rgb.sample(0, 0, c), px[c]);

    const Frame grayAlpha = convertChannels(rgba, 2);
    EXPECT_NEAR(grayAlpha.sample(0, 0, 0), 0.2126f * 0.2f + 0.7152f * 0.4f + 0.0722f * 0.6f, 1e-6f);
    EXPECT_FLOAT_EQ(grayAlpha.sample(0, 0, 1), 0.3f);

    const Frame opaque = convertChannels(rgb, 4);
    EXPECT_FLOAT_EQ(opaque.sample(0, 0, 3), 1.0f);

    Frame gray(1, 1, 1, ML::U8);
    gray.setSample(0, 0, 0, 0.8f);
    const Frame spread = convertChannels(gray, 4);
    EXPECT_EQ(spread.data()[0], gray.data()[0]);
    EXPECT_EQ(spread.data()[2], gray.data()[0]);
    EXPECT_EQ(spread.data()[3], 255);
    EXPECT_THROW(convertChannels(gray, 5), ML::Exception);
}

TEST(FrameRate, FromDoubleFindsExactFractions) {
    EXPECT_EQ(FrameRate::fromDouble(24).num, 24);
    EXPECT_EQ(FrameRate::fromDouble(24).den, 1);
    const FrameRate ntsc = FrameRate::fromDouble(29.97);
    EXPECT_EQ(ntsc.num, 30000);
    EXPECT_EQ(ntsc.den, 1001);
    EXPECT_EQ(FrameRate::fromDouble(23.976).num, 24000);
    const FrameRate half = FrameRate::fromDouble(12.5);
    EXPECT_EQ(half.num, 25);
    EXPECT_EQ(half.den, 2);
    EXPECT_THROW(FrameRate::fromDouble(0), ML::Exception);
    EXPECT_THROW(FrameRate::fromDouble(-5), ML::Exception);
}

TEST(FrameRate, ParsesNumbersAndFractions) {
    EXPECT_TRUE(FrameRate::parse("60000/1001") == (FrameRate{60000, 1001}));
    EXPECT_TRUE(FrameRate::parse("50/2") == (FrameRate{25, 1}));
    EXPECT_TRUE(FrameRate::parse("25") == (FrameRate{25, 1}));
    for (const char* bad : {"", "abc", "24fps", "0", "1/0", "-24", "/5", "5/"})
        EXPECT_THROW(FrameRate::parse(bad), ML::Exception) << bad;
}

TEST(WriteOptions, ParseNames) {
    EXPECT_EQ(parseBitDepth("16"), BitDepth::U16);
    EXPECT_EQ(parseBitDepth("Half"), BitDepth::F16);
    EXPECT_EQ(parseBitDepth("float"), BitDepth::F32);
    EXPECT_THROW(parseBitDepth("12"), ML::Exception);
    EXPECT_EQ(parseVideoCodec("FFV1"), VideoCodec::FFV1);
    EXPECT_THROW(parseVideoCodec("prores"), ML::Exception);
}
