#pragma once
// Names of numbered image sequences: "frame.%04d.exr", "frame.%d.png" or "frame.####.exr".
// The frame number is one placeholder in the file name (not in the folders): "%d", "%0Nd"
// (zero padded to N digits, printf style) or a run of N '#' (the same as "%0Nd"). "%%" is a
// literal percent sign.
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Host/Media/FrameRange.h"

namespace QMedia {

class SequencePattern {
public:
    // Throws when the file name has no frame placeholder, more than one, or an unsupported
    // '%' directive.
    explicit SequencePattern(const std::filesystem::path& pattern);

    // True when the file name holds a placeholder that the constructor would accept.
    static bool isPattern(const std::filesystem::path& path);

    const std::filesystem::path& pattern() const { return pattern_; }
    // Digits the number is padded to; 0 for "%d".
    int padding() const { return padding_; }

    // The file of one frame. Negative frames are written as printf does: "-001" for -1 at 4.
    std::filesystem::path pathFor(int frame) const;
    // The frame number a file name stands for, if it is exactly the name pathFor would give.
    std::optional<int> frameOf(const std::string& fileName) const;

    // The frames whose files exist in the pattern's folder, in ascending order.
    std::vector<int> framesOnDisk() const;
    // First and last frame on disk; nothing when there is none.
    std::optional<FrameRange> rangeOnDisk() const;

private:
    std::filesystem::path pattern_;
    std::filesystem::path folder_;
    std::string prefix_;  // file name before the number, '%%' already resolved
    std::string suffix_;  // file name after the number
    int padding_ = 0;
};

}  // namespace QMedia
