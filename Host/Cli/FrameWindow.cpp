#include "Host/Cli/FrameWindow.h"

#include <algorithm>

namespace QCli {

FrameWindow::FrameWindow(QMedia::FrameRange clip, int radius, Reader read)
    : clip_(clip), radius_(radius), read_(std::move(read)) {}

const QMedia::Frame& FrameWindow::frame(int number) {
    const int source = std::clamp(number, clip_.first, clip_.last);
    auto found = frames_.find(source);
    if (found == frames_.end()) found = frames_.emplace(source, read_(source)).first;
    return found->second;
}

NeighbourFrames FrameWindow::neighboursOf(int number) {
    NeighbourFrames neighbours;
    for (int d = -radius_; d <= radius_; ++d)
        if (d != 0) neighbours.emplace(number + d, frame(number + d));
    return neighbours;
}

void FrameWindow::forgetBefore(int number) {
    const int keepFrom = std::clamp(number - radius_, clip_.first, clip_.last);
    frames_.erase(frames_.begin(), frames_.lower_bound(keepFrom));
}

}  // namespace QCli
