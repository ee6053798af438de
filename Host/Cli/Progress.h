#pragma once
// Progress of a render on the error stream: a bar redrawn in place on a terminal, plain lines
// otherwise; both with frames per second.
#include <chrono>
#include <ostream>

namespace QCli {

class Progress {
public:
    // terminal: draw a bar (normally isatty on stderr).
    Progress(int totalFrames, std::ostream& out, bool terminal);

    void frameDone();
    // Ends the bar's line; called once at the end, also after a failure.
    void finish();

    int done() const { return done_; }
    double framesPerSecond() const;

private:
    void draw();

    int total_;
    int done_ = 0;
    std::ostream& out_;
    bool terminal_;
    bool finished_ = false;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace QCli
