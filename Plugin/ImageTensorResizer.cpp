#include "Plugin/ImageTensorResizer.h"

#include "Util/ML_Util.h"

namespace ML {

ImageTensorResizer::ImageTensorResizer(std::shared_ptr<ModelContext> modelContext)
    : resizerContext(std::move(modelContext)) {
    targetShapeTensor = resizerContext->createTensor({4}, I64);
}

void ImageTensorResizer::resizeTensor(const Ptr<Image>& sourceDescription,
                                      const std::shared_ptr<BackendTensor>& sourceTensor,
                                      const Ptr<Image>& destinationDescription,
                                      const std::shared_ptr<BackendTensor>& destinationTensor) {
    const u32 layout = sourceDescription->getMemoryLayout();
    if (layout != destinationDescription->getMemoryLayout()) ML_THROW("memory layouts must match!");
    if (sourceDescription->getChannelFormat() != destinationDescription->getChannelFormat())
        ML_THROW("channel formats must match!");
    const u32 dataType = sourceDescription->getDataType();
    if (dataType != destinationDescription->getDataType()) ML_THROW("data types must match!");

    // The network always takes the target shape as N, C, H, W.
    const std::vector<u64>& shape = destinationTensor->getShape();
    std::vector<i64> wanted(shape.begin(), shape.end());
    if (layout == Image::HWC && wanted.size() == 4) wanted = {wanted[0], wanted[3], wanted[1], wanted[2]};
    if (wanted != targetShape) {
        targetShape = wanted;
        targetShapeTensor->upload(targetShape.data());
        ++shapeUploads;
    }

    const std::string name = std::string("resize_") + typeName(dataType) + "_" + layoutName(layout);
    auto found = resizeModels.find(name);
    if (found == resizeModels.end())
        found = resizeModels.emplace(name, resizerContext->loadModel("imgcvt/" + name)).first;
    found->second->run({sourceTensor, targetShapeTensor}, {destinationTensor}, -1);
}

std::vector<std::string> ImageTensorResizer::loadedResizeNetworks() const {
    std::vector<std::string> names;
    for (const auto& entry : resizeModels) names.push_back(entry.first);
    return names;
}

}  // namespace ML
