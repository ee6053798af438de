#include "Plugin/Models/RAFT/RenderState.h"

#include "Plugin/ModelBase.h"
#include "Plugin/PluginLogger.h"

namespace ML::RAFT {

RenderState::RenderState(Host* host, u64 call, const ModelInfo& info) {
    const TileSize& size = info.getOnlyTileSize();
    execH = size.execH;
    execW = size.execW;
    const u32 frame = host->getFrame(call);

    flowImage = readOutputImage(host, call, frame, 0);
    colorizedImage = readOutputImage(host, call, frame, 1);
    if (flowImage && flowImage->getChannelFormat() != Image::RG)
        ML_THROW("Flow output channel format must be ML::Image::ChannelFormat::RG");
    if (!flowImage && !colorizedImage) {
        logWarning(
            "Attempting to render optical flow without requesting either output layers. nothing to do, render is "
            "cancelled!");
        ML_THROW_CANCEL();
    }
    if (flowImage && colorizedImage && flowImage->getRect() != colorizedImage->getRect())
        ML_THROW("Rect for both outputs must match! (" + colorizedImage->getRect().toString() + " vs " +
                 flowImage->getRect().toString() + ")");
    rect = flowImage ? flowImage->getRect() : colorizedImage->getRect();

    const i32 offset = host->getIntParam(call, 700, 0);
    for (i32 i = 0; i < 2; ++i) {
        const u32 number = frame + static_cast<u32>(i * offset);
        Ptr<Image> image = checkResult(host->getInputImage(call, number, &rect, ResourceId{0, -1}));
        if (!image) ML_THROW("No input image returned by getInputImage()");
        inputs.push_back(image);
    }
    if (inputs[0]->getRect() != inputs[1]->getRect())
        ML_THROW("Input image rectangles must match: " + inputs[0]->getRect().toString() + " vs " +
                 inputs[1]->getRect().toString());
}

}  // namespace ML::RAFT
