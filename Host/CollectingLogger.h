#pragma once
// The host's logger: keeps every line the plug-in sends, and can echo them to a stream.
//
// The level is what getLogLevel answers (0 error, 1 warning, 2 info, 3 verbose); the plug-in reads
// it and drops lines above it itself, so every line that arrives here is kept. All members are
// thread-safe.
#include <atomic>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include "ML/Logger.h"

namespace QHost {

class CollectingLogger final : public ML::Logger {
public:
    explicit CollectingLogger(ML::i32 level = 3, std::ostream* echo = nullptr);

    ML::i32 getLogLevel() override;
    // A null text is ignored.
    void log(ML::Ptr<ML::StringT<char>> text) override;

    void setLogLevel(ML::i32 level);
    // Each line is also written to echo, followed by a newline; null stops echoing. The stream
    // must outlive its use here.
    void setEcho(std::ostream* echo);

    std::vector<std::string> lines() const;
    std::size_t lineCount() const;
    // Lines that contain fragment.
    std::vector<std::string> linesWith(const std::string& fragment) const;
    bool contains(const std::string& fragment) const;
    void clear();

private:
    std::atomic<ML::i32> level_;
    mutable std::mutex mutex_;
    std::ostream* echo_;
    std::vector<std::string> lines_;
};

}  // namespace QHost
