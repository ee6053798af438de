#include "Plugin/Models/FastDVDNet/Context.h"

#include <array>
#include <string>

#include "Plugin/ImageTensorConverter.h"
#include "Util/ML_Util.h"

namespace ML {

namespace {

constexpr i32 kOverlap = 48;

// The part of the version before its first '.', as a number (0 when there is none).
int majorVersion(const std::string& version) {
    int major = 0;
    for (char c : version) {
        if (c < '0' || c > '9' || major > 99999) break;
        major = major * 10 + (c - '0');
    }
    return major;
}

}  // namespace

void FastDVDNet_Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    FastDVDNet_Frames frames{};
    frames.host = host;
    frames.call = call;
    frames.frame = host->getFrame(call);
    frames.hostGamma = host->getFloatParam(call, 4, 0);
    frames.inGamma = info.inGamma;

    frames.output = checkResult(host->getOutputImage(call, frames.frame, ResourceId{0, -1}));
    if (!frames.output) ML_THROW("No output image returned by getOutputImage() (host should return error result instead!)");
    const Rect rect = frames.output->getRect();

    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!planMap)
            planMap = std::make_unique<TiledExecution::ExecutionPlanMap>(TiledExecution::toExecSizes(info.availableTileSizes));
    }
    frames.plan = &planMap->get(rect, kOverlap);

    for (int i = 0; i < 5; ++i) {
        const u32 number = frames.frame - 2u + static_cast<u32>(i);
        Ptr<Image> image = checkResult(host->getInputImage(call, number, &rect, ResourceId{0, -1}));
        if (!image) ML_THROW("No input image returned by getInputImage() (host should return error result instead!)");
        frames.inputs[static_cast<std::size_t>(i)] = image;
    }
    if (prepareOnly) return;

    const i32 execW = frames.plan->execW, execH = frames.plan->execH;
    frames.stage1 = getStageModel(host, call, execW, execH, info, 1);
    frames.stage2 = getStageModel(host, call, execW, execH, info, 2);
    const u32 dataType = modelContext->getBackendName() == "coreml" ? F32 : F16;
    getPipeline(dataType, execW, execH, frames.inputs[0]).run(frames);
}

std::shared_ptr<BackendModel> FastDVDNet_Context::getStageModel(Host* host, u64 call, i32 execW, i32 execH,
                                                                const ModelInfo& info, int stage) {
    const std::string key = std::to_string(execW) + "x" + std::to_string(execH) + "x" + std::to_string(stage);
    std::lock_guard<std::mutex> lock(mutex);
    auto found = stageModels.find(key);
    if (found != stageModels.end()) return found->second;

    std::string file = info.modelId + "_stage" + std::to_string(stage);
    if (modelContext->getBackendName() == "coreml") {
        file = majorVersion(modelContext->getVersion()) < 12
                   ? file + "/model.pt"
                   : file + "/" + file + "_" + std::to_string(execW) + "x" + std::to_string(execH);
    }
    host->setBusyLoading(call, true);
    std::shared_ptr<BackendModel> model;
    try {
        model = modelContext->loadModel(file);
    } catch (...) {
        host->setBusyLoading(call, false);
        throw;
    }
    host->setBusyLoading(call, false);
    return stageModels.emplace(key, std::move(model)).first->second;
}

FastDVDNet_Pipeline& FastDVDNet_Context::getPipeline(u32 dataType, i32 execW, i32 execH, const Ptr<Image>& hostImage) {
    const std::string key = std::string(typeName(dataType)) + "/" + std::to_string(execW) + "x" +
                            std::to_string(execH) + "/" + formatName(hostImage->getChannelFormat()) + "/" +
                            layoutName(hostImage->getMemoryLayout()) + "/" + typeName(hostImage->getDataType());
    std::lock_guard<std::mutex> lock(mutex);
    auto& pipeline = pipelines[key];
    if (!pipeline) pipeline = std::make_unique<FastDVDNet_Pipeline>(modelContext, dataType, execW, execH, hostImage);
    return *pipeline;
}

}  // namespace ML
