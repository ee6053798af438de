#include "Plugin/Models/PLKSR/RenderState.h"

#include <cmath>

#include "Plugin/ModelBase.h"
#include "Plugin/PluginLogger.h"

namespace ML::PLKSR {

namespace {

const nlohmann::json& scalesOf(const ModelInfo& info) {
    static const nlohmann::json none = nlohmann::json::array();
    if (!info.params.is_object() || !info.params.contains("scales")) return none;
    return info.params.at("scales");
}

}  // namespace

i32 findExactScale(float factor, const ModelInfo& info) {
    const float rounded = std::round(factor);
    if (factor != rounded) return -1;
    for (const nlohmann::json& s : scalesOf(info))
        if (s.at("scale").get<i32>() == static_cast<i32>(rounded)) return static_cast<i32>(rounded);
    return -1;
}

i32 pickScale(float factor, const ModelInfo& info) {
    const nlohmann::json& scales = scalesOf(info);
    if (scales.empty()) ML_THROW("Could not find exec info for upres factor " + std::to_string(factor));
    for (const nlohmann::json& s : scales)
        if (static_cast<float>(s.at("scale").get<i32>()) > factor) return s.at("scale").get<i32>();
    return scales.back().at("scale").get<i32>();
}

ExecInfo findExecInfo(i32 scale, const ModelInfo& info) {
    for (const nlohmann::json& s : scalesOf(info)) {
        if (s.at("scale").get<i32>() != scale) continue;
        ExecInfo e{scale, s.at("tile_size").get<i32>(), s.at("padding").get<i32>()};
        if (e.padding % scale != 0) ML_THROW("Model configuration error: Padding must be multiple of upres factor!");
        return e;
    }
    ML_THROW("Could not find exec info for upres factor " + std::to_string(scale));
}

RenderState::RenderState(Host* host, u64 call, bool prepareOnly, const ModelInfo& info) {
    frame = host->getFrame(call);
    roi = readROI(host, call, frame);

    outputImage = readOutputImage(host, call, frame, 0);
    if (!outputImage) {
        logWarning("Attempting to render PLKSR without providing output image. nothing to do, returning!");
        ML_THROW_CANCEL();
    }
    if (!prepareOnly) checkOutputCoversROI(outputImage, roi, frame);

    factor = host->getFloatParam(call, 200, 0);
    originX = host->getIntParam(call, 202, 0);
    originY = host->getIntParam(call, 203, 0);
    if (!(factor > 1.0f)) ML_THROW("upres factor must be > 1. host returned: " + std::to_string(factor));
    if (factor > 10.0f) ML_THROW("upres factor must be <= 10. host returned: " + std::to_string(factor));

    const i32 exact = findExactScale(factor, info);
    isExactScale = exact > 0;
    modelScale = isExactScale ? exact : pickScale(factor, info);

    const float ox = static_cast<float>(originX), oy = static_cast<float>(originY);
    const Rect minimum{static_cast<i32>(std::ceil((static_cast<float>(roi.x0) - ox) / factor + ox)),
                       static_cast<i32>(std::ceil((static_cast<float>(roi.y0) - oy) / factor + oy)),
                       static_cast<i32>(std::floor((static_cast<float>(roi.x1) - ox) / factor + ox)),
                       static_cast<i32>(std::floor((static_cast<float>(roi.y1) - oy) / factor + oy))};

    inputImage = checkResult(host->getInputImage(call, frame, &minimum, ResourceId{0, -1}));
    if (!inputImage) ML_THROW("No input image returned by host for frame " + std::to_string(frame));
    if (!prepareOnly && !covers(inputImage->getRect(), minimum))
        ML_THROW("Input rect " + inputImage->getRect().toString() + " must cover minimum input rect " +
                 minimum.toString() + " for output rect " + roi.toString() + " w/ upscale factor " +
                 std::to_string(factor));
}

}  // namespace ML::PLKSR
