#pragma once
// The plug-in's targets by name and number.
#include <string>
#include <vector>

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

// How many frames on each side of the rendered one the effect reads (0 for single-frame effects).
// The host hands them over with the frame, repeating the clip's first and last frames past its ends.
int temporalRadius(int target);

}  // namespace QCli
