#include "Host/CollectingLogger.h"

namespace QHost {

using Lock = std::lock_guard<std::mutex>;

CollectingLogger::CollectingLogger(ML::i32 level, std::ostream* echo) : level_(level), echo_(echo) {}

ML::i32 CollectingLogger::getLogLevel() { return level_.load(); }

void CollectingLogger::setLogLevel(ML::i32 level) { level_.store(level); }

void CollectingLogger::log(ML::Ptr<ML::StringT<char>> text) {
    if (!text) return;
    std::string line = ML::toStd(text);
    Lock lock(mutex_);
    if (echo_) *echo_ << line << '\n' << std::flush;
    lines_.push_back(std::move(line));
}

void CollectingLogger::setEcho(std::ostream* echo) { Lock lock(mutex_); echo_ = echo; }

std::vector<std::string> CollectingLogger::lines() const { Lock lock(mutex_); return lines_; }

std::size_t CollectingLogger::lineCount() const { Lock lock(mutex_); return lines_.size(); }

std::vector<std::string> CollectingLogger::linesWith(const std::string& fragment) const {
    Lock lock(mutex_);
    std::vector<std::string> found;
    for (const auto& line : lines_)
        if (line.find(fragment) != std::string::npos) found.push_back(line);
    return found;
}

bool CollectingLogger::contains(const std::string& fragment) const { return !linesWith(fragment).empty(); }

void CollectingLogger::clear() { Lock lock(mutex_); lines_.clear(); }

}  // namespace QHost
