#pragma once

namespace QMedia {

// First and last frame, both included.
struct FrameRange {
    int first = 0;
    int last = 0;
    int count() const { return last - first + 1; }
    bool contains(int frame) const { return frame >= first && frame <= last; }
    bool operator==(const FrameRange& o) const { return first == o.first && last == o.last; }
};

}  // namespace QMedia
