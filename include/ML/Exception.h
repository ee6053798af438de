#pragma once
// The exception type of the plug-in: a source, a code and the finished text
// "SOURCE/CODE: message".
#include <exception>
#include <string>

#include "ML/Types.h"

namespace ML {

class Exception : public std::exception {
public:
    enum Source : u32 { BACKEND = 0, PLUGIN = 1 };
    enum Code : u32 { INTERNAL = 0, HOST = 1, CANCEL = 2 };

    Exception(u32 source, u32 code, const std::string& message)
        : source_(source), code_(code), text_(std::string(sourceText(source)) + "/" + codeText(code) + ": " + message) {}

    const char* what() const noexcept override { return text_.c_str(); }
    u32 source() const { return source_; }
    u32 code() const { return code_; }

    static const char* sourceText(u32 s) { return s == BACKEND ? "BACKEND" : s == PLUGIN ? "PLUGIN" : "UNKNOWN"; }
    static const char* codeText(u32 c) {
        return c == INTERNAL ? "INTERNAL" : c == HOST ? "HOST" : c == CANCEL ? "CANCEL" : "UNKNOWN";
    }

private:
    u32 source_;
    u32 code_;
    std::string text_;
};

// "path/without/extension:line: message". Build files map the source root away from __FILE__.
// Source paths are relative to the project root; build tools may still hand them over as
// "../Util/x.cpp" (relative to the build folder) or absolute.
inline std::string projectRelativePath(std::string path) {
    while (path.compare(0, 2, "./") == 0 || path.compare(0, 3, "../") == 0) path.erase(0, path[1] == '/' ? 2 : 3);
    if (!path.empty() && path[0] == '/') {
        static const char* const tops[] = {"/Plugin/", "/Util/", "/Host/", "/Backends/", "/Tools/", "/tests/",
                                           "/include/", "/bench/"};
        size_t best = std::string::npos;
        for (const char* top : tops) {
            const size_t at = path.rfind(top);
            if (at != std::string::npos && (best == std::string::npos || at > best)) best = at;
        }
        if (best != std::string::npos) path.erase(0, best + 1);
    }
    return path;
}

inline std::string located(const char* file, int line, const std::string& message) {
    std::string path = projectRelativePath(file);
    const auto slash = path.find_last_of('/');
    const auto dot = path.find_last_of('.');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash)) path.erase(dot);
    return path + ":" + std::to_string(line) + ": " + message;
}

}  // namespace ML

// PLUGIN exception with the source location in front of the message.
#define ML_EXCEPTION(code, msg) ::ML::Exception(::ML::Exception::PLUGIN, (code), ::ML::located(__FILE__, __LINE__, (msg)))
#define ML_THROW(msg) throw ML_EXCEPTION(::ML::Exception::INTERNAL, (msg))
#define ML_THROW_HOST(msg) throw ML_EXCEPTION(::ML::Exception::HOST, (msg))
#define ML_THROW_CANCEL() throw ::ML::Exception(::ML::Exception::PLUGIN, ::ML::Exception::CANCEL, "")
