#include "Plugin/Models/PLKSR/Context.h"

#include <algorithm>
#include <cmath>
#include <mutex>
#include <vector>

#include "ML/Buffer.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/PLKSR/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::PLKSR {

namespace {

u64 pixelBytes(const Image& like) {
    return static_cast<u64>(bytesPerElement(like.getDataType())) * channelCount(like.getChannelFormat());
}

// Packed HWC host image of rect in the format of `like`, over bytes of `buffer`.
Ptr<Image> hostImage(const Ptr<BufferImp>& buffer, const Image& like, const Rect& rect) {
    buffer->resize(pixelBytes(like) * static_cast<u64>(rect.width()) * static_cast<u64>(rect.height()));
    return Ptr<Image>(new ImageImp(rect, like.getChannelFormat(), Image::HWC, like.getDataType(), buffer->getData(),
                                   0, 0));
}

Rect intersect(const Rect& a, const Rect& b) {
    return Rect{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
}

}  // namespace

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, prepareOnly, info);
    if (prepareOnly) return;

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    const ExecInfo exec = findExecInfo(rs.modelScale, info);
    std::shared_ptr<TempState> ts =
        getTempState(states, info.modelId + "-" + std::to_string(rs.modelScale), host, call,
                     [&] { return std::make_shared<TempState>(modelContext, info, exec); });
    const i32 scale = rs.modelScale;
    const i32 tileOut = exec.tileSize * scale;

    Ptr<BufferImp> inputTileBuffer(new BufferImp), outputTileBuffer(new BufferImp);
    Ptr<Image> inputTile = hostImage(inputTileBuffer, *rs.inputImage, Rect{0, 0, exec.tileSize, exec.tileSize});
    Ptr<Image> outputTile = hostImage(outputTileBuffer, *rs.outputImage, Rect{0, 0, tileOut, tileOut});
    Ptr<Image> roiView = makeNewImageView(rs.outputImage, rs.roi);

    // Where the network's result goes: the region itself at a trained scale, else the part of
    // the trained scale's result that the resampler reads.
    Ptr<Image> target = roiView;
    Ptr<BufferImp> intermediateBuffer;
    const float r = rs.factor / static_cast<float>(scale);
    if (!rs.isExactScale) {
        const float ox = static_cast<float>(rs.originX), oy = static_cast<float>(rs.originY);
        const Rect needed{static_cast<i32>(std::floor((static_cast<float>(rs.roi.x0) - ox) / r + ox)),
                          static_cast<i32>(std::floor((static_cast<float>(rs.roi.y0) - oy) / r + oy)),
                          static_cast<i32>(std::ceil((static_cast<float>(rs.roi.x1) - ox) / r + ox)),
                          static_cast<i32>(std::ceil((static_cast<float>(rs.roi.y1) - oy) / r + oy))};
        const Rect in = rs.inputImage->getRect();
        const Rect available{(in.x0 - rs.originX) * scale + rs.originX, (in.y0 - rs.originY) * scale + rs.originY,
                             (in.x1 - rs.originX) * scale + rs.originX, (in.y1 - rs.originY) * scale + rs.originY};
        intermediateBuffer = Ptr<BufferImp>(new BufferImp);
        target = hostImage(intermediateBuffer, *rs.outputImage, intersect(needed, available));
    }

    auto& planMap = planMaps[tileOut];
    if (!planMap)
        planMap = std::make_unique<TiledExecution::ExecutionPlanMap>(
            std::vector<TiledExecution::ExecSize>{{tileOut, tileOut}});
    const TiledExecution::ExecutionPlan plan = TiledExecution::mapPlanToUpresInput(
        planMap->get(target->getRect(), exec.padding), rs.inputImage->getRect(), scale, rs.originX, rs.originY);

    host->setProgress(call, 0.0f);
    const size_t count = plan.tiles.size();
    for (size_t i = 0; i < count; ++i) {
        const TiledExecution::Tile& tile = plan.tiles[i];
        if (host->isCancelled(call)) ML_THROW_CANCEL();
        clearImage(inputTile);
        TiledExecution::copySrcToTileWithBorderPadding(tile, rs.inputImage, inputTile);
        common->hostImageToTensor(inputTile, ts->inputDesc, ts->inputTensor);
        ts->network->run({ts->inputTensor}, {ts->outputTensor}, -1);
        clearImage(outputTile);
        common->tensorToHostImage(ts->outputDesc, ts->outputTensor, outputTile);
        copySlice(outputTile, target, tile.dstTileRect, tile.dstRect);
        host->setProgress(call, static_cast<float>(i) / static_cast<float>(count));
    }
    if (rs.isExactScale) return;

    // Resampling from the trained scale's grid to the requested one.
    const Rect view = roiView->getRect();
    const Rect mid = target->getRect();
    const std::shared_ptr<BackendModel>& sampler = ts->sampler();
    Ptr<Image> sourceDesc(new ImageImp(mid, Image::RGB, Image::CHW, ts->dataType));
    std::shared_ptr<BackendTensor> source =
        ts->samplerSource.acquire(shapeOfImage(mid.height(), mid.width(), Image::RGB, Image::CHW, 1), ts->dataType);
    common->hostImageToTensor(target, sourceDesc, source);
    float params[7] = {static_cast<float>(view.x0), static_cast<float>(view.y0), static_cast<float>(mid.x0),
                       static_cast<float>(mid.y0), static_cast<float>(rs.originX), static_cast<float>(rs.originY), r};

    const i32 side = TempState::samplerTileSize;
    if (view.width() <= side && view.height() <= side) {
        Ptr<Image> destinationDesc =
            makeDescription(view.height(), view.width(), Image::RGB, Image::CHW, ts->dataType);
        std::shared_ptr<BackendTensor> destination =
            ts->samplerDestination.acquire(shapeOfImage(*destinationDesc, 1), ts->dataType);
        const i32 size[2] = {view.width(), view.height()};
        ts->samplerSize->upload(size);
        ts->samplerParams->upload(params);
        sampler->run({source, ts->samplerParams, ts->samplerSize}, {destination}, -1);
        common->tensorToHostImage(destinationDesc, destination, roiView);
        return;
    }

    Ptr<Image> destinationDesc = makeDescription(side, side, Image::RGB, Image::CHW, ts->dataType);
    std::shared_ptr<BackendTensor> destination =
        ts->samplerDestination.acquire(shapeOfImage(*destinationDesc, 1), ts->dataType);
    Ptr<BufferImp> samplerTileBuffer(new BufferImp);
    Ptr<Image> samplerTile = hostImage(samplerTileBuffer, *roiView, Rect{0, 0, side, side});
    const i32 size[2] = {side, side};
    ts->samplerSize->upload(size);
    const TiledExecution::ExecutionPlan& samplerPlan = ts->samplerPlans.get(view, 0);
    for (const TiledExecution::Tile& tile : samplerPlan.tiles) {
        params[0] = static_cast<float>(tile.dstRect.x0 - tile.dstTileRect.x0);
        params[1] = static_cast<float>(tile.dstRect.y0 - tile.dstTileRect.y0);
        ts->samplerParams->upload(params);
        sampler->run({source, ts->samplerParams, ts->samplerSize}, {destination}, -1);
        common->tensorToHostImage(destinationDesc, destination, samplerTile);
        copySlice(samplerTile, roiView, tile.dstTileRect, tile.dstRect);
    }
}

}  // namespace ML::PLKSR
