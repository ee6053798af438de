// Numbered sequence names: parsing, spelling of frame numbers and listing of frames on disk.
#include <gtest/gtest.h>

#include <climits>

#include "Host/Media/SequencePattern.h"
#include "ML/Exception.h"
#include "media/MediaTestUtil.h"

using QMedia::FrameRange;
using QMedia::SequencePattern;
using QMediaTest::TempDir;
namespace fs = std::filesystem;

TEST(SequencePattern, PrintfAndHashPadding) {
    EXPECT_EQ(SequencePattern("frame.%04d.exr").pathFor(7), fs::path("frame.0007.exr"));
    EXPECT_EQ(SequencePattern("frame.####.exr").pathFor(7), fs::path("frame.0007.exr"));
    EXPECT_EQ(SequencePattern("frame.%d.png").pathFor(7), fs::path("frame.7.png"));
    EXPECT_EQ(SequencePattern("frame.#.png").pathFor(12), fs::path("frame.12.png"));
    EXPECT_EQ(SequencePattern("f%04d").pathFor(123456), fs::path("f123456"));
    EXPECT_EQ(SequencePattern("f%04d").pathFor(-3), fs::path("f-003"));
    EXPECT_EQ(SequencePattern("%03d.png").pathFor(0), fs::path("000.png"));
    EXPECT_EQ(SequencePattern("100%%_%03d.png").pathFor(5), fs::path("100%_005.png"));
    EXPECT_EQ(SequencePattern("/a/b.c/shot_%05d.tif").pathFor(42), fs::path("/a/b.c/shot_00042.tif"));
    EXPECT_EQ(SequencePattern("x.%04d.exr").padding(), 4);
    EXPECT_EQ(SequencePattern("x.%d.exr").padding(), 0);
}

TEST(SequencePattern, RejectsNamesWithoutOneFrameNumber) {
    try {
        SequencePattern("shot/frame.exr");
        FAIL() << "no exception";
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("has no frame number"), std::string::npos) << e.what();
    }
    for (const char* bad : {"a.%04d.%04d.exr", "a.##.%d.exr", "a.%s.png", "a.%4d.png", "a.%x.png", "a.%", "a%0999d"})
        EXPECT_THROW(SequencePattern{bad}, ML::Exception) << bad;
    // A placeholder in a folder name does not count.
    EXPECT_THROW(SequencePattern("renders_%04d/frame.exr"), ML::Exception);
}

TEST(SequencePattern, IsPatternAgreesWithTheConstructor) {
    EXPECT_TRUE(SequencePattern::isPattern("a.%04d.exr"));
    EXPECT_TRUE(SequencePattern::isPattern("a.###.exr"));
    EXPECT_TRUE(SequencePattern::isPattern("dir/a_%d.png"));
    EXPECT_FALSE(SequencePattern::isPattern("a.exr"));
    EXPECT_FALSE(SequencePattern::isPattern("100%%.png"));
    EXPECT_FALSE(SequencePattern::isPattern("a.%s.png"));
    EXPECT_FALSE(SequencePattern::isPattern("x_%02d/a.png"));
    EXPECT_FALSE(SequencePattern::isPattern("a.%d.%d.png"));
}

TEST(SequencePattern, FrameOfAcceptsOnlyTheExactSpelling) {
    const SequencePattern p("frame.%04d.exr");
    EXPECT_EQ(p.frameOf("frame.0007.exr"), 7);
    EXPECT_EQ(p.frameOf("frame.12345.exr"), 12345);
    EXPECT_EQ(p.frameOf("frame.-003.exr"), -3);
    EXPECT_FALSE(p.frameOf("frame.7.exr"));
    EXPECT_FALSE(p.frameOf("frame.00007.exr"));
    EXPECT_FALSE(p.frameOf("frame.00a7.exr"));
    EXPECT_FALSE(p.frameOf("frame..exr"));
    EXPECT_FALSE(p.frameOf("frame.0007.exr.tmp"));
    EXPECT_FALSE(p.frameOf("frame.99999999999999.exr"));
    const SequencePattern plain("f%d.png");
    EXPECT_EQ(plain.frameOf("f0.png"), 0);
    EXPECT_FALSE(plain.frameOf("f07.png"));
    EXPECT_FALSE(plain.frameOf("f-0.png"));
}

TEST(SequencePattern, FrameOfReadsBackEveryFrameAtEveryPadding) {
    const char* patterns[] = {"f%d.exr", "f%04d.exr", "f.%012d", "f.%013d", "f.%032d", "f####################.png"};
    const int frames[] = {0, 7, -3, 123456789, INT_MAX, INT_MIN};
    for (const char* text : patterns) {
        const SequencePattern p(text);
        for (int frame : frames)
            EXPECT_EQ(p.frameOf(p.pathFor(frame).string()), frame) << text << " frame " << frame;
    }
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
