// Numbered sequence names: parsing, spelling of frame numbers and listing of frames on disk.
#include <gtest/gtest.h>

#include "Host/Media/SequencePattern.h"
#include "media/MediaTestUtil.h"

using QMedia::FrameRange;
using QMedia::SequencePattern;
namespace fs = std::filesystem;

TEST(SequencePattern, SpellsFrameNumbers) {
    const struct {
        const char* pattern;
        int frame;
        const char* path;
    } cases[] = {
        {"frame.%04d.exr", 7, "frame.0007.exr"}, {"frame.####.exr", 7, "frame.0007.exr"},
        {"frame.%d.png", 7, "frame.7.png"},      {"frame.#.png", 12, "frame.12.png"},
        {"f%04d", 123456, "f123456"},            {"f%04d", -3, "f-003"},
        {"%03d.png", 0, "000.png"},              {"100%%_%03d.png", 5, "100%_005.png"},
        {"/a/b.c/shot_%05d.tif", 42, "/a/b.c/shot_00042.tif"},
    };
    for (const auto& c : cases) {
        EXPECT_TRUE(SequencePattern::isPattern(c.pattern)) << c.pattern;
        EXPECT_EQ(SequencePattern(c.pattern).pathFor(c.frame), fs::path(c.path)) << c.pattern;
    }
}

TEST(SequencePattern, RejectsNamesWithoutOneFrameNumber) {
    EXPECT_NE(QMediaTest::errorOf([] { SequencePattern("shot/frame.exr"); }).find("has no frame number"),
              std::string::npos);
    // A placeholder in a folder name does not count.
    for (const char* bad : {"a.exr", "100%%.png", "a.%04d.%04d.exr", "a.##.%d.exr", "a.%s.png", "a.%4d.png",
                            "a.%x.png", "a.%", "a%0999d", "renders_%04d/frame.exr"}) {
        EXPECT_THROW(SequencePattern{bad}, ML::Exception) << bad;
        EXPECT_FALSE(SequencePattern::isPattern(bad)) << bad;
    }
}

TEST(SequencePattern, FrameOfAcceptsOnlyTheExactSpelling) {
    const SequencePattern padded("frame.%04d.exr");
    const SequencePattern plain("f%d.png");
    const struct {
        const SequencePattern& pattern;
        const char* name;
        std::optional<int> frame;
    } cases[] = {
        {padded, "frame.0007.exr", 7}, {padded, "frame.12345.exr", 12345}, {padded, "frame.-003.exr", -3},
        {padded, "frame.7.exr", {}},   {padded, "frame.00007.exr", {}},     {padded, "frame.00a7.exr", {}},
        {padded, "frame..exr", {}},    {padded, "frame.0007.exr.tmp", {}},  {padded, "frame.99999999999999.exr", {}},
        {plain, "f0.png", 0},          {plain, "f07.png", {}},              {plain, "f-0.png", {}},
    };
    for (const auto& c : cases) EXPECT_EQ(c.pattern.frameOf(c.name), c.frame) << c.name;
}

TEST(SequencePattern, ListsFramesOnDisk) {
    TempDir dir;
    for (const char* name : {"frame.0003.exr", "frame.0004.exr", "frame.0005.exr", "frame.0008.exr",
                             // not frames of the pattern:
                             "frame.1.exr", "other.0002.exr", "frame.0006.png", ".frame.0010.exr.ab12.tmp"})
        QMediaTest::writeText(dir / name, "x");
    fs::create_directory(dir / "frame.0009.exr");

    const SequencePattern p(dir / "frame.####.exr");
    EXPECT_EQ(p.framesOnDisk(), (std::vector<int>{3, 4, 5, 8}));
    const auto range = p.rangeOnDisk();
    ASSERT_TRUE(range);
    EXPECT_TRUE(*range == (FrameRange{3, 8}));
    EXPECT_EQ(range->count(), 6);

    EXPECT_FALSE(SequencePattern(dir / "none.%04d.exr").rangeOnDisk());
    EXPECT_TRUE(SequencePattern(dir / "missing" / "a.%04d.exr").framesOnDisk().empty());
}
