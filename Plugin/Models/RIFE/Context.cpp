#include "Plugin/Models/RIFE/Context.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <vector>

#include "Plugin/ModelCommon.h"
#include "Plugin/Models/RAFT/TempState.h"
#include "Util/ML_Util.h"

namespace ML::RIFE {

namespace {

const nlohmann::json& flowEstOf(const ModelInfo& info) {
    if (!info.params.is_object() || !info.params.contains("flowEst"))
        ML_THROW("Model configuration error: \"flowEst\" missing for " + info.modelId);
    return info.params.at("flowEst");
}

// A host tile of the execution size in the format of `like`, over bytes it owns.
struct HostTile {
    std::vector<unsigned char> bytes;
    Ptr<Image> image;
    HostTile(const Image& like, i32 execW, i32 execH) {
        const u32 format = like.getChannelFormat(), layout = like.getMemoryLayout(), type = like.getDataType();
        const u64 element = bytesPerElement(type);
        const u64 channels = channelCount(format);
        bytes.assign(element * channels * static_cast<u64>(execW) * static_cast<u64>(execH), 0);
        const u32 rowBytes = static_cast<u32>(layout == Image::CHW ? element * execW : element * channels * execW);
        const u32 channelBytes = layout == Image::CHW ? rowBytes * static_cast<u32>(execH) : 0;
        image = Ptr<Image>(new ImageImp(Rect{0, 0, execW, execH}, format, layout, type, bytes.data(), rowBytes, channelBytes));
    }
    void clear() { std::fill(bytes.begin(), bytes.end(), 0); }
};

bool tileSizeDiffers(const TempState& ts, const RenderState& rs) {
    return ts.hostWeightsX.size() != static_cast<std::size_t>(rs.execW) ||
           ts.hostWeightsY.size() != static_cast<std::size_t>(rs.execH);
}

}  // namespace

i32 Context::estimateMotionMargin(const RenderState& rs, const ModelInfo& info) {
    const nlohmann::json& flowEst = flowEstOf(info);
    const i32 measureH = flowEst.at("execH").get<i32>();
    const i32 measureW = flowEst.at("execW").get<i32>();
    if (!flowModel) flowModel = modelContext->loadModel(flowEst.at("modelId").get<std::string>());
    if (!maxFlowModel) maxFlowModel = modelContext->loadModel(flowEst.at("maxModelId").get<std::string>());

    RAFT::TempState& ts = common->getFlowTempState(F32, measureH, measureW);
    common->hostImageToTensor(makeNewImageView(rs.inputs[0], rs.rect), ts.imageDesc, ts.image0);
    common->hostImageToTensor(makeNewImageView(rs.inputs[1], rs.rect), ts.imageDesc, ts.image1);
    RAFT::uploadScale(*ts.scale, rs.rect, measureH, measureW);
    flowModel->run({ts.image0, ts.image1, ts.scale}, {ts.flow}, -1);
    maxFlowModel->run({ts.flow}, {ts.scale}, -1);
    float maxima[2] = {0.0f, 0.0f};
    ts.scale->download(maxima);
    const bool finite = std::isfinite(maxima[0]) && std::isfinite(maxima[1]);
    return motionMargin(finite ? std::max(maxima[0], maxima[1]) : NAN, rs.execH, rs.execW);
}

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, info);
    if (prepareOnly) return;
    if (!rs.interpolate) {
        copySlice(rs.inputs[0], rs.outputImage, rs.rect, rs.rect);
        return;
    }

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    const i32 margin = estimateMotionMargin(rs, info);

    auto found = models.find(info.modelId);
    if (found == models.end()) found = models.emplace(info.modelId, modelContext->loadModel(info.modelId)).first;
    const std::shared_ptr<BackendModel>& interpolation = found->second;
    if (!blendModel)
        blendModel = modelContext->loadModel(std::string("imgcvt/blend_") + pixelTypeName(F32) + "_1x3x" +
                                             std::to_string(rs.execH) + "x" + std::to_string(rs.execW));

    if (!planMap)
        planMap = std::make_unique<TiledExecution::ExecutionPlanMap>(TiledExecution::toExecSizes(info.availableTileSizes));
    const TiledExecution::ExecutionPlan& plan = planMap->get(rs.rect, margin);

    HostTile inputTile(*rs.inputs[0], rs.execW, rs.execH);
    HostTile outputTile(*rs.outputImage, rs.execW, rs.execH);

    if (!tempState) tempState = std::make_unique<TempState>(modelContext, rs.execH, rs.execW);
    if (tileSizeDiffers(*tempState, rs))
        ML_THROW("Model configuration error: every retiming model must have the tile size of the first one used (" +
                 std::to_string(tempState->hostWeightsX.size()) + "x" + std::to_string(tempState->hostWeightsY.size()) + ")");
    TempState& ts = *tempState;
    ts.time->upload(&rs.frac);

    host->setProgress(call, 0.0f);
    clearImage(rs.outputImage);
    i32 done = 0;
    for (const TiledExecution::Tile& tile : plan.tiles) {
        if (host->isCancelled(call)) ML_THROW_CANCEL();
        for (std::size_t i = 0; i < 2; ++i) {
            inputTile.clear();
            copySlice(rs.inputs[i], inputTile.image, tile.srcRect, tile.srcTileRect);
            common->hostImageToTensor(inputTile.image, ts.tensorDesc, i == 0 ? ts.image0 : ts.image1);
        }
        interpolation->run({ts.image0, ts.image1, ts.time}, {ts.result}, -1);

        // The sum so far in this tile's area.
        copySlice(rs.outputImage, inputTile.image, tile.srcRect, tile.srcTileRect);
        common->hostImageToTensor(inputTile.image, ts.tensorDesc, ts.image0);

        makeFeatherWeights(ts.hostWeightsY, rs.execH, margin, TiledExecution::tileAxisY(tile));
        makeFeatherWeights(ts.hostWeightsX, rs.execW, margin, TiledExecution::tileAxisX(tile));
        ts.weightsY->upload(ts.hostWeightsY.data());
        ts.weightsX->upload(ts.hostWeightsX.data());
        blendModel->run({ts.image0, ts.result, ts.weightsY, ts.weightsX}, {ts.image1}, -1);

        common->tensorToHostImage(ts.tensorDesc, ts.image1, outputTile.image);
        copySlice(outputTile.image, rs.outputImage, tile.srcTileRect, tile.srcRect);
        host->setProgress(call, static_cast<float>(++done) / static_cast<float>(plan.numTiles));
    }
}

}  // namespace ML::RIFE
