#include "Plugin/Models/QT/Sequence.h"

namespace ML::QT {

std::string sequenceKey(const SequenceId& id) {
    std::string key = "h" + std::to_string(id.h) + "_w" + std::to_string(id.w) + "_model:" + id.modelId +
                      "_nobjs:" + std::to_string(id.objects) + "_nkeys:" + std::to_string(id.keyframes.size()) +
                      "_startFrame:" + std::to_string(id.startFrame);
    for (i32 k : id.keyframes) key += "_k:" + std::to_string(k);
    return key;
}

std::string maskKey(const std::string& sequence, i32 frame) {
    return "qtMasks_frame:" + std::to_string(frame) + "_" + sequence;
}

std::string stateKey(const std::string& sequence, bool forward) {
    return "qtState_" + sequence + (forward ? "_fwd" : "_bwd");
}

std::string shapeKey(i32 h, i32 w, i32 t, i32 o) {
    return std::to_string(h) + "x" + std::to_string(w) + "x" + std::to_string(t) + "x" + std::to_string(o);
}

std::string outputKey(i32 outH, i32 outW, i32 o) {
    return std::to_string(outH) + "x" + std::to_string(outW) + "x" + std::to_string(o);
}

WalkPlan planWalk(const WalkInput& in) {
    WalkPlan plan;
    if (in.maskCached) {
        plan.framesToRun = {in.frame};
        plan.computeNothing = true;
        return plan;
    }
    const bool forward = in.frame >= in.startFrame;
    const i32 dir = forward ? 1 : -1;
    const i64 processed = in.stateCached ? in.framesProcessed : 0;
    plan.needInit = !in.stateCached || in.keyframesEncoded == 0;
    const i64 expected = in.startFrame + dir * processed;
    plan.expected = static_cast<i32>(expected);
    i32 first = plan.expected;
    // A count that no walk can have left (negative, or beyond the frame numbers) is taken as a
    // state that went past the frame.
    if (processed < 0 || expected != plan.expected || (in.frame - expected) * dir < 0) {
        plan.restart = true;
        plan.needInit = true;
        first = in.startFrame;
    }
    for (i32 f = first;; f += dir) {
        plan.framesToRun.push_back(f);
        if (f == in.frame) break;
    }
    return plan;
}

std::string restartWarning(i32 frame, i32 expected) {
    return "Host attempted to render a frame (" + std::to_string(frame) + ") that is past the expected next frame (" +
           std::to_string(expected) +
           "). The previously cached result was likely purged from memory. Render must restart from beginning of "
           "sequence!";
}

}  // namespace ML::QT
