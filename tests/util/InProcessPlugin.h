#pragma once
// The plug-in linked into a test executable and driven by the in-memory host: one host for the
// whole process (its logger is the one the plug-in logs to), and the plug-in's context released
// once every test has run, while that host is still alive. Include it in one source file of a
// test executable.
#include <gtest/gtest.h>

#include "Host/Host.h"
#include "Plugin/PluginMain.h"

namespace inprocess {

// Written into outputs before a render, to see which pixels the plug-in touched.
constexpr float kSentinel = -7.25f;

inline QHost::Host& host() {
    static QHost::Host instance;
    return instance;
}

struct PluginShutdown : ::testing::Environment {
    void TearDown() override { mlShutdown(); }
};
inline const auto* const g_pluginShutdown = ::testing::AddGlobalTestEnvironment(new PluginShutdown);

}  // namespace inprocess
