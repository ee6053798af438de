#pragma once
// Moves pixels between host images and 4D device tensors. Every change of layout, element type,
// channel format or size runs a helper network of the package; host code only moves whole rows.
// A tensor always travels with a description: an image without data that says what it holds.
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ImageTensorResizer.h"
#include "Plugin/ModelContext.h"
#include "Plugin/MultiTensor.h"

namespace ML {

// N,H,W,C for HWC; N,C,H,W for CHW; "Unexpected memory layout" otherwise.
std::vector<u64> shapeOfImage(const Image& image, u64 batch);
std::vector<u64> shapeOfImage(i32 height, i32 width, u32 channelFormat, u32 memoryLayout, u64 batch);
// "HWC-U8-RGBA", "CHW-F16-RGB", ...
std::string imageFormatKey(const Image& image);
// Same layout, data type and channel format; size plays no part.
bool sameFormat(const Image& a, const Image& b);
// Bytes of one packed row: width x element size (CHW) or width x channels x element size (HWC).
u64 packedRowBytes(const Image& image);
// A description: an image with rectangle and format but no pixels.
Ptr<Image> makeDescription(i32 height, i32 width, u32 channelFormat, u32 memoryLayout, u32 dataType);

class ImageTensorConverter : public ImageTensorResizer {
public:
    explicit ImageTensorConverter(std::shared_ptr<ModelContext> modelContext);

    void hostImageToTensor(const Ptr<Image>& hostImage, const Ptr<Image>& description,
                           const std::shared_ptr<BackendTensor>& tensor);
    void tensorToHostImage(const Ptr<Image>& description, const std::shared_ptr<BackendTensor>& tensor,
                           const Ptr<Image>& hostImage);
    void tensorToTensor(const Ptr<Image>& sourceDescription, const std::shared_ptr<BackendTensor>& sourceTensor,
                        const Ptr<Image>& destinationDescription,
                        const std::shared_ptr<BackendTensor>& destinationTensor);
    void hostImageToHostImage(const Ptr<Image>& sourceImage, const Ptr<Image>& destinationImage);

    static void checkTensorMatchesImage(const Image& description, const BackendTensor& tensor);
    std::shared_ptr<BackendModel> getConversionModel(const Image& sourceDescription,
                                                     const Image& destinationDescription);

    // Names of the conversion networks loaded so far (without folder).
    std::vector<std::string> loadedConversionNetworks() const;
    u64 stagingCapacity() const { return staging.capacity(); }
    u64 imageScratchCapacity() const { return imageScratch.getCapacity(); }

private:
    // A packed copy of a host image whose rows are padded, or the image itself when packed.
    Ptr<Image> packedImage(const Ptr<Image>& hostImage, u64 batch);

    std::shared_ptr<ModelContext> modelContext;
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> conversionModels;
    MultiTensor imageScratch;
    MultiTensor imageCopyScratch;
    MultiBuffer staging;
    MultiTensor conversionScratch;
};

}  // namespace ML
