#pragma once
// What one optical-flow render asks of the host: the flow and coloured outputs, the frame offset
// and the two frames.
#include <vector>

#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML::RAFT {

struct RenderState {
    RenderState(Host* host, u64 call, const ModelInfo& info);

    i32 execH = 0, execW = 0;
    Ptr<Image> flowImage, colorizedImage;
    Rect rect;
    std::vector<Ptr<Image>> inputs;
};

}  // namespace ML::RAFT
