// Every refusal of the converter and the resizer, with its exact text, and that a refused call
// leaves the converter usable.
#include <unistd.h>

#include <filesystem>

#include "ConversionTestUtil.h"
#include "Util/ML_Util.h"

using namespace ConversionTest;
using ML::Image;

namespace {

class ConversionErrors : public ConverterTest {};

// A description whose fields are taken as given, so that values outside the tables can be tried.
class RawDescription : public Image, public virtual ML::ReferenceImp {
public:
    RawDescription(u32 format, u32 layout, u32 type) : format(format), layout(layout), type(type) {}
    ML::Rect getRect() const override { return {0, 0, 2, 2}; }
    u32 getDataType() const override { return type; }
    u32 getChannelFormat() const override { return format; }
    u32 getMemoryLayout() const override { return layout; }
    void* getData() override { return nullptr; }
    const void* getData() const override { return nullptr; }
    void setData(void*) override {}
    u32 getRowBytes() const override { return 0; }
    u32 getChannelBytes() const override { return 0; }

private:
    u32 format, layout, type;
};

TEST_F(ConversionErrors, TensorMustHaveFourExtents) {
    auto description = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    expectPluginError([&] { ML::ImageTensorConverter::checkTensorMatchesImage(*description, *tensor({3, 2, 2}, ML::F32)); },
                      "Expected 4D tensor for image conversion, got 3");
    expectPluginError(
        [&] {
            converter->hostImageToTensor(asImage(makeU8Image({0, 0, 2, 2}, Image::RGB, Image::CHW)), description,
                                         tensor({1, 1, 3, 2, 2}, ML::F32));
        },
        "Expected 4D tensor for image conversion, got 5");
}

TEST_F(ConversionErrors, HeightAndWidthAreComparedPerLayout) {
    auto planar = describe(4, 6, Image::RGB, Image::CHW, ML::F32);
    auto packed = describe(4, 6, Image::RGB, Image::HWC, ML::F32);
    expectPluginError([&] { ML::ImageTensorConverter::checkTensorMatchesImage(*planar, *tensor({1, 3, 5, 6}, ML::F32)); },
                      "Tensor height does not match image description: got 5 , expected 4");
    expectPluginError([&] { ML::ImageTensorConverter::checkTensorMatchesImage(*planar, *tensor({1, 3, 4, 7}, ML::F32)); },
                      "Tensor width does not match image description: got 7 , expected 6");
    // Height is checked before width.
    expectPluginError([&] { ML::ImageTensorConverter::checkTensorMatchesImage(*packed, *tensor({1, 3, 7, 3}, ML::F32)); },
                      "Tensor height does not match image description: got 3 , expected 4");
    expectPluginError([&] { ML::ImageTensorConverter::checkTensorMatchesImage(*packed, *tensor({1, 4, 9, 3}, ML::F32)); },
                      "Tensor width does not match image description: got 9 , expected 6");
}

TEST_F(ConversionErrors, ChannelExtentIsNotCompared) {
    auto description = describe(4, 6, Image::RGB, Image::CHW, ML::F32);
    EXPECT_NO_THROW(ML::ImageTensorConverter::checkTensorMatchesImage(*description, *tensor({1, 5, 4, 6}, ML::F32)));
    RawDescription unknownFormat(9, Image::CHW, ML::F32);
    expectPluginError(
        [&] { ML::ImageTensorConverter::checkTensorMatchesImage(unknownFormat, *tensor({1, 3, 2, 2}, ML::F32)); },
        "Unexpected channel format!");
}

TEST_F(ConversionErrors, BatchesMustMatch) {
    auto source = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    auto target = describe(2, 2, Image::RGB, Image::HWC, ML::F32);
    expectPluginError(
        [&] { converter->tensorToTensor(source, tensor({1, 3, 2, 2}, ML::F32), target, tensor({2, 2, 2, 3}, ML::F32)); },
        "Batch size for input & output tensors should match (1 vs 2)");
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
}

TEST_F(ConversionErrors, NothingToDoIsWarnedAndRefused) {
    KeptLog log;
    auto description = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    expectPluginError(
        [&] {
            converter->tensorToTensor(description, tensor({1, 3, 2, 2}, ML::F32),
                                      describe(2, 2, Image::RGB, Image::CHW, ML::F32), tensor({1, 3, 2, 2}, ML::F32));
        },
        "no change??");
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0], "[Quillon] [W] Copying image tensor to image tensor of identical format?");
}

TEST_F(ConversionErrors, ResizerNeedsOneFormat) {
    auto source = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    auto t = tensor({1, 3, 2, 2}, ML::F32);
    auto out = tensor({1, 3, 4, 4}, ML::F32);
    // Everything differs: layout is tested first, then channel format, then data type.
    expectPluginError([&] { converter->resizeTensor(source, t, describe(4, 4, Image::BGR, Image::HWC, ML::F16), out); },
                      "memory layouts must match!");
    expectPluginError([&] { converter->resizeTensor(source, t, describe(4, 4, Image::BGR, Image::CHW, ML::F16), out); },
                      "channel formats must match!");
    expectPluginError([&] { converter->resizeTensor(source, t, describe(4, 4, Image::RGB, Image::CHW, ML::F16), out); },
                      "data types must match!");
    EXPECT_EQ(converter->targetShapeUploads(), 0u);
    EXPECT_TRUE(converter->loadedResizeNetworks().empty());
}

TEST_F(ConversionErrors, EmptyImagesAreRefusedBeforeTheBackendIsAsked) {
    // A fresh converter: its scratch tensors have never been allocated.
    const ML::Rect empty{3, 3, 3, 7};
    auto description = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    auto hostImage = asImage(makeU8Image(empty, Image::RGB, Image::HWC));
    const std::string message = "Cannot convert an empty host image (3,3->3,7)";
    expectPluginError([&] { converter->hostImageToTensor(hostImage, description, tensor({1, 3, 2, 2}, ML::F32)); },
                      message);
    expectPluginError([&] { converter->tensorToHostImage(description, tensor({1, 3, 2, 2}, ML::F32), hostImage); },
                      message);
    expectPluginError([&] { converter->hostImageToHostImage(hostImage, asImage(makeU8Image({0, 0, 2, 2}, Image::RGB, Image::HWC))); },
                      message);
    expectPluginError(
        [&] {
            converter->tensorToTensor(describe(0, 2, Image::RGB, Image::CHW, ML::F32), tensor({1, 3, 0, 2}, ML::F32),
                                      description, tensor({1, 3, 2, 2}, ML::F32));
        },
        "Cannot convert an empty tensor description (0,0->2,0)");
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
}

TEST_F(ConversionErrors, ValuesOutsideTheTables) {
    expectPluginError([] { ML::shapeOfImage(RawDescription(Image::RGB, 7, ML::F32), 1); }, "Unexpected memory layout");
    expectPluginError([] { ML::shapeOfImage(2, 2, Image::RGB, 2, 1); }, "Unexpected memory layout");
    expectPluginError([] { ML::imageFormatKey(RawDescription(Image::RGB, 7, ML::F32)); }, "Unknown layout type");
    expectPluginError([] { ML::imageFormatKey(RawDescription(Image::RGB, Image::HWC, ML::I64)); }, "Unknown pixel type");
    expectPluginError([] { ML::imageFormatKey(RawDescription(11, Image::HWC, ML::F32)); }, "Unknown channel format type");
}

TEST_F(ConversionErrors, FormatKeysAndShapes) {
    EXPECT_EQ(ML::imageFormatKey(*describe(1, 1, Image::RGBA, Image::HWC, ML::U8)), "HWC-U8-RGBA");
    EXPECT_EQ(ML::imageFormatKey(*describe(1, 1, Image::RGB, Image::CHW, ML::F16)), "CHW-F16-RGB");
    EXPECT_EQ(ML::shapeOfImage(*describe(3, 5, Image::RG, Image::HWC, ML::F32), 2), (std::vector<u64>{2, 3, 5, 2}));
    EXPECT_EQ(ML::shapeOfImage(*describe(3, 5, Image::ARGB, Image::CHW, ML::F32), 1), (std::vector<u64>{1, 4, 3, 5}));
    EXPECT_FALSE(ML::sameFormat(*describe(1, 1, Image::RGB, Image::HWC, ML::U8),
                                *describe(1, 1, Image::BGR, Image::HWC, ML::U8)));
    EXPECT_TRUE(ML::sameFormat(*describe(1, 1, Image::RGB, Image::HWC, ML::U8),
                               *describe(9, 7, Image::RGB, Image::HWC, ML::U8)));
}

TEST_F(ConversionErrors, MissingHelperNetworkSurfacesAsTheLoadError) {
    // A backend whose model folder has no imgcvt networks at all.
    const std::filesystem::path empty = std::filesystem::temp_directory_path() /
                                        ("quillon_conversion_empty_" + std::to_string(::getpid()));
    std::filesystem::create_directories(empty);
    {
        auto context = std::make_shared<ML::ModelContext>("ort_cpu", 0, packageDir() / "config", empty);
        ML::ImageTensorConverter bare(context);
        std::string direct;
        try {
            context->loadModel("imgcvt/HWC-U8-RGB_TO_CHW-F32-RGB");
        } catch (const ML::Exception& e) {
            direct = e.what();
        }
        ASSERT_FALSE(direct.empty()) << "loading a missing network did not fail";

        Owned host = makeU8Image({0, 0, 3, 2}, Image::RGB, Image::HWC);
        try {
            bare.hostImageToTensor(asImage(host), describe(2, 3, Image::RGB, Image::CHW, ML::F32),
                                   context->createTensor({1, 3, 2, 3}, ML::F32));
            ADD_FAILURE() << "no exception";
        } catch (const ML::Exception& e) {
            EXPECT_EQ(std::string(e.what()), direct);
        }
        EXPECT_TRUE(bare.loadedConversionNetworks().empty());

        // The same converter still does what needs no network.
        auto t = context->createTensor({1, 2, 3, 3}, ML::U8);
        bare.hostImageToTensor(asImage(host), describe(2, 3, Image::RGB, Image::HWC, ML::U8), t);
        EXPECT_EQ(download<u8>(*t), bytesOf(host->storage(), host->byteSize()));
    }
    std::error_code ec;
    std::filesystem::remove_all(empty, ec);
}

TEST_F(ConversionErrors, ARefusedCallLeavesTheConverterUsable) {
    Owned padded = makeU8Image({0, 0, 4, 2}, Image::RGB, Image::HWC, 4);
    auto description = describe(2, 4, Image::RGB, Image::CHW, ML::F32);
    expectPluginError([&] { converter->hostImageToTensor(asImage(padded), description, tensor({2, 3, 2, 4}, ML::F32)); },
                      "TODO: support non-packed image conversion w/ batch > 1");
    auto t = tensor({1, 3, 2, 4}, ML::F32);
    converter->hostImageToTensor(asImage(padded), description, t);
    const std::vector<float> values = download<float>(*t);
    for (u32 c = 0; c < 3; ++c)
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 4; ++x)
                EXPECT_FLOAT_EQ(values[(c * 2 + y) * 4 + x], u8ToFloat(padded->at<u8>(x, y, c)));
}

}  // namespace
