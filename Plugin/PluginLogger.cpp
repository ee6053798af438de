#include "Plugin/PluginLogger.h"

namespace ML {

Logger* g_hostLogger = nullptr;
// Never freed: the backend keeps a pointer to it for its own log lines, and those may come as late
// as the process's exit. The library is linked so that it stays mapped after dlclose.
PluginLogger* g_pluginLogger = nullptr;

void PluginLogger::log(Ptr<StringT<char>> text) {
    if (Logger* host = g_hostLogger) host->log(text);
}

namespace {
char levelLetter(i32 level) {
    switch (level) {
        case LOG_ERROR: return 'E';
        case LOG_WARNING: return 'W';
        case LOG_INFO: return 'I';
        case LOG_VERBOSE: return 'V';
        default: return '?';
    }
}
}  // namespace

void log(i32 level, std::string text) {
    PluginLogger* logger = g_pluginLogger;
    if (logger && logger->getLogLevel() >= level) {
        std::string line = "[Quillon] [";
        line += levelLetter(level);
        line += "] ";
        line += text;
        logger->log(makeString(line));
    }
    text.clear();
}

void logError(std::string text) { log(LOG_ERROR, std::move(text)); }
void logWarning(std::string text) { log(LOG_WARNING, std::move(text)); }
void logInfo(std::string text) { log(LOG_INFO, std::move(text)); }
void logVerbose(std::string text) { log(LOG_VERBOSE, std::move(text)); }

}  // namespace ML
