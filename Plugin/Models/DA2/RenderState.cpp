#include "Plugin/Models/DA2/RenderState.h"

#include "Plugin/ModelBase.h"
#include "Plugin/PluginLogger.h"

namespace ML::DA2 {

RenderState::RenderState(Host* host, u64 call, const ModelInfo& info) : host(host), call(call), info(info) {
    frame = host->getFrame(call);
    roi = readROI(host, call, frame);

    depthImage = readOutputImage(host, call, frame, 0);
    if (!depthImage) {
        logWarning("Attempting to render retiming without providing output image. nothing to do, returning!");
        ML_THROW_CANCEL();
    }
    checkOutputCoversROI(depthImage, roi, frame);
    if (depthImage->getChannelFormat() != Image::R)
        ML_THROW("output must have single-channel output! (ML::Image::ChannelFormat::R)");
    const u32 type = depthImage->getDataType();
    if (type != F16 && type != F32) ML_THROW("depth estimation output must be float16 or float32!");

    colorizedImage = readOutputImage(host, call, frame, 1);
    if (colorizedImage && !covers(colorizedImage->getRect(), roi))
        ML_THROW("Colorized output rect " + colorizedImage->getRect().toString() + " must cover ROI rect " +
                 roi.toString() + " for frame " + std::to_string(frame));

    inputImage = readInputImage(host, call, frame, roi);
}

}  // namespace ML::DA2
