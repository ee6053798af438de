#pragma once
// What one upscale render reads from the host, checked before any work is done.
#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML::PLKSR {

// One trained scale of a model: its input tile side and the output pixels discarded on each
// inner side of a tile.
struct ExecInfo {
    i32 scale = 0;
    i32 tileSize = 0;
    i32 padding = 0;
};

// The factor as an integer when it is one and the model has a network for it, else -1.
i32 findExactScale(float factor, const ModelInfo& info);
// The first trained scale above factor, or the last listed one.
i32 pickScale(float factor, const ModelInfo& info);
// The entry of params.scales for scale; refuses a padding that is not a multiple of the scale.
ExecInfo findExecInfo(i32 scale, const ModelInfo& info);

struct RenderState {
    RenderState(Host* host, u64 call, bool prepareOnly, const ModelInfo& info);

    u32 frame = 0;
    Rect roi;
    Ptr<Image> outputImage;
    Ptr<Image> inputImage;
    bool isExactScale = false;
    float factor = 1.0f;
    i32 originX = 0;
    i32 originY = 0;
    i32 modelScale = 0;
};

}  // namespace ML::PLKSR
