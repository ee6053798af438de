#pragma once
// The plug-in's logger and the global log functions. Lines are
// "[Quillon] [E|W|I|V] text", dropped when their level is above the host logger's level.
#include <string>

#include "ML/Logger.h"

namespace ML {

class PluginLogger : public Logger {
public:
    explicit PluginLogger(i32 level) : level(level) {}
    i32 getLogLevel() override { return level; }
    void log(Ptr<StringT<char>> text) override;
    ~PluginLogger() override = default;

private:
    i32 level;
};

// Process-wide logger state; created by mlMain.
extern Logger* g_hostLogger;
extern PluginLogger* g_pluginLogger;

enum LogLevel : i32 { LOG_ERROR = 0, LOG_WARNING = 1, LOG_INFO = 2, LOG_VERBOSE = 3 };

void log(i32 level, std::string text);
void logError(std::string text);
void logWarning(std::string text);
void logInfo(std::string text);
void logVerbose(std::string text);

}  // namespace ML
