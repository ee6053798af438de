#pragma once
// Scales a 4D tensor to another height and width on the device with the package's resize
// network "imgcvt/resize_<type>_<layout>", which takes the target shape as N, C, H, W.
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"

namespace ML {

class ImageTensorResizer {
public:
    explicit ImageTensorResizer(std::shared_ptr<ModelContext> modelContext);

    void resizeTensor(const Ptr<Image>& sourceDescription, const std::shared_ptr<BackendTensor>& sourceTensor,
                      const Ptr<Image>& destinationDescription,
                      const std::shared_ptr<BackendTensor>& destinationTensor);

    // Names of the resize networks loaded so far.
    std::vector<std::string> loadedResizeNetworks() const;
    u64 targetShapeUploads() const { return shapeUploads; }

private:
    std::shared_ptr<ModelContext> resizerContext;
    std::unordered_map<std::string, std::shared_ptr<BackendModel>> resizeModels;
    std::vector<i64> targetShape{-1, -1, -1, -1};
    std::shared_ptr<BackendTensor> targetShapeTensor;
    u64 shapeUploads = 0;
};

}  // namespace ML
