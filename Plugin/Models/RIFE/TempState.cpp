#include "Plugin/Models/RIFE/TempState.h"

#include "Plugin/ImageTensorConverter.h"

namespace ML::RIFE {

TempState::TempState(const std::shared_ptr<ModelContext>& context, i32 execH, i32 execW) {
    const u64 h = static_cast<u64>(execH), w = static_cast<u64>(execW);
    image0 = context->createTensor({1, 3, h, w}, F32);
    image1 = context->createTensor({1, 3, h, w}, F32);
    time = context->createTensor({1, 1}, F32);
    result = context->createTensor({1, 3, h, w}, F32);
    weightsY = context->createTensor({1, 1, h, 1}, F32);
    weightsX = context->createTensor({1, 1, 1, w}, F32);
    hostWeightsY.resize(h);
    hostWeightsX.resize(w);
    tensorDesc = makeDescription(execH, execW, Image::RGB, Image::CHW, F32);
}

}  // namespace ML::RIFE
