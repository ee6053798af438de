#pragma once
// What one depth render reads from the host, checked before any work is done.
#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML::DA2 {

struct RenderState {
    RenderState(Host* host, u64 call, const ModelInfo& info);

    Host* host;
    u64 call;
    const ModelInfo& info;
    u32 frame = 0;
    Rect roi;
    Ptr<Image> depthImage;
    Ptr<Image> colorizedImage;  // optional
    Ptr<Image> inputImage;
};

}  // namespace ML::DA2
