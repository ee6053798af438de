#include "Host/Cli/Progress.h"

#include <cstdio>
#include <string>

namespace QCli {

Progress::Progress(int totalFrames, std::ostream& out, bool terminal)
    : total_(totalFrames), out_(out), terminal_(terminal), start_(std::chrono::steady_clock::now()) {
    if (terminal_) draw();
}

double Progress::framesPerSecond() const {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    return seconds > 0 ? done_ / seconds : 0.0;
}

void Progress::frameDone() {
    ++done_;
    if (terminal_) {
        draw();
    } else {
        char line[96];
        std::snprintf(line, sizeof line, "quillon: frame %d/%d (%.2f fps)\n", done_, total_, framesPerSecond());
        out_ << line << std::flush;
    }
}

void Progress::draw() {
    constexpr int width = 30;
    const int filled = total_ > 0 ? done_ * width / total_ : width;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.append(static_cast<std::size_t>(width - filled), '.');
    char line[160];
    std::snprintf(line, sizeof line, "\r[%s] %d/%d frames  %.2f fps", bar.c_str(), done_, total_, framesPerSecond());
    out_ << line << std::flush;
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    if (terminal_) out_ << "\n" << std::flush;
}

}  // namespace QCli
