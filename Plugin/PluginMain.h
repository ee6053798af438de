#pragma once
// The plug-in's two exported entry points and its process-wide context.
#include "ML/Host.h"

namespace ML {
class PluginContext;
// Created by the first mlMain, destroyed by mlShutdown and by nothing else: a plain pointer, so
// that no static destructor tears it down in an unknown order when the host exits without
// mlShutdown.
extern PluginContext* g_pluginContext;
}  // namespace ML

extern "C" {
__attribute__((visibility("default"))) ML::i32 mlMain(ML::Host* host, ML::u64 call);
__attribute__((visibility("default"))) ML::i32 mlShutdown();
}
