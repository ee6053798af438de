#include "Plugin/Models/YOLO7/TempState.h"

#include "Plugin/ImageTensorConverter.h"
#include "Util/ML_Util.h"

namespace ML::YOLO7 {

TempState::TempState(ModelContext& context, u32 dataType, i32 execH, i32 execW, int keypoints)
    : detector(context, dataType, execH, execW, keypoints) {
    const u64 h = static_cast<u64>(execH), w = static_cast<u64>(execW);
    mask = context.createTensor({1, 1, h, w}, dataType);
    color = context.createTensor({1, 3, h, w}, dataType);
    rgb = detector.target;
    r = makeDescription(execH, execW, Image::R, Image::CHW, dataType);
}

namespace {

Ptr<Image> tileLike(std::vector<u8>& bytes, const Image& like, i32 h, i32 w) {
    bytes.assign(static_cast<u64>(bytesPerPixel(like)) * static_cast<u64>(w) * static_cast<u64>(h), 0);
    return Ptr<Image>(new ImageImp(Rect{0, 0, w, h}, like.getChannelFormat(), like.getMemoryLayout(),
                                   like.getDataType(), bytes.data(), 0, 0));
}

}  // namespace

TempState_Host::TempState_Host(i32 execH, i32 execW, const Image& source, const Image& mask) {
    colorTile = tileLike(colorBytes, source, execH, execW);
    maskTile = tileLike(maskBytes, mask, execH, execW);
}

}  // namespace ML::YOLO7
