#pragma once
// The plug-in's targets by name and number.
#include <string>
#include <vector>

#include "Host/Cli/ParamSetting.h"
#include "Host/Media/FrameRange.h"

namespace QCli {

// Target numbers that the host treats specially.
constexpr int TARGET_DEPTH = 9;

struct TargetName {
    int number;
    const char* name;
};

// All sixteen targets in order of their numbers.
const std::vector<TargetName>& allTargets();

// A name ("depth", case-insensitive, '_' taken as '-') or a number 1..16; throws UsageError.
int parseTarget(const std::string& text);
// The name of a target number, or "target N" for an unknown one.
std::string targetName(int number);

// Whether frames of the target may be rendered on several host threads at once: effects that
// keep nothing between frames.
bool allowsParallelFrames(int target);

// The source frames an effect reads besides the one it renders, as offsets from it (none for
// single-frame effects); `params` are the render's parameters (optical flow's offset is one).
// The host hands them over with the frame, repeating the clip's first and last frames past its ends.
// Retiming is not here: it reads the two source frames around a position of its own.
std::vector<int> neighbourOffsets(int target, const std::vector<ParamSetting>& params);

constexpr int TARGET_DENOISE = 1;
constexpr int TARGET_OPTICAL_FLOW = 3;
constexpr int TARGET_RETIMING = 5;
constexpr int TARGET_FACE_DETECTION = 6;
constexpr int TARGET_PLATE_DETECTION = 8;
constexpr int TARGET_MASK_PROPAGATION = 4;
constexpr int TARGET_INTERACTIVE_SEGMENTATION = 7;

inline bool isDetectionTarget(int target) {
    return target == TARGET_FACE_DETECTION || target == TARGET_PLATE_DETECTION;
}

// Parameters the host sets for a target before the user's own, for a render of `frames`: the
// detection effects draw shapes at their detected size (500, 501 at 1.0), track faces by motion
// (502) and start tracking at the first rendered frame (504).
std::vector<ParamSetting> defaultParams(int target, const QMedia::FrameRange& frames);

}  // namespace QCli
