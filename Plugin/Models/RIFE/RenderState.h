#pragma once
// What one retiming render asks of the host: the output, the source position and the one or two
// source frames around it.
#include <vector>

#include "ML/Host.h"
#include "Plugin/ModelInfo.h"
#include "Plugin/TiledExecution.h"

namespace ML::RIFE {

struct RenderState {
    RenderState(Host* host, u64 call, const ModelInfo& info);

    i32 execH = 0, execW = 0;
    u32 frame = 0;
    Ptr<Image> outputImage;
    Rect rect;
    bool interpolate = false;
    std::vector<i32> frames;
    std::vector<Ptr<Image>> inputs;
    float frac = 0.0f;
};

// The feather weights of one axis of a tile: 1 inside, ramps of 2 * margin across the sides that
// meet a neighbouring tile, 0 beyond; neighbouring ramps add up to 1.
void makeFeatherWeights(std::vector<float>& weights, i32 n, i32 margin, const TiledExecution::Tile1D& axis);

// The tile overlap for a measured largest motion of `maxFlow` pixels and the tile size.
i32 motionMargin(float maxFlow, i32 execH, i32 execW);

}  // namespace ML::RIFE
