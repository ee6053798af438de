#include "Plugin/Models/PLKSR/TempState.h"

#include "Plugin/ImageTensorConverter.h"
#include "Util/ML_Util.h"

namespace ML::PLKSR {

TempState::TempState(const std::shared_ptr<ModelContext>& context, const ModelInfo& info, const ExecInfo& exec)
    : modelContext(context), samplerSource(context), samplerDestination(context),
      samplerPlans(std::vector<TiledExecution::ExecSize>{{samplerTileSize, samplerTileSize}}) {
    dataType = context->getBackendName() == "coreml" ? F32 : F16;
    const i32 tileOut = exec.tileSize * exec.scale;
    network = context->loadModel(info.modelId + "_" + std::to_string(exec.scale) + "x");
    inputDesc = makeDescription(exec.tileSize, exec.tileSize, Image::RGB, Image::CHW, dataType);
    outputDesc = makeDescription(tileOut, tileOut, Image::RGB, Image::CHW, dataType);
    inputTensor = context->createTensor(shapeOfImage(*inputDesc, 1), dataType);
    outputTensor = context->createTensor(shapeOfImage(*outputDesc, 1), dataType);
    samplerParams = context->createTensor({1, 7, 1, 1}, F32);
    samplerSize = context->createTensor({1, 2, 1, 1}, I32);
}

const std::shared_ptr<BackendModel>& TempState::sampler() {
    if (!samplerModel) samplerModel = modelContext->loadModel(std::string("upres_sampler_dynamic_") + typeName(dataType));
    return samplerModel;
}

}  // namespace ML::PLKSR
