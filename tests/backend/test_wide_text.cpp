// Paths cross the backend border as wide strings, whatever the process locale.
#include <gtest/gtest.h>

#include "Util/ML_WideText.h"

TEST(WideText, RoundTripsNonAsciiPathsAndReplacesMalformedBytes) {
    const std::string utf8 = "/tmp/Mod\xc3\xa8les/\xe6\x97\xa5\xe6\x9c\xac/\xf0\x9f\x8e\xa5.onnx";
    EXPECT_EQ(ML::widen(utf8), L"/tmp/Mod\u00e8les/\u65e5\u672c/\U0001F3A5.onnx");
    EXPECT_EQ(ML::narrow(ML::widen(utf8)), utf8);
    EXPECT_EQ(ML::pathFromWide(ML::toWide(std::filesystem::path(utf8))).string(), utf8);
    EXPECT_EQ(ML::widen("a\xff" "b"), L"a\uFFFD" L"b");
    EXPECT_EQ(ML::widen("x\xe6\x97"), L"x\uFFFD\uFFFD");  // truncated sequence
    EXPECT_EQ(ML::widen("\xc0\xaf"), L"\uFFFD\uFFFD");    // overlong form
    EXPECT_EQ(ML::displayPath("imgcvt\\a\\b"), "imgcvt/a/b");
}
