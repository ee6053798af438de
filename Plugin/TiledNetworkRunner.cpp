#include "Plugin/TiledNetworkRunner.h"

#include "Plugin/ModelCommon.h"
#include "Util/ML_Util.h"

namespace ML {

TiledNetworkRunner::TiledNetworkRunner(std::shared_ptr<BackendModel> network, Ptr<Image> inputDescription,
                                       std::shared_ptr<BackendTensor> inputTensor, Ptr<Image> outputDescription,
                                       std::shared_ptr<BackendTensor> outputTensor)
    : network(std::move(network)), inputDescription(std::move(inputDescription)),
      inputTensor(std::move(inputTensor)), outputDescription(std::move(outputDescription)),
      outputTensor(std::move(outputTensor)) {}

Ptr<Image> TiledNetworkRunner::tileImage(std::vector<u8>& storage, const Image& like, i32 width, i32 height) {
    const u64 pixelBytes = static_cast<u64>(bytesPerElement(like.getDataType())) * channelCount(like.getChannelFormat());
    storage.resize(pixelBytes * static_cast<u64>(width) * static_cast<u64>(height));
    return Ptr<Image>(new ImageImp(Rect{0, 0, width, height}, like.getChannelFormat(), Image::HWC,
                                   like.getDataType(), storage.data(), 0, 0));
}

void TiledNetworkRunner::run(ModelCommon& common, const TiledExecution::ExecutionPlan& plan,
                             const Ptr<Image>& source, const Ptr<Image>& result, Host* host, u64 call) {
    Ptr<Image> sourceTile = tileImage(sourceTileStorage, *source, plan.execW, plan.execH);
    Ptr<Image> resultTile = tileImage(resultTileStorage, *result, plan.execW, plan.execH);
    const size_t count = plan.tiles.size();
    for (size_t i = 0; i < count; ++i) {
        const TiledExecution::Tile& tile = plan.tiles[i];
        if (host && host->isCancelled(call)) ML_THROW_CANCEL();
        clearImage(sourceTile);
        TiledExecution::copySrcToTileWithBorderPadding(tile, source, sourceTile);
        common.hostImageToTensor(sourceTile, inputDescription, inputTensor);
        network->run({inputTensor}, {outputTensor}, -1);
        common.tensorToHostImage(outputDescription, outputTensor, resultTile);
        copySlice(resultTile, result, tile.dstTileRect, tile.dstRect);
        if (host) host->setProgress(call, static_cast<float>(i + 1) / static_cast<float>(count));
    }
}

}  // namespace ML
