#pragma once
// Device tensors of one interactive segmentation model at its execution shape (TempState), and
// the host buffers and tensors of one region's size (TempState_Host).
#include <memory>
#include <vector>

#include "Plugin/ModelContext.h"
#include "Plugin/Models/SAM/RenderState.h"

namespace ML::SAM {

// The tensors an encoder of `arch` fills, in the order of its outputs and of the cached buffer.
std::vector<std::vector<u64>> encoderOutputShapes(ArchId arch, i32 h, i32 w);
// Bytes of the cached embedding of one frame: the encoder's outputs in order, `dataType` elements.
u64 encodedSize(ArchId arch, i32 h, i32 w, u32 dataType);

// One set of prompt tensors and their host copies: `n` entries of coordinates (x, y in
// execution pixels), labels (0 negative, 1 positive, 2 and 3 box corners) and validity.
struct PromptTensors {
    PromptTensors(ModelContext& context, u32 dataType, u64 batch, u64 n);

    std::shared_ptr<BackendTensor> coords, labels, valid;
};

struct TempState {
    TempState(ModelContext& context, u32 dataType, ArchId arch, i32 h, i32 w, i32 th, i32 tw, i32 n, i32 batchSz);

    u32 dataType;
    ArchId arch;
    i32 h, w, th, tw, n;

    std::shared_ptr<BackendTensor> image;
    PromptTensors prompts;       // of the single decoder
    PromptTensors batchPrompts;  // of the batched decoder
    std::shared_ptr<BackendTensor> maskInput, hasMaskInput;
    std::shared_ptr<BackendTensor> lowResLogits;
    std::shared_ptr<BackendTensor> aux0, aux1, aux2, aux3;  // vit_l only, not read
    std::shared_ptr<BackendTensor> tileLogits, tileMasks;

    // vit_l
    std::shared_ptr<BackendTensor> embedding;
    std::vector<std::shared_ptr<BackendTensor>> intermediateOutputs;  // four of 1, h/16, w/16, 1024
    std::shared_ptr<BackendTensor> intermediates;                     // 4, 1, h/16, w/16, 1024
    // hiera_large
    std::shared_ptr<BackendTensor> feat4, feat8, feat16;

    // The encoder's outputs in order, and the tensors the cached buffer is written back to.
    TensorList encoderOutputs() const;
    TensorList embeddingTensors() const;
    u64 encodedSize() const;
    // The single decoder's inputs and outputs in order.
    TensorList decoderInputs() const;
    TensorList decoderOutputs() const;
    // A planar description of the encoder's input, w x h RGB.
    Ptr<Image> imageDescription() const;
};

struct TempState_Host {
    TempState_Host(ModelContext& context, u32 dataType, const Rect& rect, i32 th, i32 tw);

    // The colourised output's two tensors and buffer, made at first use.
    void makeColorizerState(ModelContext& context);

    u32 dataType;
    Rect rect;
    std::shared_ptr<BackendTensor> outTensor;  // 1, 1, rectH, rectW
    std::vector<u8> outLogits, outMasks;       // rectH * rectW elements each
    Ptr<Image> outLogitsImage, outMasksImage;  // over the buffers, at rect's place
    std::vector<u8> tileBuffer;                // one logits tile, th x tw
    Ptr<Image> tileImage;

    std::shared_ptr<BackendTensor> colorIn, colorOut;  // 1, 3, rectH, rectW
    std::vector<u8> colorBuffer;
};

}  // namespace ML::SAM
