#include "Plugin/ImageTensorConverter.h"

#include "Plugin/PluginLogger.h"
#include "Util/ML_Util.h"

namespace ML {

std::vector<u64> shapeOfImage(i32 height, i32 width, u32 channelFormat, u32 memoryLayout, u64 batch) {
    const u64 h = static_cast<u64>(height);
    const u64 w = static_cast<u64>(width);
    switch (memoryLayout) {
        case Image::HWC: return {batch, h, w, channelCount(channelFormat)};
        case Image::CHW: return {batch, channelCount(channelFormat), h, w};
        default: ML_THROW("Unexpected memory layout");
    }
}

std::vector<u64> shapeOfImage(const Image& image, u64 batch) {
    const Rect rect = image.getRect();
    return shapeOfImage(rect.height(), rect.width(), image.getChannelFormat(), image.getMemoryLayout(), batch);
}

std::string imageFormatKey(const Image& image) {
    return std::string(layoutName(image.getMemoryLayout())) + "-" + pixelTypeName(image.getDataType()) + "-" +
           formatName(image.getChannelFormat());
}

bool sameFormat(const Image& a, const Image& b) {
    return a.getMemoryLayout() == b.getMemoryLayout() && a.getDataType() == b.getDataType() &&
           a.getChannelFormat() == b.getChannelFormat();
}

u64 packedRowBytes(const Image& image) {
    const u64 width = static_cast<u64>(image.getRect().width());
    const u64 element = bytesPerElement(image.getDataType());
    if (image.getMemoryLayout() == Image::CHW) return width * element;
    return width * channelCount(image.getChannelFormat()) * element;
}

Ptr<Image> makeDescription(i32 height, i32 width, u32 channelFormat, u32 memoryLayout, u32 dataType) {
    return Ptr<Image>(new ImageImp(Rect{0, 0, width, height}, channelFormat, memoryLayout, dataType));
}

namespace {
// A region without pixels has nothing to convert; refusing it here keeps zero-sized tensors and
// scratch buffers away from the backend.
void checkNotEmpty(const Image& image, const char* role) {
    const Rect rect = image.getRect();
    if (rect.isEmpty()) ML_THROW(std::string("Cannot convert an empty ") + role + " " + rect.toString());
}
}  // namespace

ImageTensorConverter::ImageTensorConverter(std::shared_ptr<ModelContext> context)
    : ImageTensorResizer(context), modelContext(context), imageScratch(context), imageCopyScratch(context),
      conversionScratch(context) {}

void ImageTensorConverter::checkTensorMatchesImage(const Image& description, const BackendTensor& tensor) {
    const std::vector<u64>& shape = tensor.getShape();
    if (shape.size() != 4)
        ML_THROW("Expected 4D tensor for image conversion, got " + std::to_string(shape.size()));
    const bool planar = description.getMemoryLayout() == Image::CHW;
    const u64 height = planar ? shape[2] : shape[1];
    const u64 width = planar ? shape[3] : shape[2];
    channelCount(description.getChannelFormat());  // the channel extent itself is not compared
    const Rect rect = description.getRect();
    if (height != static_cast<u64>(rect.height()))
        ML_THROW("Tensor height does not match image description: got " + std::to_string(height) + " , expected " +
                 std::to_string(rect.height()));
    if (width != static_cast<u64>(rect.width()))
        ML_THROW("Tensor width does not match image description: got " + std::to_string(width) + " , expected " +
                 std::to_string(rect.width()));
}

std::shared_ptr<BackendModel> ImageTensorConverter::getConversionModel(const Image& sourceDescription,
                                                                       const Image& destinationDescription) {
    const std::string key = imageFormatKey(sourceDescription) + "_TO_" + imageFormatKey(destinationDescription);
    auto found = conversionModels.find(key);
    if (found == conversionModels.end()) found = conversionModels.emplace(key, modelContext->loadModel("imgcvt/" + key)).first;
    return found->second;
}

Ptr<Image> ImageTensorConverter::packedImage(const Ptr<Image>& hostImage, u64 batch) {
    if (hostImage->getRowBytes() == packedRowBytes(*hostImage)) return hostImage;
    if (batch > 1) ML_THROW("TODO: support non-packed image conversion w/ batch > 1");
    const Rect rect = hostImage->getRect();
    const u64 bytes = bytesPerElement(hostImage->getDataType()) * static_cast<u64>(rect.height()) *
                      static_cast<u64>(rect.width()) * channelCount(hostImage->getChannelFormat()) * batch;
    return Ptr<Image>(new ImageImp(rect, hostImage->getChannelFormat(), hostImage->getMemoryLayout(),
                                   hostImage->getDataType(), staging.get(bytes), 0, 0));
}

void ImageTensorConverter::hostImageToTensor(const Ptr<Image>& hostImage, const Ptr<Image>& description,
                                             const std::shared_ptr<BackendTensor>& tensor) {
    checkNotEmpty(*hostImage, "host image");
    checkNotEmpty(*description, "tensor description");
    checkTensorMatchesImage(*description, *tensor);
    const u64 batch = tensor->getShape()[0];
    Ptr<Image> image = packedImage(hostImage, batch);
    if (image != hostImage) copySlice(hostImage, image, hostImage->getRect(), hostImage->getRect());

    const Rect imageRect = image->getRect();
    const Rect descRect = description->getRect();
    if (imageRect.width() == descRect.width() && imageRect.height() == descRect.height() &&
        sameFormat(*description, *image)) {
        tensor->upload(image->getData());
        return;
    }
    std::shared_ptr<BackendTensor> scratch = imageScratch.acquire(shapeOfImage(*image, batch), image->getDataType());
    scratch->upload(image->getData());
    tensorToTensor(image, scratch, description, tensor);
}

void ImageTensorConverter::tensorToHostImage(const Ptr<Image>& description,
                                             const std::shared_ptr<BackendTensor>& tensor,
                                             const Ptr<Image>& hostImage) {
    checkNotEmpty(*description, "tensor description");
    checkNotEmpty(*hostImage, "host image");
    checkTensorMatchesImage(*description, *tensor);
    const u64 batch = tensor->getShape()[0];
    Ptr<Image> image = packedImage(hostImage, batch);

    const Rect imageRect = image->getRect();
    const Rect descRect = description->getRect();
    if (imageRect.width() == descRect.width() && imageRect.height() == descRect.height() &&
        sameFormat(*image, *description)) {
        tensor->download(image->getData());
    } else {
        std::shared_ptr<BackendTensor> scratch =
            imageScratch.acquire(shapeOfImage(*image, batch), image->getDataType());
        tensorToTensor(description, tensor, image, scratch);
        scratch->download(image->getData());
    }
    if (image != hostImage) copySlice(image, hostImage, imageRect, imageRect);
}

void ImageTensorConverter::tensorToTensor(const Ptr<Image>& sourceDescription,
                                          const std::shared_ptr<BackendTensor>& sourceTensor,
                                          const Ptr<Image>& destinationDescription,
                                          const std::shared_ptr<BackendTensor>& destinationTensor) {
    checkNotEmpty(*sourceDescription, "tensor description");
    checkNotEmpty(*destinationDescription, "tensor description");
    checkTensorMatchesImage(*sourceDescription, *sourceTensor);
    checkTensorMatchesImage(*destinationDescription, *destinationTensor);
    const Rect sourceRect = sourceDescription->getRect();
    const Rect destinationRect = destinationDescription->getRect();
    const bool resized =
        sourceRect.width() != destinationRect.width() || sourceRect.height() != destinationRect.height();
    const bool same = sameFormat(*sourceDescription, *destinationDescription);
    const u64 sourceBatch = sourceTensor->getShape()[0];
    const u64 destinationBatch = destinationTensor->getShape()[0];
    if (sourceBatch != destinationBatch)
        ML_THROW("Batch size for input & output tensors should match (" + std::to_string(sourceBatch) + " vs " +
                 std::to_string(destinationBatch) + ")");

    if (same && !resized) {
        logWarning("Copying image tensor to image tensor of identical format?");
        ML_THROW("no change??");
    }
    if (same) {
        resizeTensor(sourceDescription, sourceTensor, destinationDescription, destinationTensor);
        return;
    }
    if (!resized) {
        getConversionModel(*sourceDescription, *destinationDescription)
            ->run({sourceTensor}, {destinationTensor}, -1);
        return;
    }
    // Both change: convert at the source's size first, then resize in the destination's format.
    Ptr<Image> converted(new ImageImp(sourceRect, destinationDescription->getChannelFormat(),
                                      destinationDescription->getMemoryLayout(),
                                      destinationDescription->getDataType()));
    std::shared_ptr<BackendTensor> intermediate =
        conversionScratch.acquire(shapeOfImage(*converted, sourceBatch), converted->getDataType());
    getConversionModel(*sourceDescription, *converted)->run({sourceTensor}, {intermediate}, -1);
    resizeTensor(converted, intermediate, destinationDescription, destinationTensor);
}

void ImageTensorConverter::hostImageToHostImage(const Ptr<Image>& sourceImage, const Ptr<Image>& destinationImage) {
    checkNotEmpty(*sourceImage, "host image");
    Ptr<Image> packed = packedImage(sourceImage, 1);
    if (packed != sourceImage) copySlice(sourceImage, packed, sourceImage->getRect(), sourceImage->getRect());
    std::shared_ptr<BackendTensor> tensor =
        imageCopyScratch.acquire(shapeOfImage(*packed, 1), packed->getDataType());
    tensor->upload(packed->getData());
    tensorToHostImage(packed, tensor, destinationImage);
}

std::vector<std::string> ImageTensorConverter::loadedConversionNetworks() const {
    std::vector<std::string> names;
    for (const auto& entry : conversionModels) names.push_back(entry.first);
    return names;
}

}  // namespace ML
