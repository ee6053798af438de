#pragma once
// The plug-in's targets by name and number.
#include <string>
#include <vector>

#include "Host/Cli/ParamSetting.h"

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

}  // namespace QCli
