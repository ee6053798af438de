#pragma once
// Log lines of the backend, sent to the logger that the plug-in gave at initialisation:
// "[MLBackend_<name>] [E|W|I|V] text", dropped when above the logger's level.
#include <string>

#include "ML/Logger.h"

namespace ML::OrtBackend {

enum LogLevel : i32 { LOG_ERROR = 0, LOG_WARNING = 1, LOG_INFO = 2, LOG_VERBOSE = 3 };

// Never throws; a null logger drops the line.
void logLine(Logger* logger, i32 level, const std::string& text) noexcept;

// "ort_cpu" or "ort_cuda": the name this library is loaded under.
const char* backendName();

}  // namespace ML::OrtBackend
