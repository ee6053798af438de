#pragma once
// Collects the plug-in's log lines (all levels) while it lives.
#include <string>
#include <vector>

#include "Host/CollectingLogger.h"
#include "Plugin/PluginLogger.h"

class LogCapture {
public:
    explicit LogCapture(int level = ML::LOG_VERBOSE) : plugin(level) {
        ML::g_hostLogger = &log;
        ML::g_pluginLogger = &plugin;
    }
    ~LogCapture() {
        ML::g_pluginLogger = nullptr;
        ML::g_hostLogger = nullptr;
    }
    std::vector<std::string> lines() const { return log.lines(); }

private:
    QHost::CollectingLogger log;
    ML::PluginLogger plugin;
};
