#pragma once
// Device tensors and host tiles of the detection effect, per execution size and keypoint count.
#include <memory>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/Detector.h"

namespace ML::YOLO7 {

// The detector's tensors at H x W with K keypoints, and the tensors of the colourised output:
// the mask [1, 1, H, W] and the blurred colour [1, 3, H, W], with planar RGB and R descriptions.
struct TempState {
    TempState(ModelContext& context, u32 dataType, i32 execH, i32 execW, int keypoints);

    DetectorTensors detector;  // input, raw, count, nms; the RGB description of the input
    std::shared_ptr<BackendTensor> mask;
    std::shared_ptr<BackendTensor> color;
    Ptr<Image> rgb;  // planar RGB of W x H: the input and colour tensors
    Ptr<Image> r;    // planar R of W x H: the mask tensor
};

// Host tiles of one execution size: one in the source image's format, one in the mask output's.
struct TempState_Host {
    TempState_Host(i32 execH, i32 execW, const Image& source, const Image& mask);

    std::vector<u8> colorBytes, maskBytes;
    Ptr<Image> colorTile, maskTile;
};

}  // namespace ML::YOLO7
