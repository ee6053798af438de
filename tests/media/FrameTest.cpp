// Frames, their conversions and the small option types of the media library.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/FrameRate.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;

TEST(Frame, LayoutSamplesAndBadShapes) {
    Frame f(5, 3, 4, ML::F32);
    EXPECT_EQ(f.byteSize(), 240u);
    EXPECT_EQ(f.row(2) - f.data(), 160);
    for (size_t i = 0; i < f.byteSize(); ++i) ASSERT_EQ(f.data()[i], 0);

    // 8-bit samples round and clamp; NaN becomes 0.
    Frame u8(1, 1, 1, ML::U8);
    for (const auto& [value, stored] : {std::pair{0.5f, 128}, {7.0f, 255}, {-1.0f, 0}, {NAN, 0}}) {
        u8.setSample(0, 0, 0, value);
        EXPECT_EQ(u8.data()[0], stored) << value;
    }
    Frame h(1, 1, 2, ML::F16);
    h.setSample(0, 0, 1, 3.25f);
    EXPECT_EQ(float(reinterpret_cast<const Imath::half*>(h.data())[1]), 3.25f);
    EXPECT_EQ(h.sample(0, 0, 1), 3.25f);

    for (const auto& [w, hgt, c, type] : {std::tuple{0, 4, 3, ML::U8}, {4, -1, 3, ML::U8}, {4, 4, 0, ML::U8},
                                          {4, 4, 5, ML::U8}, {4, 4, 3, ML::U16}, {1 << 30, 1 << 30, 4, ML::F32}})
        EXPECT_THROW(Frame(w, hgt, c, type), ML::Exception) << w << "x" << hgt << "x" << c << " type " << type;
}

TEST(FrameConvert, TypesRoundTripAndChannelsFollowGrayRgbAlphaRules) {
    const Frame u8 = QMediaTest::gradient(17, 9, 3, ML::U8);
    EXPECT_EQ(convertType(convertType(u8, ML::F32), ML::U8), u8);
    EXPECT_EQ(convertType(convertType(u8, ML::F16), ML::U8), u8);  // 8 bits fit a half's mantissa
    Frame third(1, 1, 1, ML::F32);
    third.setSample(0, 0, 0, 1.0f / 3.0f);
    EXPECT_EQ(convertType(third, ML::F16).sample(0, 0, 0), float(Imath::half(1.0f / 3.0f)));
    EXPECT_THROW(convertType(third, ML::I32), ML::Exception);

    Frame rgba(1, 1, 4, ML::F32);
    const float px[4] = {0.2f, 0.4f, 0.6f, 0.3f};
    for (int c = 0; c < 4; ++c) rgba.setSample(0, 0, c, px[c]);
    const Frame rgb = convertChannels(rgba, 3);
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(rgb.sample(0, 0, c), px[c]);
    const Frame grayAlpha = convertChannels(rgba, 2);
    EXPECT_NEAR(grayAlpha.sample(0, 0, 0), 0.2126f * 0.2f + 0.7152f * 0.4f + 0.0722f * 0.6f, 1e-6f);
    EXPECT_FLOAT_EQ(grayAlpha.sample(0, 0, 1), 0.3f);
    EXPECT_FLOAT_EQ(convertChannels(rgb, 4).sample(0, 0, 3), 1.0f);

    Frame gray(1, 1, 1, ML::U8);
    gray.setSample(0, 0, 0, 0.8f);
    const Frame spread = convertChannels(gray, 4);
    EXPECT_EQ(spread.data()[0], gray.data()[0]);
    EXPECT_EQ(spread.data()[2], gray.data()[0]);
    EXPECT_EQ(spread.data()[3], 255);
    EXPECT_THROW(convertChannels(gray, 5), ML::Exception);
}

TEST(FrameRate, NumbersAndFractions) {
    const std::pair<const char*, FrameRate> good[] = {
        {"24", {24, 1}},           {"29.97", {30000, 1001}}, {"23.976", {24000, 1001}}, {"12.5", {25, 2}},
        {"60000/1001", {60000, 1001}}, {"50/2", {25, 1}},
    };
    for (const auto& [text, rate] : good) EXPECT_TRUE(FrameRate::parse(text) == rate) << text;
    for (const char* bad : {"", "abc", "24fps", "0", "1/0", "-24", "/5", "5/"})
        EXPECT_THROW(FrameRate::parse(bad), ML::Exception) << bad;
    EXPECT_THROW(FrameRate::fromDouble(-5), ML::Exception);
}
