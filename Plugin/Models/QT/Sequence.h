#pragma once
// A propagation sequence as the host's cache sees it: the keys of its state and of each frame's
// masks, and which frames a render has to compute to reach the asked one from what the cache
// still holds.
#include <string>
#include <vector>

#include "ML/Types.h"

namespace ML::QT {

// The most keyframes a sequence takes: each is asked of the host, held through the render and
// named in the keys.
constexpr i32 kMaxKeyframes = 1000;

struct SequenceId {
    i32 h = 0, w = 0;
    std::string modelId;
    i32 objects = 0;
    i32 startFrame = 0;
    std::vector<i32> keyframes;  // frame numbers, in the host's order
};

// "h512_w1024_model:base_nobjs:2_nkeys:2_startFrame:10_k:10_k:40"
std::string sequenceKey(const SequenceId& id);
// "qtMasks_frame:" frame "_" sequence key
std::string maskKey(const std::string& sequence, i32 frame);
// "qtState_" sequence key, then "_fwd" (frame at or after the start) or "_bwd"
std::string stateKey(const std::string& sequence, bool forward);

// Keys of the resources shared between renders.
std::string shapeKey(i32 h, i32 w, i32 t, i32 o);  // "512x1024x8x2"
std::string outputKey(i32 outH, i32 outW, i32 o);  // "720x1280x2"

// What the cache offered for the asked frame, and what has to run.
struct WalkInput {
    i32 frame = 0, startFrame = 0;
    bool maskCached = false;
    bool stateCached = false;
    i32 framesProcessed = 0;  // of the cached state
    i32 keyframesEncoded = 0;
};
struct WalkPlan {
    std::vector<i32> framesToRun;  // in order; the asked frame last
    bool computeNothing = false;   // the mask is cached: decode only
    bool needInit = false;         // the state starts afresh (keyframes encoded again)
    bool restart = false;          // the state had gone past the frame: warn, start over
    i32 expected = 0;              // the next frame the state could make
};
WalkPlan planWalk(const WalkInput& in);

// The warning of a restart.
std::string restartWarning(i32 frame, i32 expected);

}  // namespace ML::QT
