// Changes of size: the resize network alone, conversion followed by resize, and when the target
// shape goes to the device.
#include "ConversionTestUtil.h"

using namespace ConversionTest;
using ML::Image;

namespace {

class ConversionResize : public ConverterTest {};

// Planar float copy of an owned U8 image's channels, values / 255.
Planes unitPlanes(const QHost::OwnedImage& image) {
    const ML::Rect r = image.getRect();
    Planes planes(static_cast<int>(image.channels()), r.height(), r.width());
    for (int c = 0; c < planes.channels; ++c)
        for (int y = 0; y < planes.height; ++y)
            for (int x = 0; x < planes.width; ++x)
                planes.at(c, y, x) = u8ToFloat(image.at<u8>(r.x0 + x, r.y0 + y, static_cast<u32>(c)));
    return planes;
}

TEST_F(ConversionResize, SameFormatRunsOnlyTheResizeNetwork) {
    const int inH = 4, inW = 5, outH = 7, outW = 9;
    Planes in(3, inH, inW);
    for (size_t i = 0; i < in.values.size(); ++i) in.values[i] = static_cast<float>((i * 7919) % 97) / 96.0f;
    auto source = tensor({1, 3, inH, inW}, ML::F32);
    source->upload(in.values.data());
    auto target = tensor({1, 3, outH, outW}, ML::F32);
    converter->tensorToTensor(describe(inH, inW, Image::RGB, Image::CHW, ML::F32), source,
                              describe(outH, outW, Image::RGB, Image::CHW, ML::F32), target);

    const Planes expected = bilinear(in, outH, outW);
    const std::vector<float> values = download<float>(*target);
    for (size_t i = 0; i < values.size(); ++i) EXPECT_NEAR(values[i], expected.values[i], 1e-5f) << i;
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
    EXPECT_EQ(converter->loadedResizeNetworks(), std::vector<std::string>{"resize_F32_CHW"});
}

TEST_F(ConversionResize, FormatAndSizeChangeConvertFirstThenResize) {
    // U8 planar RGB 11x7 to F32 packed RGBA 5x3. Resizing first, in U8, would round to whole
    // steps of 1/255; converting first keeps the bilinear weights exact in F32.
    const int inH = 7, inW = 11, outH = 3, outW = 5;
    Owned host = makeU8Image({0, 0, inW, inH}, Image::RGB, Image::CHW);
    auto source = tensor({1, 3, inH, inW}, ML::U8);
    source->upload(host->getData());
    auto target = tensor({1, outH, outW, 4}, ML::F32);
    converter->tensorToTensor(describe(inH, inW, Image::RGB, Image::CHW, ML::U8), source,
                              describe(outH, outW, Image::RGBA, Image::HWC, ML::F32), target);

    EXPECT_EQ(converter->loadedConversionNetworks(), std::vector<std::string>{"CHW-U8-RGB_TO_HWC-F32-RGBA"});
    EXPECT_EQ(converter->loadedResizeNetworks(), std::vector<std::string>{"resize_F32_HWC"});

    const Planes expected = bilinear(unitPlanes(*host), outH, outW);
    const std::vector<float> values = download<float>(*target);
    for (int y = 0; y < outH; ++y)
        for (int x = 0; x < outW; ++x) {
            const size_t pixel = static_cast<size_t>((y * outW + x) * 4);
            for (int c = 0; c < 3; ++c)
                EXPECT_NEAR(values[pixel + c], expected.at(c, y, x), 1e-5f) << c << "," << y << "," << x;
            EXPECT_NEAR(values[pixel + 3], 1.0f, 1e-6f);
        }
}

TEST_F(ConversionResize, HostImageToTensorWithOtherSizeAndFormat) {
    const int inH = 6, inW = 10, outH = 4, outW = 3;
    Owned host = makeU8Image({0, 0, inW, inH}, Image::RGBA, Image::HWC, 4);
    auto t = tensor({1, 3, outH, outW}, ML::F16);
    converter->hostImageToTensor(asImage(host), describe(outH, outW, Image::RGB, Image::CHW, ML::F16), t);

    // Converted to F16 at the source size, then resized in F16.
    Planes half = unitPlanes(*host);
    for (float& v : half.values) v = float(Imath::half(v));
    Planes rgb(3, inH, inW);
    std::copy(half.values.begin(), half.values.begin() + 3 * inH * inW, rgb.values.begin());
    const Planes expected = bilinear(rgb, outH, outW);
    const std::vector<Imath::half> values = download<Imath::half>(*t);
    for (size_t i = 0; i < values.size(); ++i) EXPECT_NEAR(float(values[i]), expected.values[i], 2e-3f) << i;
    EXPECT_EQ(converter->loadedConversionNetworks(), std::vector<std::string>{"HWC-U8-RGBA_TO_CHW-F16-RGB"});
    EXPECT_EQ(converter->loadedResizeNetworks(), std::vector<std::string>{"resize_F16_CHW"});
}

TEST_F(ConversionResize, PackedLayoutSendsTheTargetShapeChannelsFirst) {
    // Non-square: the tensor's own N,H,W,C read as N,C,H,W would ask for the wrong size.
    const int inH = 4, inW = 6, outH = 3, outW = 5;
    Planes in(3, inH, inW);
    for (size_t i = 0; i < in.values.size(); ++i) in.values[i] = static_cast<float>(i % 13) * 0.1f;
    std::vector<float> packed(in.values.size());
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < inH; ++y)
            for (int x = 0; x < inW; ++x) packed[static_cast<size_t>((y * inW + x) * 3 + c)] = in.at(c, y, x);
    auto source = tensor({1, inH, inW, 3}, ML::F32);
    source->upload(packed.data());
    auto target = tensor({1, outH, outW, 3}, ML::F32);
    converter->resizeTensor(describe(inH, inW, Image::RGB, Image::HWC, ML::F32), source,
                            describe(outH, outW, Image::RGB, Image::HWC, ML::F32), target);

    const Planes expected = bilinear(in, outH, outW);
    const std::vector<float> values = download<float>(*target);
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < outH; ++y)
            for (int x = 0; x < outW; ++x)
                EXPECT_NEAR(values[static_cast<size_t>((y * outW + x) * 3 + c)], expected.at(c, y, x), 1e-5f);
    EXPECT_EQ(converter->targetShapeUploads(), 1u);
}

TEST_F(ConversionResize, TargetShapeIsUploadedOnlyWhenItChanges) {
    auto sourceDescription = describe(4, 4, Image::R, Image::CHW, ML::F32);
    auto source = tensor({1, 1, 4, 4}, ML::F32);
    const std::vector<float> zeros(16, 0.0f);
    source->upload(zeros.data());
    auto resizeTo = [&](int h, int w) {
        auto target = tensor({1, 1, static_cast<u64>(h), static_cast<u64>(w)}, ML::F32);
        converter->resizeTensor(sourceDescription, source, describe(h, w, Image::R, Image::CHW, ML::F32), target);
    };
    EXPECT_EQ(converter->targetShapeUploads(), 0u);
    resizeTo(2, 3);
    EXPECT_EQ(converter->targetShapeUploads(), 1u);
    resizeTo(2, 3);
    EXPECT_EQ(converter->targetShapeUploads(), 1u);
    resizeTo(3, 2);
    EXPECT_EQ(converter->targetShapeUploads(), 2u);
    resizeTo(2, 3);
    EXPECT_EQ(converter->targetShapeUploads(), 3u);
    EXPECT_EQ(converter->loadedResizeNetworks(), std::vector<std::string>{"resize_F32_CHW"});
}

TEST_F(ConversionResize, BatchIsNeverResampled) {
    const int inH = 2, inW = 2, outH = 4, outW = 4;
    Planes first(1, inH, inW), second(1, inH, inW);
    first.values = {0.0f, 1.0f, 2.0f, 3.0f};
    second.values = {10.0f, 20.0f, 30.0f, 40.0f};
    std::vector<float> both(first.values);
    both.insert(both.end(), second.values.begin(), second.values.end());
    auto source = tensor({2, 1, inH, inW}, ML::F32);
    source->upload(both.data());
    auto target = tensor({2, 1, outH, outW}, ML::F32);
    converter->tensorToTensor(describe(inH, inW, Image::R, Image::CHW, ML::F32), source,
                              describe(outH, outW, Image::R, Image::CHW, ML::F32), target);
    const std::vector<float> values = download<float>(*target);
    const Planes a = bilinear(first, outH, outW), b = bilinear(second, outH, outW);
    for (size_t i = 0; i < 16; ++i) {
        EXPECT_NEAR(values[i], a.values[i], 1e-5f);
        EXPECT_NEAR(values[16 + i], b.values[i], 1e-4f);
    }
}

}  // namespace

namespace {

// A single-channel interleaved tensor resized from a planar network result, as a depth output is.
TEST_F(ConversionResize, SingleChannelPlanarTensorToPackedHostImage) {
    const int inH = 8, inW = 8, outH = 9, outW = 16;
    std::vector<Imath::half> values(static_cast<size_t>(inH * inW), Imath::half(0.25f));
    auto source = tensor({1, 1, inH, inW}, ML::F16);
    source->upload(values.data());
    Owned host = QHost::OwnedImage::make({0, 0, outW, outH}, Image::R, Image::HWC, ML::F32);
    converter->tensorToHostImage(describe(inH, inW, Image::R, Image::CHW, ML::F16), source, asImage(host));
    for (int y = 0; y < outH; ++y)
        for (int x = 0; x < outW; ++x) EXPECT_NEAR(host->at<float>(x, y, 0), 0.25f, 1e-3f);
}

}  // namespace
