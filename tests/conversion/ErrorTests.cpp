// Every refusal of the converter and the resizer, with its exact text, and that a refused call
// leaves the converter usable.
#include "ConversionTestUtil.h"
#include "Host/CollectingLogger.h"
#include "Plugin/PluginLogger.h"
#include "util/TempDir.h"

using namespace ConversionTest;

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

TEST_F(ConversionErrors, RefusalsWithTheirText) {
    using ML::ImageTensorConverter;
    const auto rgbChw = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    const auto planar = describe(4, 6, Image::RGB, Image::CHW, ML::F32);
    const auto packed = describe(4, 6, Image::RGB, Image::HWC, ML::F32);
    const Owned padded = makeU8Image({0, 0, 4, 2}, Image::RGB, Image::HWC, 4);
    const auto paddedDescription = describe(2, 4, Image::RGB, Image::HWC, ML::U8);
    const auto emptyImage = asImage(makeU8Image({3, 3, 3, 7}, Image::RGB, Image::HWC));
    const auto t = [this](std::vector<u64> shape) { return tensor(shape, ML::F32); };
    const auto resize = [&](u32 format, u32 layout, u32 type) {
        converter->resizeTensor(rgbChw, t({1, 3, 2, 2}), describe(4, 4, format, layout, type), t({1, 3, 4, 4}));
    };
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { ImageTensorConverter::checkTensorMatchesImage(*rgbChw, *t({3, 2, 2})); },
         "Expected 4D tensor for image conversion, got 3"},
        {[&] { converter->hostImageToTensor(asImage(makeU8Image({0, 0, 2, 2}, Image::RGB, Image::CHW)), rgbChw,
                                            t({1, 1, 3, 2, 2})); },
         "Expected 4D tensor for image conversion, got 5"},
        {[&] { ImageTensorConverter::checkTensorMatchesImage(*planar, *t({1, 3, 5, 6})); },
         "Tensor height does not match image description: got 5 , expected 4"},
        {[&] { ImageTensorConverter::checkTensorMatchesImage(*planar, *t({1, 3, 4, 7})); },
         "Tensor width does not match image description: got 7 , expected 6"},
        // Height is checked before width.
        {[&] { ImageTensorConverter::checkTensorMatchesImage(*packed, *t({1, 3, 7, 3})); },
         "Tensor height does not match image description: got 3 , expected 4"},
        {[&] { ImageTensorConverter::checkTensorMatchesImage(*packed, *t({1, 4, 9, 3})); },
         "Tensor width does not match image description: got 9 , expected 6"},
        {[&] { ImageTensorConverter::checkTensorMatchesImage(RawDescription(9, Image::CHW, ML::F32), *t({1, 3, 2, 2})); },
         "Unexpected channel format!"},
        {[&] { converter->tensorToTensor(rgbChw, t({1, 3, 2, 2}), describe(2, 2, Image::RGB, Image::HWC, ML::F32),
                                         t({2, 2, 2, 3})); },
         "Batch size for input & output tensors should match (1 vs 2)"},
        {[&] { converter->hostImageToTensor(asImage(padded), paddedDescription, tensor({2, 2, 4, 3}, ML::U8)); },
         "TODO: support non-packed image conversion w/ batch > 1"},
        {[&] { converter->tensorToHostImage(paddedDescription, tensor({2, 2, 4, 3}, ML::U8), asImage(padded)); },
         "TODO: support non-packed image conversion w/ batch > 1"},
        // Everything differs: layout is tested first, then channel format, then data type.
        {[&] { resize(Image::BGR, Image::HWC, ML::F16); }, "memory layouts must match!"},
        {[&] { resize(Image::BGR, Image::CHW, ML::F16); }, "channel formats must match!"},
        {[&] { resize(Image::RGB, Image::CHW, ML::F16); }, "data types must match!"},
        {[&] { converter->hostImageToTensor(emptyImage, rgbChw, t({1, 3, 2, 2})); },
         "Cannot convert an empty host image (3,3->3,7)"},
        {[&] { converter->tensorToHostImage(rgbChw, t({1, 3, 2, 2}), emptyImage); },
         "Cannot convert an empty host image (3,3->3,7)"},
        {[&] { converter->hostImageToHostImage(emptyImage, asImage(makeU8Image({0, 0, 2, 2}, Image::RGB, Image::HWC))); },
         "Cannot convert an empty host image (3,3->3,7)"},
        {[&] { converter->tensorToTensor(describe(0, 2, Image::RGB, Image::CHW, ML::F32), t({1, 3, 0, 2}), rgbChw,
                                         t({1, 3, 2, 2})); },
         "Cannot convert an empty tensor description (0,0->2,0)"},
        {[] { ML::shapeOfImage(RawDescription(Image::RGB, 7, ML::F32), 1); }, "Unexpected memory layout"},
        {[] { ML::shapeOfImage(2, 2, Image::RGB, 2, 1); }, "Unexpected memory layout"},
        {[] { ML::imageFormatKey(RawDescription(Image::RGB, 7, ML::F32)); }, "Unknown layout type"},
        {[] { ML::imageFormatKey(RawDescription(Image::RGB, Image::HWC, ML::I64)); }, "Unknown pixel type"},
        {[] { ML::imageFormatKey(RawDescription(11, Image::HWC, ML::F32)); }, "Unknown channel format type"},
    };
    for (const auto& [call, message] : cases) expectPluginError(call, message);
    EXPECT_NO_THROW(ImageTensorConverter::checkTensorMatchesImage(*planar, *t({1, 5, 4, 6})));  // channels unchecked
    EXPECT_TRUE(converter->loadedConversionNetworks().empty());
    EXPECT_TRUE(converter->loadedResizeNetworks().empty());
    EXPECT_EQ(converter->targetShapeUploads(), 0u);

    // A refused call leaves the converter usable.
    auto good = tensor({1, 2, 4, 3}, ML::U8);
    converter->hostImageToTensor(asImage(padded), paddedDescription, good);
    EXPECT_EQ(download<u8>(*good)[5], padded->at<u8>(1, 0, 2));
}

TEST_F(ConversionErrors, NothingToDoIsWarnedAndRefused) {
    QHost::CollectingLogger log;
    ML::PluginLogger plugin(3);
    ML::g_hostLogger = &log;
    ML::g_pluginLogger = &plugin;
    auto description = describe(2, 2, Image::RGB, Image::CHW, ML::F32);
    expectPluginError([&] { converter->tensorToTensor(description, tensor({1, 3, 2, 2}, ML::F32), description,
                                                      tensor({1, 3, 2, 2}, ML::F32)); },
                      "no change??");
    ML::g_pluginLogger = nullptr;
    ML::g_hostLogger = nullptr;
    EXPECT_EQ(log.lines(), std::vector<std::string>{"[Quillon] [W] Copying image tensor to image tensor of identical format?"});
}

TEST_F(ConversionErrors, MissingHelperNetworkSurfacesAsTheLoadError) {
    TempDir empty;  // a model folder without any imgcvt network
    auto context = std::make_shared<ML::ModelContext>("ort_cpu", 0, packageDir() / "config", empty.path());
    ML::ImageTensorConverter bare(context);
    std::string direct = "<no exception>";
    try {
        context->loadModel("imgcvt/HWC-U8-RGB_TO_CHW-F32-RGB");
    } catch (const ML::Exception& e) {
        direct = e.what();
    }
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

}  // namespace
