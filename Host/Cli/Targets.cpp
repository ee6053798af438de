#include "Host/Cli/Targets.h"

#include <algorithm>
#include <cctype>

#include "Host/Cli/CliError.h"

namespace QCli {

const std::vector<TargetName>& allTargets() {
    static const std::vector<TargetName> targets = {
        {1, "denoise"},         {2, "upres"},     {3, "optical-flow"},
        {4, "mask-propagation"}, {5, "retiming"}, {6, "face-detection"},
        {7, "interactive-segmentation"}, {8, "plate-detection"}, {9, "depth"},
        {10, "matting"},        {11, "pose"},     {12, "photo-restoration"},
        {13, "point-tracking"}, {14, "hdr"},      {15, "heads3d"},
        {16, "deinterlace"},
    };
    return targets;
}

int parseTarget(const std::string& text) {
    if (!text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); })) {
        if (text.size() <= 2) {
            const int number = std::stoi(text);
            if (number >= 1 && number <= 16) return number;
        }
        throw UsageError("unknown target number '" + text + "' (targets are 1 to 16)");
    }
    std::string key;
    for (unsigned char c : text) key += c == '_' ? '-' : static_cast<char>(std::tolower(c));
    for (const TargetName& t : allTargets())
        if (key == t.name) return t.number;
    throw UsageError("unknown target '" + text + "'");
}

std::string targetName(int number) {
    for (const TargetName& t : allTargets())
        if (t.number == number) return t.name;
    return "target " + std::to_string(number);
}

bool allowsParallelFrames(int target) {
    switch (target) {
        case 1:   // denoise: its shared results live in the host's cache, threads take turns at its slots
        case 2:   // upres
        case 3:   // optical flow
        case 5:   // retiming
        case 9:   // depth
        case 10:  // matting
        case 11:  // pose
        case 12:  // photo restoration
        case 14:  // hdr
        case 6:   // face and plate detection: states between frames live in the host's cache,
        case 8:   // and the plug-in renders one frame at a time
            return true;
        default:
            return false;
    }
}

std::vector<int> neighbourOffsets(int target, const std::vector<ParamSetting>& params) {
    switch (target) {
        case TARGET_DENOISE: return {-2, -1, 1, 2};  // five frames
        case TARGET_OPTICAL_FLOW: {
            int offset = 0;  // the host's default for int parameter 700
            for (const ParamSetting& p : params)
                if (p.id == 700 && p.index == 0 && p.setsInt) offset = p.intValue;
            if (offset == 0) return {};
            return {offset};
        }
        default: return {};
    }
}

std::vector<ParamSetting> defaultParams(int target, const QMedia::FrameRange& frames) {
    if (!isDetectionTarget(target)) return {};
    std::vector<ParamSetting> params{parseParam("500:float=1"), parseParam("501:float=1"),
                                     parseParam("504:int=" + std::to_string(frames.first))};
    if (target == TARGET_FACE_DETECTION) params.push_back(parseParam("502:int=1"));
    return params;
}

}  // namespace QCli
