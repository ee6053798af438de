// Changes of layout, element type and channel format: which network runs, and what the pixels
// look like afterwards, against the package's rules written out in plain C++.
#include "ConversionTestUtil.h"

using namespace ConversionTest;
using ML::Image;

namespace {

class ConversionFormats : public ConverterTest {};

TEST_F(ConversionFormats, PackedRgbaBytesToPlanarHalfRgbAndBack) {
    const int width = 9, height = 5;
    Owned host = makeU8Image({0, 0, width, height}, Image::RGBA, Image::HWC);
    auto description = describe(height, width, Image::RGB, Image::CHW, ML::F16);
    auto t = tensor({1, 3, height, width}, ML::F16);

    converter->hostImageToTensor(asImage(host), description, t);
    const std::vector<Imath::half> values = download<Imath::half>(*t);
    for (u32 c = 0; c < 3; ++c)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                ASSERT_EQ(float(values[(c * height + y) * width + x]),
                          float(Imath::half(u8ToFloat(host->at<u8>(x, y, c)))))
                    << c << "," << y << "," << x;

    // Back: colour is exact again and the added alpha is opaque.
    Owned back = QHost::OwnedImage::make({0, 0, width, height}, Image::RGBA, Image::HWC, ML::U8);
    converter->tensorToHostImage(description, t, asImage(back));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            for (u32 c = 0; c < 3; ++c) ASSERT_EQ(back->at<u8>(x, y, c), host->at<u8>(x, y, c));
            ASSERT_EQ(back->at<u8>(x, y, 3), 255);
        }
    EXPECT_EQ(sorted(converter->loadedConversionNetworks()),
              (std::vector<std::string>{"CHW-F16-RGB_TO_HWC-U8-RGBA", "HWC-U8-RGBA_TO_CHW-F16-RGB"}));
    EXPECT_TRUE(converter->loadedResizeNetworks().empty());
}

TEST_F(ConversionFormats, BgrAndRgbAreDifferentFormats) {
    const int width = 4, height = 3;
    Owned host = makeU8Image({0, 0, width, height}, Image::RGB, Image::HWC);
    auto rgb = tensor({1, 3, height, width}, ML::U8);
    auto bgr = tensor({1, 3, height, width}, ML::U8);
    converter->hostImageToTensor(asImage(host), describe(height, width, Image::RGB, Image::CHW, ML::U8), rgb);
    converter->hostImageToTensor(asImage(host), describe(height, width, Image::BGR, Image::CHW, ML::U8), bgr);

    const std::vector<u8> rgbPlanes = download<u8>(*rgb);
    const std::vector<u8> bgrPlanes = download<u8>(*bgr);
    for (u32 c = 0; c < 3; ++c)
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) {
                ASSERT_EQ(rgbPlanes[(c * height + y) * width + x], host->at<u8>(x, y, c));
                ASSERT_EQ(bgrPlanes[(c * height + y) * width + x], host->at<u8>(x, y, 2 - c));
            }
    EXPECT_EQ(sorted(converter->loadedConversionNetworks()),
              (std::vector<std::string>{"HWC-U8-RGB_TO_CHW-U8-BGR", "HWC-U8-RGB_TO_CHW-U8-RGB"}));
}

TEST_F(ConversionFormats, SameLayoutAndTypeWithOtherChannelsIsAConversion) {
    // R to RGBA in one layout and type: grey repeated, alpha added as 1.
    const int width = 3, height = 2;
    auto source = tensor({1, 1, height, width}, ML::F32);
    const std::vector<float> grey{0.0f, 0.25f, 0.5f, 1.0f, -0.5f, 2.0f};
    source->upload(grey.data());
    auto target = tensor({1, 4, height, width}, ML::F32);
    converter->tensorToTensor(describe(height, width, Image::R, Image::CHW, ML::F32), source,
                              describe(height, width, Image::RGBA, Image::CHW, ML::F32), target);
    const std::vector<float> values = download<float>(*target);
    for (size_t i = 0; i < grey.size(); ++i) {
        for (u32 c = 0; c < 3; ++c) EXPECT_EQ(values[c * grey.size() + i], grey[i]);
        EXPECT_EQ(values[3 * grey.size() + i], 1.0f);
    }
    EXPECT_EQ(converter->loadedConversionNetworks(), std::vector<std::string>{"CHW-F32-R_TO_CHW-F32-RGBA"});
}

TEST_F(ConversionFormats, FloatToBytesRoundsAndClamps) {
    const std::vector<float> values{0.0f, 0.2f, 0.5f, 1.0f, -0.3f, 1.7f, 100.0f / 255.0f, 254.4f / 255.0f};
    auto source = tensor({1, 1, 2, 4}, ML::F32);
    source->upload(values.data());
    Owned host = QHost::OwnedImage::make({0, 0, 4, 2}, Image::R, Image::HWC, ML::U8);
    converter->tensorToHostImage(describe(2, 4, Image::R, Image::CHW, ML::F32), source, asImage(host));
    for (int i = 0; i < 8; ++i) EXPECT_EQ(host->at<u8>(i % 4, i / 4), floatToU8(values[i])) << values[i];
}

TEST_F(ConversionFormats, ColourToRTakesTheRedChannel) {
    Owned host = makeU8Image({0, 0, 5, 4}, Image::ARGB, Image::HWC);
    auto t = tensor({1, 4, 5, 1}, ML::F32);
    converter->hostImageToTensor(asImage(host), describe(4, 5, Image::R, Image::HWC, ML::F32), t);
    const std::vector<float> values = download<float>(*t);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_FLOAT_EQ(values[y * 5 + x], u8ToFloat(host->at<u8>(x, y, 1)));
}

TEST_F(ConversionFormats, HostImageToHostImageConvertsThroughTheDevice) {
    Owned source = makeU8Image({0, 0, 6, 4}, Image::RGB, Image::HWC);
    Owned target = QHost::OwnedImage::make({0, 0, 6, 4}, Image::BGR, Image::CHW, ML::F32, 12);
    converter->hostImageToHostImage(asImage(source), asImage(target));
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 6; ++x)
            for (u32 c = 0; c < 3; ++c)
                ASSERT_FLOAT_EQ(target->at<float>(x, y, c), u8ToFloat(source->at<u8>(x, y, 2 - c)));
    EXPECT_EQ(converter->loadedConversionNetworks(), std::vector<std::string>{"HWC-U8-RGB_TO_CHW-F32-BGR"});
}

TEST_F(ConversionFormats, HostImageToHostImageResizesInOneFormat) {
    Owned source = makeU8Image({0, 0, 8, 6}, Image::RGB, Image::HWC, 4);
    Owned target = QHost::OwnedImage::make({0, 0, 4, 3}, Image::RGB, Image::HWC, ML::U8);
    converter->hostImageToHostImage(asImage(source), asImage(target));

    Planes in(3, 6, 8);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 8; ++x) in.at(c, y, x) = source->at<u8>(x, y, static_cast<u32>(c));
    const Planes expected = bilinear(in, 3, 4);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x)
                EXPECT_NEAR(target->at<u8>(x, y, static_cast<u32>(c)), expected.at(c, y, x), 0.5001)
                    << c << "," << y << "," << x;
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
    EXPECT_EQ(converter->loadedResizeNetworks(), std::vector<std::string>{"resize_U8_HWC"});
}

TEST_F(ConversionFormats, NetworksAreLoadedOnce) {
    Owned host = makeU8Image({0, 0, 4, 4}, Image::RGBA, Image::HWC);
    auto description = describe(4, 4, Image::RGB, Image::HWC, ML::F32);
    auto t = tensor({1, 4, 4, 3}, ML::F32);
    converter->hostImageToTensor(asImage(host), description, t);
    const auto first = converter->getConversionModel(*asImage(host), *description);
    converter->hostImageToTensor(asImage(host), description, t);
    EXPECT_EQ(converter->getConversionModel(*asImage(host), *description), first);
    EXPECT_EQ(converter->loadedConversionNetworks().size(), 1u);
}

}  // namespace
