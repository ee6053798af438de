#pragma once
// Tensors of the flow network for one execution size: two frames in, a two-channel flow out, and
// its coloured view. Kept in ModelCommon, so that optical flow and retiming share them.
#include <memory>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"

namespace ML::RAFT {

struct TempState {
    TempState(const std::shared_ptr<ModelContext>& context, u32 dataType, i32 execH, i32 execW);

    std::shared_ptr<BackendTensor> image0, image1;  // 1, 3, H, W
    std::shared_ptr<BackendTensor> scale;           // 1, 2, 1, 1: picture size over execution size
    std::shared_ptr<BackendTensor> flow;            // 1, 2, H, W
    std::shared_ptr<BackendTensor> flowColor;       // 1, 3, H, W
    Ptr<Image> imageDesc;                           // RGB, CHW over (0, 0, W, H)
    Ptr<Image> flowDesc;                            // RG, CHW over (0, 0, W, H)
};

// Uploads the two factors that take flow vectors from execution size to the size of `rect`.
void uploadScale(BackendTensor& scale, const Rect& rect, i32 execH, i32 execW);

}  // namespace ML::RAFT
