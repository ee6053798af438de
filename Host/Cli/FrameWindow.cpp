#include "Host/Cli/FrameWindow.h"

#include <algorithm>

namespace QCli {

FrameWindow::FrameWindow(QMedia::FrameRange clip, Reader read) : clip_(clip), read_(std::move(read)) {}

const QMedia::Frame& FrameWindow::frame(int number) {
    const int source = std::clamp(number, clip_.first, clip_.last);
    auto found = frames_.find(source);
    if (found == frames_.end()) found = frames_.emplace(source, read_(source)).first;
    return found->second;
}

void FrameWindow::forgetBefore(int number) {
    frames_.erase(frames_.begin(), frames_.lower_bound(std::clamp(number, clip_.first, clip_.last)));
}

}  // namespace QCli
