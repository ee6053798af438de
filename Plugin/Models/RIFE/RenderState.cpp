#include "Plugin/Models/RIFE/RenderState.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "Plugin/ModelBase.h"
#include "Plugin/PluginLogger.h"

namespace ML::RIFE {

RenderState::RenderState(Host* host, u64 call, const ModelInfo& info) {
    const TileSize& size = info.getOnlyTileSize();
    execH = size.execH;
    execW = size.execW;
    frame = host->getFrame(call);

    outputImage = readOutputImage(host, call, frame, 0);
    if (!outputImage) {
        logWarning("Attempting to render retiming without providing output image. nothing to do, returning!");
        ML_THROW_CANCEL();
    }
    rect = outputImage->getRect();

    const float t = host->getFloatParam(call, 400, 0);
    // Frames are 32-bit numbers, and the position's next frame must be one too.
    if (!(t >= -2147483648.0f && t < 2147483520.0f))
        ML_THROW("Retiming position out of range: " + std::to_string(t));
    const i32 whole = static_cast<i32>(std::floor(t));
    frac = t - static_cast<float>(whole);
    if (frac < 0.001f) {
        frames = {whole};
    } else if (frac > 0.999f) {
        frames = {whole + 1};
    } else {
        interpolate = true;
        frames = {whole, whole + 1};
    }
    if (!interpolate) {
        char text[64];
        std::snprintf(text, sizeof text, "%f", static_cast<double>(t));
        logVerbose(std::string("Attempting to interpolate frames at t=") + text + " . Render will just copy input frame " +
                   std::to_string(frames[0]) + " to output");
    }

    for (const i32 n : frames) {
        Ptr<Image> image = checkResult(host->getInputImage(call, static_cast<u32>(n), &rect, ResourceId{0, -1}));
        if (!image) ML_THROW("No input image returned by host for frame " + std::to_string(n));
        if (!covers(image->getRect(), rect)) ML_THROW("Input rect must fully cover output rect");
        inputs.push_back(image);
    }
    if (inputs.size() == 2) {
        const Image& a = *inputs[0];
        const Image& b = *inputs[1];
        if (a.getDataType() != b.getDataType()) ML_THROW("Input images should have same data type!");
        if (a.getChannelFormat() != b.getChannelFormat()) ML_THROW("Input images should have same channel format!");
        if (a.getMemoryLayout() != b.getMemoryLayout()) ML_THROW("Input images should have same memory layout!");
        if (a.getRect() != b.getRect())
            ML_THROW("Input image rectangles must match: " + a.getRect().toString() + " vs " + b.getRect().toString());
    }
}

void makeFeatherWeights(std::vector<float>& weights, i32 n, i32 m, const TiledExecution::Tile1D& a) {
    weights.assign(static_cast<std::size_t>(std::max(n, 0)), 0.0f);
    for (i32 i = 0; i < n; ++i) {
        double w;
        if (i < a.dstTileStart - m || i >= a.dstTileEnd + m)
            w = 0.0;
        else if (i < a.dstTileStart + m)
            w = a.dstStart - a.srcStart > 0 ? static_cast<double>(i - a.dstTileStart + m) / (2.0 * m) : 1.0;
        else if (i < a.dstTileEnd - m || a.srcEnd - a.dstEnd < 1)
            w = 1.0;
        else
            w = static_cast<double>(a.dstTileEnd + m - i) / (2.0 * m);
        weights[static_cast<std::size_t>(i)] = static_cast<float>(w);
    }
}

i32 motionMargin(float maxFlow, i32 execH, i32 execW) {
    const i32 high = std::min(execW, execH) / 6;
    // A field without a finite maximum moves as far as the tiles allow.
    i32 v = !std::isfinite(maxFlow) || maxFlow > 1e6f ? high
            : maxFlow < 0.0f                          ? 0
                                                      : static_cast<i32>(std::lround(maxFlow * 1.5f));
    if (v > high)
        v = high;
    else if (v < 32)
        v = 32;
    return v & ~31;
}

}  // namespace ML::RIFE
