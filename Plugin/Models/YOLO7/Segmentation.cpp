#include "Plugin/Models/YOLO7/Segmentation.h"

#include <Imath/half.h>

#include <cmath>
#include <cstring>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/YOLO7/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::YOLO7 {

SegmentationTempState::SegmentationTempState(std::shared_ptr<ModelContext> context, u32 type, i32 h, i32 w,
                                             std::string id, std::vector<std::string> names)
    : dataType(type), execH(h), execW(w), modelId(std::move(id)), classes(std::move(names)), boxLogits(context),
      boxMasks(context) {
    if (modelId.empty()) ML_THROW("segmentation model id missing??");
    const u64 c = classes.size() + 1;
    parser = context->loadModel(modelId);
    logitsToMasks = context->loadModel(std::string("imgcvt/logits_to_masks_aa_") + typeName(dataType));
    input = context->createTensor({1, 3, static_cast<u64>(execH), static_cast<u64>(execW)}, dataType);
    logits = context->createTensor({1, c, static_cast<u64>(execH), static_cast<u64>(execW)}, dataType);
    rgbDesc = makeDescription(execH, execW, Image::RGB, Image::CHW, dataType);
    rDesc = makeDescription(execH, execW, Image::R, Image::CHW, dataType);
    tileIn = context->createTensor({1, c, 512, 512}, dataType);
    tileOut = context->createTensor({1, c, 512, 512}, dataType);
    tileBlock.resize(tileIn->getByteSize());
    channelBytes = 512ull * 512ull * bytesPerElement(dataType);
}

namespace {

// A planar R image of w x h over `data`: one plane of a channel-major block.
Ptr<Image> plane(void* data, u32 type, i32 w, i32 h) {
    return Ptr<Image>(new ImageImp(Rect{0, 0, w, h}, Image::R, Image::HWC, type, data, 0, 0));
}

void fillBackground(void* block, u32 type, u64 count) {
    if (type == F16) {
        const Imath::half ten(10.0f);
        auto* p = static_cast<Imath::half*>(block);
        for (u64 i = 0; i < count; ++i) p[i] = ten;
    } else if (type == F32) {
        auto* p = static_cast<float*>(block);
        for (u64 i = 0; i < count; ++i) p[i] = 10.0f;
    } else {
        ML_THROW("unexpected dtype??");
    }
}

}  // namespace

void segment_objects(RenderState& rs, SegmentationTempState& st, ModelCommon& common, nlohmann::json& result) {
    const i32 classes = static_cast<i32>(st.classes.size());
    nlohmann::json& objects = result["objects"];
    std::vector<Rect> boxes;
    u64 total = 0;
    for (nlohmann::json& object : objects) {
        const nlohmann::json& b = object.at("bbox");
        const float x1 = b.at(0).get<float>(), y1 = b.at(1).get<float>(), x2 = b.at(2).get<float>(),
                    y2 = b.at(3).get<float>();
        const float w = x2 - x1, h = y2 - y1;
        const float padX = std::trunc(std::round(w * rs.paddingFactor - w) * 0.5f);
        const float padY = std::trunc(std::round(h * rs.paddingFactor - h) * 0.5f);
        Rect grown;
        grown.x0 = static_cast<i32>(std::fmax(static_cast<float>(rs.roi.x0), x1 - padX));
        grown.y0 = static_cast<i32>(std::fmax(static_cast<float>(rs.roi.y0), y1 - padY));
        grown.x1 = static_cast<i32>(std::fmin(x2 + padX, static_cast<float>(rs.roi.x1)));
        grown.y1 = static_cast<i32>(std::fmin(y2 + padY, static_cast<float>(rs.roi.y1)));
        object["bbox"] = {grown.x0, grown.y0, grown.x1, grown.y1};
        boxes.push_back(grown);
        // A box rounded inward to nothing (a detection under a pixel wide) has no masks.
        if (!grown.isEmpty())
            total += static_cast<u64>(grown.width()) * static_cast<u64>(grown.height()) * static_cast<u64>(classes);
    }
    result["mask_classes"] = st.classes;
    result["mask_dtype"] = "U8";
    result["mask_buffer_size"] = total;
    rs.segmentationBuffer->resize(total);
    if (rs.segmentationBuffer->getSize() != total || (total && !rs.segmentationBuffer->getData()))
        ML_THROW("Could not resize segmentation output buffer to " + std::to_string(total) + " bytes");

    const Ptr<Image> frame = rs.input_images.at(static_cast<int>(rs.frame));
    const u64 c1 = static_cast<u64>(classes) + 1;
    u64 offset = 0;
    for (size_t i = 0; i < boxes.size(); ++i) {
        const Rect box = boxes[i];
        nlohmann::json& masks = objects[i]["masks"];
        masks = nlohmann::json::array();
        if (box.isEmpty()) {
            for (i32 c = 0; c < classes; ++c) masks.push_back({{"bbox", {box.x0, box.y0, box.x1, box.y1}}, {"buffer_offset", offset}});
            continue;
        }
        const i32 w = box.width(), h = box.height();
        common.hostImageToTensor(makeNewImageView(frame, box), st.rgbDesc, st.input);
        st.parser->run({st.input}, {st.logits}, -1);
        auto boxLogits = st.boxLogits.acquire({1, c1, static_cast<u64>(h), static_cast<u64>(w)}, st.dataType);
        auto boxMasks = st.boxMasks.acquire({static_cast<u64>(classes), 1, static_cast<u64>(h), static_cast<u64>(w)},
                                            st.dataType);
        void* logitsHost = st.boxLogitsHost.get(boxLogits->getByteSize());
        void* masksHost = st.boxMasksHost.get(boxLogits->getByteSize());
        if (w == st.execW && h == st.execH) {
            st.logits->download(logitsHost);  // already at the box's size
        } else {
            common.tensorToTensor(st.rDesc, st.logits, makeDescription(h, w, Image::R, Image::CHW, st.dataType), boxLogits);
            boxLogits->download(logitsHost);
        }

        const u64 planeBytes = static_cast<u64>(w) * static_cast<u64>(h) * bytesPerElement(st.dataType);
        const TiledExecution::ExecutionPlan& plan = st.planMap.get(Rect{0, 0, w, h}, 4);
        for (const TiledExecution::Tile& tile : plan.tiles) {
            if (tile.srcRect.width() < 512 || tile.srcRect.height() < 512) {
                std::memset(st.tileBlock.data(), 0, st.tileBlock.size());
                fillBackground(st.tileBlock.data(), st.dataType, 512ull * 512ull);
            }
            for (u64 c = 0; c < c1; ++c) {
                Ptr<Image> source = plane(static_cast<u8*>(logitsHost) + c * planeBytes, st.dataType, w, h);
                Ptr<Image> channel = plane(st.tileBlock.data() + c * st.channelBytes, st.dataType, 512, 512);
                copySlice(source, channel, tile.srcRect, tile.srcTileRect);
            }
            st.tileIn->upload(st.tileBlock.data());
            st.logitsToMasks->run({st.tileIn}, {st.tileOut}, -1);
            st.tileOut->download(st.tileBlock.data());
            for (u64 c = 0; c < c1; ++c) {
                Ptr<Image> channel = plane(st.tileBlock.data() + c * st.channelBytes, st.dataType, 512, 512);
                Ptr<Image> target = plane(static_cast<u8*>(masksHost) + c * planeBytes, st.dataType, w, h);
                copySlice(channel, target, tile.dstTileRect, tile.dstRect);
            }
        }
        boxMasks->upload(static_cast<u8*>(masksHost) + planeBytes);  // classes only, not the background
        const Ptr<Image> out(new ImageImp(Rect{0, 0, w, h}, Image::R, Image::CHW, U8,
                                          static_cast<u8*>(rs.segmentationBuffer->getData()) + offset, 0, 0));
        common.tensorToHostImage(makeDescription(h, w, Image::R, Image::CHW, st.dataType), boxMasks, out);
        for (i32 c = 0; c < classes; ++c) {
            masks.push_back({{"bbox", {box.x0, box.y0, box.x1, box.y1}}, {"buffer_offset", offset}});
            offset += static_cast<u64>(w) * static_cast<u64>(h);
        }
    }
}

}  // namespace ML::YOLO7
