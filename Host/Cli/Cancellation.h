#pragma once
// Ctrl-C: the SIGINT handler only sets an atomic flag; a watcher thread passes it on to the
// settings of the calls that are running, whose isCancelled polls then answer true.
// A second Ctrl-C ends the process at once.
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include "Host/CallSettings.h"

namespace QCli {

// Installs the SIGINT handler (once per process).
void installInterruptHandler();
bool interrupted();
// Sets the flag as the handler does (for tests).
void raiseInterrupt();
void clearInterrupt();

class CancelWatch {
public:
    CancelWatch();
    ~CancelWatch();
    CancelWatch(const CancelWatch&) = delete;
    CancelWatch& operator=(const CancelWatch&) = delete;

    // Settings are cancelled at once if the flag is already set.
    void add(const std::shared_ptr<QHost::CallSettings>& settings);
    void remove(const std::shared_ptr<QHost::CallSettings>& settings);

private:
    void watch();

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::set<std::shared_ptr<QHost::CallSettings>> active_;
    std::thread thread_;
};

}  // namespace QCli
