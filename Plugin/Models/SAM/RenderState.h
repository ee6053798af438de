#pragma once
// What one interactive segmentation render reads from the host: the model's shapes, the frame
// and region, the prompts (points and a box, in image pixels) and the images, each checked
// before any work is done.
#include <string>
#include <vector>

#include "ML/Host.h"
#include "Plugin/ModelInfo.h"

namespace ML::SAM {

// Encoder layouts by "archId".
enum ArchId : i32 { ARCH_VIT_L = 1, ARCH_HIERA_LARGE = 2 };

// Host resources of the effect.
constexpr i32 kPositivePointsBuffer = 900;
constexpr i32 kNegativePointsBuffer = 901;
constexpr i32 kBoxBuffer = 902;
constexpr i32 kJsonBuffer = 903;
constexpr i32 kMaskBuffer = 904;
constexpr i32 kTextPromptBuffer = 905;
constexpr i32 kTextThresholdParam = 910;

// "vit_l" or "hiera_large"; anything else fails with "Unexpected SAM arch id: ...".
ArchId parseArchId(const std::string& text);

struct RenderState {
    // prepareOnly skips the checks that images cover the region.
    RenderState(Host* host, u64 call, const ModelInfo& info, bool prepareOnly);

    Host* host;
    u64 call;
    const ModelInfo& info;

    ArchId archId = ARCH_HIERA_LARGE;
    i32 execH = 0, execW = 0;
    i32 outputTileExecH = 0, outputTileExecW = 0;
    u32 frame = 0;
    Rect rect;
    Ptr<Buffer> jsonOut, maskBufferOut;  // text mode only
    std::string textPrompt;
    float textThreshold = 0.0f;
    std::vector<float> positivePoints;  // x, y pairs
    std::vector<float> negativePoints;  // x, y pairs
    std::vector<float> boxes;           // x0, y0, x1, y1 quadruples
    i32 batchSz = 0;
    i32 singleMaxPoints = 0;
    Ptr<Image> inputImage, outputMask, outputColorized;
};

}  // namespace ML::SAM
