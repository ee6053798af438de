#pragma once
// Tensors of the interpolation and blend networks for the tile size, all F32.
#include <memory>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ModelContext.h"

namespace ML::RIFE {

struct TempState {
    TempState(const std::shared_ptr<ModelContext>& context, i32 execH, i32 execW);

    std::shared_ptr<BackendTensor> image0;    // first source tile; later the running sum
    std::shared_ptr<BackendTensor> image1;    // second source tile; later the sum after this tile
    std::shared_ptr<BackendTensor> time;      // 1, 1: the fraction
    std::shared_ptr<BackendTensor> result;    // the interpolated tile
    std::shared_ptr<BackendTensor> weightsY;  // 1, 1, H, 1
    std::shared_ptr<BackendTensor> weightsX;  // 1, 1, 1, W
    std::vector<float> hostWeightsY, hostWeightsX;
    Ptr<Image> tensorDesc;                    // RGB, CHW, F32 over (0, 0, W, H)
};

}  // namespace ML::RIFE
