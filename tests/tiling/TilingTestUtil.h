#pragma once
// Shared helpers of the tiling tests.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ML/Exception.h"
#include "Plugin/TiledExecution.h"

namespace tiling_test {

// srcStart, srcEnd, srcTileStart, srcTileEnd, dstStart, dstEnd, dstTileStart, dstTileEnd
inline ML::TiledExecution::Tile1D t(int a, int b, int c, int d, int e, int f, int g, int h) {
    return ML::TiledExecution::Tile1D{a, b, c, d, e, f, g, h};
}

// Passes when f throws an internal plug-in error whose text ends with ": " + message (the
// message follows the source location).
inline ::testing::AssertionResult failsWith(const std::function<void()>& f, const std::string& message) {
    std::string what = "no exception";
    try {
        f();
    } catch (const ML::Exception& e) {
        what = e.what();
        const std::string tail = ": " + message;
        if (e.source() == ML::Exception::PLUGIN && e.code() == ML::Exception::INTERNAL && what.size() >= tail.size() &&
            what.compare(what.size() - tail.size(), tail.size(), tail) == 0)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << what << "\nexpected to end with: " << message;
}

}  // namespace tiling_test
