#include "BackendLog.h"

namespace ML::OrtBackend {

const char* backendName() { return QUILLON_ORT_BACKEND_NAME; }

void logLine(Logger* logger, i32 level, const std::string& text) noexcept {
    if (!logger) return;
    try {
        if (logger->getLogLevel() < level) return;
        static constexpr char kLetters[] = {'E', 'W', 'I', 'V'};
        const char letter = level >= 0 && level <= 3 ? kLetters[level] : '?';
        logger->log(makeString(std::string("[MLBackend_") + backendName() + "] [" + letter + "] " + text));
    } catch (...) {
        // Logging never fails the work it reports on.
    }
}

}  // namespace ML::OrtBackend
