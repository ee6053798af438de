#include "Plugin/Models/SAM/TempState.h"

#include "Plugin/ImageTensorConverter.h"

namespace ML::SAM {

namespace {

u64 elements(const std::vector<u64>& shape) {
    u64 n = 1;
    for (u64 d : shape) n *= d;
    return n;
}

std::vector<u64> dims(std::initializer_list<i64> values) {
    std::vector<u64> out;
    for (i64 v : values) out.push_back(static_cast<u64>(v));
    return out;
}

}  // namespace

std::vector<std::vector<u64>> encoderOutputShapes(ArchId arch, i32 h, i32 w) {
    if (arch == ARCH_VIT_L) {
        std::vector<std::vector<u64>> shapes{dims({1, 256, h / 16, w / 16})};
        for (int i = 0; i < 4; ++i) shapes.push_back(dims({1, h / 16, w / 16, 1024}));
        return shapes;
    }
    return {dims({1, 32, h / 4, w / 4}), dims({1, 64, h / 8, w / 8}), dims({1, 256, h / 16, w / 16})};
}

u64 encodedSize(ArchId arch, i32 h, i32 w, u32 dataType) {
    u64 total = 0;
    for (const auto& shape : encoderOutputShapes(arch, h, w)) total += elements(shape);
    return total * bytesPerElement(dataType);
}

PromptTensors::PromptTensors(ModelContext& context, u32 dataType, u64 batch, u64 n)
    : coords(context.createTensor({batch, n, 2}, dataType)),
      labels(context.createTensor({batch, n}, dataType)),
      valid(context.createTensor({batch, n}, dataType)) {}

TempState::TempState(ModelContext& context, u32 type, ArchId archId, i32 height, i32 width, i32 tileH, i32 tileW,
                     i32 maxPoints, i32 batchSz)
    : dataType(type),
      arch(archId),
      h(height),
      w(width),
      th(tileH),
      tw(tileW),
      n(maxPoints),
      prompts(context, type, 1, static_cast<u64>(maxPoints)),
      batchPrompts(context, type, static_cast<u64>(batchSz), static_cast<u64>(maxPoints)) {
    image = context.createTensor(dims({1, 3, h, w}), dataType);
    maskInput = context.createTensor(dims({1, 1, h / 4, w / 4}), dataType);
    hasMaskInput = context.createTensor({1, 1}, dataType);
    std::vector<u8> zeros(maskInput->getByteSize(), 0);
    maskInput->upload(zeros.data());
    hasMaskInput->upload(zeros.data());
    lowResLogits = context.createTensor(dims({1, 1, h / 4, w / 4}), dataType);
    tileLogits = context.createTensor(dims({1, 1, th, tw}), dataType);
    tileMasks = context.createTensor(dims({1, 1, th, tw}), dataType);
    const std::vector<std::vector<u64>> shapes = encoderOutputShapes(arch, h, w);
    if (arch == ARCH_VIT_L) {
        aux0 = context.createTensor({1, 1}, dataType);
        aux1 = context.createTensor({1, 1}, dataType);
        aux2 = context.createTensor(dims({1, 1, 1, w / 4}), dataType);
        aux3 = context.createTensor(dims({1, 1, h / 4, 1}), dataType);
        embedding = context.createTensor(shapes[0], dataType);
        for (int i = 1; i <= 4; ++i) intermediateOutputs.push_back(context.createTensor(shapes[i], dataType));
        intermediates = context.createTensor(dims({4, 1, h / 16, w / 16, 1024}), dataType);
    } else {
        feat4 = context.createTensor(shapes[0], dataType);
        feat8 = context.createTensor(shapes[1], dataType);
        feat16 = context.createTensor(shapes[2], dataType);
    }
}

TensorList TempState::encoderOutputs() const {
    if (arch == ARCH_VIT_L) {
        TensorList list{embedding};
        list.insert(list.end(), intermediateOutputs.begin(), intermediateOutputs.end());
        return list;
    }
    return {feat4, feat8, feat16};
}

TensorList TempState::embeddingTensors() const {
    if (arch == ARCH_VIT_L) return {embedding, intermediates};
    return {feat4, feat8, feat16};
}

u64 TempState::encodedSize() const { return SAM::encodedSize(arch, h, w, dataType); }

TensorList TempState::decoderInputs() const {
    if (arch == ARCH_VIT_L)
        return {embedding, intermediates, prompts.coords, prompts.labels, prompts.valid, maskInput, hasMaskInput};
    return {feat16, feat4, feat8, prompts.coords, prompts.labels, prompts.valid, maskInput, hasMaskInput};
}

TensorList TempState::decoderOutputs() const {
    if (arch == ARCH_VIT_L) return {lowResLogits, aux0, aux1, aux2, aux3};
    return {lowResLogits};
}

Ptr<Image> TempState::imageDescription() const { return makeDescription(h, w, Image::RGB, Image::CHW, dataType); }

TempState_Host::TempState_Host(ModelContext& context, u32 type, const Rect& r, i32 th, i32 tw)
    : dataType(type), rect(r) {
    const u64 rh = static_cast<u64>(rect.height()), rw = static_cast<u64>(rect.width());
    const u64 element = bytesPerElement(dataType);
    outTensor = context.createTensor({1, 1, rh, rw}, dataType);
    outLogits.resize(rh * rw * element);
    outMasks.resize(rh * rw * element);
    outLogitsImage = Ptr<Image>(new ImageImp(rect, Image::R, Image::HWC, dataType, outLogits.data(), 0, 0));
    outMasksImage = Ptr<Image>(new ImageImp(rect, Image::R, Image::HWC, dataType, outMasks.data(), 0, 0));
    tileBuffer.resize(static_cast<u64>(th) * static_cast<u64>(tw) * element);
    tileImage = Ptr<Image>(new ImageImp(Rect{0, 0, tw, th}, Image::R, Image::HWC, dataType, tileBuffer.data(), 0, 0));
}

void TempState_Host::makeColorizerState(ModelContext& context) {
    if (colorIn) return;
    const u64 rh = static_cast<u64>(rect.height()), rw = static_cast<u64>(rect.width());
    colorIn = context.createTensor({1, 3, rh, rw}, dataType);
    colorOut = context.createTensor({1, 3, rh, rw}, dataType);
    colorBuffer.resize(3 * rh * rw * bytesPerElement(dataType));
}

}  // namespace ML::SAM
