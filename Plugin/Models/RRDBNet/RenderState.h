#pragma once
// What one same-size enhancement render reads from the host, checked before any work is done.
#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML::RRDBNet {

struct RenderState {
    RenderState(Host* host, u64 call, bool prepareOnly, const ModelInfo& info);

    u32 frame = 0;
    Rect roi;
    Ptr<Image> outputImage;
    Ptr<Image> inputImage;
    i32 tileSize = 0;
    i32 overlap = 32;
};

}  // namespace ML::RRDBNet
