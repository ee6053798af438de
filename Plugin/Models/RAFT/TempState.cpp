#include "Plugin/Models/RAFT/TempState.h"

#include "Plugin/ImageTensorConverter.h"

namespace ML::RAFT {

TempState::TempState(const std::shared_ptr<ModelContext>& context, u32 dataType, i32 execH, i32 execW) {
    const u64 h = static_cast<u64>(execH), w = static_cast<u64>(execW);
    image0 = context->createTensor({1, 3, h, w}, dataType);
    image1 = context->createTensor({1, 3, h, w}, dataType);
    scale = context->createTensor({1, 2, 1, 1}, dataType);
    flow = context->createTensor({1, 2, h, w}, dataType);
    flowColor = context->createTensor({1, 3, h, w}, dataType);
    imageDesc = makeDescription(execH, execW, Image::RGB, Image::CHW, dataType);
    flowDesc = makeDescription(execH, execW, Image::RG, Image::CHW, dataType);
}

void uploadScale(BackendTensor& scale, const Rect& rect, i32 execH, i32 execW) {
    const float factors[2] = {static_cast<float>(rect.width()) / static_cast<float>(execW),
                              static_cast<float>(rect.height()) / static_cast<float>(execH)};
    scale.upload(factors);
}

}  // namespace ML::RAFT
