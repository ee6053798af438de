#include "Host/Cli/Cancellation.h"

#include <chrono>
#include <csignal>

namespace QCli {

namespace {

std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the signal handler needs a lock-free flag");

extern "C" void onInterrupt(int) {
    if (g_interrupted.exchange(true)) {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
    }
}

}  // namespace

void installInterruptHandler() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_handler = onInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, nullptr);
        return true;
    }();
    (void)installed;
}

bool interrupted() { return g_interrupted.load(); }
void raiseInterrupt() { g_interrupted.store(true); }
void clearInterrupt() { g_interrupted.store(false); }

CancelWatch::CancelWatch() : thread_([this] { watch(); }) {}

CancelWatch::~CancelWatch() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void CancelWatch::add(const std::shared_ptr<QHost::CallSettings>& settings) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (interrupted()) settings->cancel();
    active_.insert(settings);
}

void CancelWatch::remove(const std::shared_ptr<QHost::CallSettings>& settings) {
    std::lock_guard<std::mutex> lock(mutex_);
    active_.erase(settings);
}

void CancelWatch::watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stop_) {
        wake_.wait_for(lock, std::chrono::milliseconds(20));
        if (interrupted())
            for (const auto& settings : active_) settings->cancel();
    }
}

}  // namespace QCli
