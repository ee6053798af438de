#include "Plugin/Models/RRDBNet/RenderState.h"

#include "Plugin/ModelBase.h"
#include "Plugin/PluginLogger.h"

namespace ML::RRDBNet {

RenderState::RenderState(Host* host, u64 call, bool prepareOnly, const ModelInfo& info) {
    frame = host->getFrame(call);
    roi = readROI(host, call, frame);

    outputImage = readOutputImage(host, call, frame, 0);
    if (!outputImage) {
        logWarning("Attempting to render RRDBNet without providing output image. nothing to do, returning!");
        ML_THROW_CANCEL();
    }
    if (!prepareOnly) checkOutputCoversROI(outputImage, roi, frame);

    if (info.availableTileSizes.empty()) ML_THROW("No tile size found for model!");
    if (info.availableTileSizes.size() > 1) ML_THROW("Model only supports one tile size!");
    tileSize = info.availableTileSizes.front().execH;

    inputImage = checkResult(host->getInputImage(call, frame, &roi, ResourceId{0, -1}));
    if (!inputImage) ML_THROW("No input image returned by host for frame " + std::to_string(frame));
    if (!prepareOnly && !covers(inputImage->getRect(), roi))
        ML_THROW("Input rect " + inputImage->getRect().toString() + " must cover minimum input rect " +
                 roi.toString() + " for output rect " + roi.toString());
}

}  // namespace ML::RRDBNet
