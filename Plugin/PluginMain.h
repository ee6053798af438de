#pragma once
// The plug-in's two exported entry points and its process-wide context.
#include <memory>

#include "ML/Host.h"

namespace ML {
class PluginContext;
// Created by the first mlMain, destroyed by mlShutdown.
extern std::unique_ptr<PluginContext> g_pluginContext;
}  // namespace ML

extern "C" {
__attribute__((visibility("default"))) ML::i32 mlMain(ML::Host* host, ML::u64 call);
__attribute__((visibility("default"))) ML::i32 mlShutdown();
}
