// Paths cross the backend border as wide strings, whatever the process locale.
#include <gtest/gtest.h>

#include "Util/ML_WideText.h"

using namespace ML;

TEST(WideText, RoundTripsNonAsciiPaths) {
    const std::string utf8 = "/tmp/Mod\xc3\xa8les/\xe6\x97\xa5\xe6\x9c\xac/\xf0\x9f\x8e\xa5.onnx";
    const std::wstring wide = widen(utf8);
    EXPECT_EQ(wide, L"/tmp/Mod\u00e8les/\u65e5\u672c/\U0001F3A5.onnx");
    EXPECT_EQ(narrow(wide), utf8);
    EXPECT_EQ(pathFromWide(toWide(std::filesystem::path(utf8))).string(), utf8);
}

TEST(WideText, MalformedBytesBecomeReplacementCharacters) {
    EXPECT_EQ(widen("a\xff" "b"), L"a\uFFFD" L"b");
    EXPECT_EQ(widen("x\xe6\x97"), L"x\uFFFD\uFFFD");  // truncated sequence
    EXPECT_EQ(widen("\xc0\xaf"), L"\uFFFD\uFFFD");    // overlong form
}

TEST(WideText, DisplayPathUsesForwardSlashes) {
    EXPECT_EQ(displayPath("imgcvt\\a\\b"), "imgcvt/a/b");
    EXPECT_EQ(displayPath("plain/path"), "plain/path");
}
