#include "Plugin/Models/RRDBNet/Context.h"

#include <mutex>
#include <vector>

#include "Plugin/ModelCommon.h"
#include "Plugin/Models/RRDBNet/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::RRDBNet {

namespace {

// Packed HWC host image of a square tile in the format of `like`.
Ptr<Image> hostTile(std::vector<u8>& storage, const Image& like, i32 side) {
    const u64 pixelBytes = static_cast<u64>(bytesPerElement(like.getDataType())) * channelCount(like.getChannelFormat());
    storage.resize(pixelBytes * static_cast<u64>(side) * static_cast<u64>(side));
    return Ptr<Image>(new ImageImp(Rect{0, 0, side, side}, like.getChannelFormat(), Image::HWC, like.getDataType(),
                                   storage.data(), 0, 0));
}

bool smallerThanTile(const Rect& r, i32 side) { return r.width() < side || r.height() < side; }

}  // namespace

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, prepareOnly, info);
    if (prepareOnly) return;

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    std::shared_ptr<TempState> ts = getTempState(states, info.modelId, host, call, [&] {
        return std::make_shared<TempState>(modelContext, info, rs.tileSize);
    });

    std::vector<u8> inputStorage, outputStorage;
    Ptr<Image> inputTile = hostTile(inputStorage, *rs.inputImage, rs.tileSize);
    Ptr<Image> outputTile = hostTile(outputStorage, *rs.outputImage, rs.tileSize);

    auto& planMap = planMaps[rs.tileSize];
    if (!planMap)
        planMap = std::make_unique<TiledExecution::ExecutionPlanMap>(
            std::vector<TiledExecution::ExecSize>{{rs.tileSize, rs.tileSize}});
    const TiledExecution::ExecutionPlan& plan = planMap->get(rs.outputImage->getRect(), rs.overlap);

    host->setProgress(call, 0.0f);
    const size_t count = plan.tiles.size();
    for (size_t i = 0; i < count; ++i) {
        const TiledExecution::Tile& tile = plan.tiles[i];
        if (host->isCancelled(call)) ML_THROW_CANCEL();
        if (smallerThanTile(tile.srcRect, rs.tileSize)) clearImage(inputTile);
        copySlice(rs.inputImage, inputTile, tile.srcRect, tile.srcTileRect);
        common->hostImageToTensor(inputTile, ts->inputDesc, ts->inputTensor);
        ts->network->run({ts->inputTensor}, {ts->outputTensor}, -1);
        if (smallerThanTile(tile.dstRect, rs.tileSize)) clearImage(outputTile);
        common->tensorToHostImage(ts->outputDesc, ts->outputTensor, outputTile);
        copySlice(outputTile, rs.outputImage, tile.dstTileRect, tile.dstRect);
        host->setProgress(call, static_cast<float>(i) / static_cast<float>(count));
    }
}

}  // namespace ML::RRDBNet
