#include "Plugin/Models/DA2/TempState.h"

#include "Plugin/ImageTensorConverter.h"

namespace ML::DA2 {

TempState::TempState(const std::shared_ptr<ModelContext>& context, const ModelInfo& info) : modelContext(context) {
    const TileSize& size = info.getOnlyTileSize();
    const u32 dataType = context->getBackendName() == "coreml" ? F32 : F16;
    depthModel = context->loadModel(info.modelId);
    colorizeModel = context->loadModel(info.modelId + "_colorize");

    inputDesc = makeDescription(size.execH, size.execW, Image::RGB, Image::CHW, dataType);
    depthDesc = makeDescription(size.execH, size.execW, Image::R, Image::CHW, dataType);
    colorDesc = makeDescription(size.execH, size.execW, Image::RGB, Image::CHW, dataType);
    inputTensor = context->createTensor(shapeOfImage(*inputDesc, 1), dataType);
    depthTensor = context->createTensor(shapeOfImage(*depthDesc, 1), dataType);
    colorTensor = context->createTensor(shapeOfImage(*colorDesc, 1), dataType);
}

}  // namespace ML::DA2
