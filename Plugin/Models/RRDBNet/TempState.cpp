#include "Plugin/Models/RRDBNet/TempState.h"

#include "Plugin/ImageTensorConverter.h"

namespace ML::RRDBNet {

TempState::TempState(const std::shared_ptr<ModelContext>& context, const ModelInfo& info, i32 tileSize) {
    const u32 dataType = context->getPrecisionDataType();
    network = context->loadModel(info.modelId);
    inputDesc = makeDescription(tileSize, tileSize, Image::RGB, Image::CHW, dataType);
    outputDesc = makeDescription(tileSize, tileSize, Image::RGB, Image::CHW, dataType);
    inputTensor = context->createTensor(shapeOfImage(*inputDesc, 1), dataType);
    outputTensor = context->createTensor(shapeOfImage(*outputDesc, 1), dataType);
}

}  // namespace ML::RRDBNet
