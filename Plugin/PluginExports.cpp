// The plug-in library's exported symbols, mlMain and mlShutdown, are defined in PluginMain.cpp
// and pulled in whole from quillon_core; everything else stays hidden.
#include "Plugin/PluginMain.h"
