#include "Plugin/Models/FastDVDNet/Pipeline.h"

#include <Imath/half.h>

#include <cstring>
#include <string>

#include "Plugin/CachedCompute.h"
#include "Util/ML_Util.h"

namespace ML {

namespace {

// The noise map: one plane of the execution size, all 1.0.
void uploadOnes(BackendTensor& tensor, u32 dataType, u64 count) {
    if (dataType == F32) {
        const std::vector<float> ones(count, 1.0f);
        tensor.upload(ones.data());
    } else {
        const std::vector<Imath::half> ones(count, Imath::half(1.0f));
        tensor.upload(ones.data());
    }
}

std::string rectKey(const Rect& r) {
    return std::to_string(r.x0) + ":" + std::to_string(r.x1) + "x" + std::to_string(r.y0) + ":" + std::to_string(r.y1);
}

}  // namespace

FastDVDNet_Pipeline::FastDVDNet_Pipeline(std::shared_ptr<ModelContext> context, u32 dataType, i32 execW, i32 execH,
                                         const Ptr<Image>& hostImage)
    : modelContext(std::move(context)), execW(execW), execH(execH), dataType(dataType) {
    const u32 format = hostImage->getChannelFormat();
    const u32 layout = hostImage->getMemoryLayout();
    const u32 hostType = hostImage->getDataType();
    const u64 pixelBytes = bytesPerElement(hostType) * channelCount(format);
    const auto planeShape = std::vector<u64>{1, 3, static_cast<u64>(execH), static_cast<u64>(execW)};
    slots.resize(2);
    for (Slot& s : slots) {
        s.converter = std::make_unique<ImageTensorConverter>(modelContext);
        s.tileDescription = makeDescription(execH, execW, Image::RGB, Image::CHW, dataType);
        s.gamma = std::make_unique<ImageTensorGammaConverter>(modelContext);
        s.gamma->init(s.tileDescription, 1, 1);
        s.tileBytes.assign(pixelBytes * static_cast<u64>(execW) * static_cast<u64>(execH), 0);
        const u32 rowBytes = static_cast<u32>(layout == Image::CHW ? bytesPerElement(hostType) * execW
                                                                    : pixelBytes * static_cast<u64>(execW));
        const u32 channelBytes = layout == Image::CHW ? rowBytes * static_cast<u32>(execH) : 0;
        s.tileImage = Ptr<Image>(new ImageImp(Rect{0, 0, execW, execH}, format, layout, hostType, s.tileBytes.data(),
                                              rowBytes, channelBytes));
        for (auto& t : s.stage1Inputs) t = modelContext->createTensor(planeShape, dataType);
        for (auto& t : s.stage2Inputs) t = modelContext->createTensor(planeShape, dataType);
        s.noiseMap = modelContext->createTensor({1, 1, static_cast<u64>(execH), static_cast<u64>(execW)}, dataType);
        uploadOnes(*s.noiseMap, dataType, static_cast<u64>(execW) * static_cast<u64>(execH));
        s.output = modelContext->createTensor(planeShape, dataType);
        s.outputDescription = s.tileDescription;
    }
}

u64 FastDVDNet_Pipeline::tileBytes() const {
    return bytesPerElement(dataType) * static_cast<u64>(execH) * static_cast<u64>(execW) * 3;
}

Ptr<Buffer> FastDVDNet_Pipeline::stage1Result(const FastDVDNet_Frames& f, int first) {
    const TiledExecution::ExecutionPlan& plan = *f.plan;
    const auto number = [&](int i) { return std::to_string(static_cast<i64>(f.frame) - 2 + i); };
    const std::string key = "fdvd_s1:" + number(first) + "/" + number(first + 1) + "/" + number(first + 2) + "-" +
                            rectKey(f.output->getRect());
    const u64 bytes = tileBytes();
    return computeCached(f.host, f.call, key, bytes * static_cast<u64>(plan.numTiles), [&](Buffer& buffer) {
        auto* out = static_cast<unsigned char*>(buffer.getData());
        for (std::size_t t = 0; t < plan.tiles.size(); ++t) {
            const TiledExecution::Tile& tile = plan.tiles[t];
            if (f.host->isCancelled(f.call)) ML_THROW_CANCEL();
            SlotQueue::Guard guard(queue);
            Slot& s = slots[static_cast<std::size_t>(guard.slot())];
            for (int i = 0; i < 3; ++i) {
                // Edges of a frame smaller than the tile repeat its border, so that filters
                // near the edge see picture rather than whatever the tile held before.
                TiledExecution::copySrcToTileWithBorderPadding(tile, f.inputs[static_cast<std::size_t>(first + i)],
                                                               s.tileImage);
                s.converter->hostImageToTensor(s.tileImage, s.tileDescription, s.stage1Inputs[static_cast<std::size_t>(i)]);
                s.gamma->convert(s.stage1Inputs[static_cast<std::size_t>(i)], f.hostGamma, f.inGamma, 0);
            }
            f.stage1->run({s.stage1Inputs[0], s.stage1Inputs[1], s.stage1Inputs[2], s.noiseMap}, {s.output});
            s.output->download(out + t * bytes);
        }
    });
}

void FastDVDNet_Pipeline::run(const FastDVDNet_Frames& f) {
    const std::array<Ptr<Buffer>, 3> stage1{stage1Result(f, 0), stage1Result(f, 1), stage1Result(f, 2)};
    const u64 bytes = tileBytes();
    SlotQueue::Guard guard(queue);
    Slot& s = slots[static_cast<std::size_t>(guard.slot())];
    const TiledExecution::ExecutionPlan& plan = *f.plan;
    for (std::size_t t = 0; t < plan.tiles.size(); ++t) {
        const TiledExecution::Tile& tile = plan.tiles[t];
        if (f.host->isCancelled(f.call)) ML_THROW_CANCEL();
        for (std::size_t i = 0; i < 3; ++i)
            s.stage2Inputs[i]->upload(static_cast<const unsigned char*>(stage1[i]->getData()) + t * bytes);
        f.stage2->run({s.stage2Inputs[0], s.stage2Inputs[1], s.stage2Inputs[2], s.noiseMap}, {s.output});
        s.gamma->convert(s.output, f.inGamma, f.hostGamma, 0);
        s.converter->tensorToHostImage(s.outputDescription, s.output, s.tileImage);
        copySlice(s.tileImage, f.output, tile.dstTileRect, tile.dstRect);
    }
}

}  // namespace ML
