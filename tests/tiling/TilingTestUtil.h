#pragma once
// Shared helpers of the tiling tests.
#include <functional>
#include <string>

#include "ML/Exception.h"
#include "Plugin/TiledExecution.h"

namespace tiling_test {

// srcStart, srcEnd, srcTileStart, srcTileEnd, dstStart, dstEnd, dstTileStart, dstTileEnd
inline ML::TiledExecution::Tile1D t(int a, int b, int c, int d, int e, int f, int g, int h) {
    return ML::TiledExecution::Tile1D{a, b, c, d, e, f, g, h};
}

// The message of the ML::Exception that f throws, after checking it is an internal plug-in error;
// "<no exception>" when f returns.
inline std::string internalErrorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const ML::Exception& e) {
        if (e.source() != ML::Exception::PLUGIN || e.code() != ML::Exception::INTERNAL)
            return std::string("<wrong source or code> ") + e.what();
        return e.what();
    } catch (const std::exception& e) {
        return std::string("<not an ML::Exception> ") + e.what();
    }
    return "<no exception>";
}

// True when text ends with ": " + message (the message follows the source location).
inline bool endsWithMessage(const std::string& text, const std::string& message) {
    const std::string tail = ": " + message;
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace tiling_test
