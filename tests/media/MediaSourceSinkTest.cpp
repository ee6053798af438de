// Sources and sinks chosen by path: images, sequences and videos behind one interface.
#include <gtest/gtest.h>

#include "Host/Media/MediaSink.h"
#include "Host/Media/MediaSource.h"
#include "ML/Exception.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::gradient;
using QMediaTest::TempDir;
namespace fs = std::filesystem;

TEST(MediaKind, ChosenByPath) {
    EXPECT_EQ(mediaKindOf("shots/a.%04d.exr"), MediaKind::Sequence);
    EXPECT_EQ(mediaKindOf("a.####.png"), MediaKind::Sequence);
    EXPECT_EQ(mediaKindOf("a.%04d.mp4"), MediaKind::Sequence);  // a pattern wins over the extension
    EXPECT_EQ(mediaKindOf("clip.MP4"), MediaKind::Video);
    for (const char* v : {"a.mov", "a.mkv", "a.avi", "a.webm"}) EXPECT_EQ(mediaKindOf(v), MediaKind::Video) << v;
    EXPECT_EQ(mediaKindOf("still.exr"), MediaKind::Image);
    EXPECT_EQ(mediaKindOf("100%%.png"), MediaKind::Image);
    EXPECT_STREQ(mediaKindName(MediaKind::Sequence), "sequence");
}

TEST(MediaSource, StillImageStandsForEveryFrame) {
    TempDir dir;
    const Frame still = gradient(12, 8, 4, ML::U8);
    auto sink = MediaSink::create(dir / "still.png");
    EXPECT_EQ(sink->kind(), MediaKind::Image);
    EXPECT_THROW(sink->finish(), ML::Exception);  // nothing written yet
    sink->write(7, still);
    EXPECT_THROW(sink->write(8, still), ML::Exception);
    sink->finish();

    auto source = MediaSource::open(dir / "still.png");
    EXPECT_EQ(source->kind(), MediaKind::Image);
    EXPECT_TRUE(source->frameRange() == (FrameRange{0, 0}));
    EXPECT_FALSE(source->frameRate().valid());
    EXPECT_EQ(source->read(0), still);
    EXPECT_EQ(source->read(123), still);
}

TEST(MediaSource, SequenceRangeComesFromDisk) {
    TempDir dir;
    const fs::path pattern = dir / "shot.%04d.exr";
    auto sink = MediaSink::create(pattern);
    EXPECT_EQ(sink->kind(), MediaKind::Sequence);
    for (int frame = 10; frame <= 13; ++frame) sink->write(frame, gradient(8, 6, 3, ML::F16, frame));
    sink->finish();
    EXPECT_TRUE(fs::exists(dir / "shot.0010.exr"));

    fs::remove(dir / "shot.0012.exr");
    auto source = MediaSource::open(dir / "shot.####.exr");
    EXPECT_EQ(source->kind(), MediaKind::Sequence);
    EXPECT_TRUE(source->frameRange() == (FrameRange{10, 13}));
    EXPECT_EQ(source->read(11), gradient(8, 6, 3, ML::F16, 11));
    try {
        source->read(12);
        FAIL() << "no exception";
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("Missing frame 12 of sequence"), std::string::npos) << e.what();
    }
    EXPECT_THROW(source->read(9), ML::Exception);
    EXPECT_THROW(source->read(14), ML::Exception);
}

TEST(MediaSource, VideoThroughSinkAndSource) {
    TempDir dir;
    MediaSinkOptions options;
    options.video.frameRate = FrameRate{30000, 1001};
    {
        auto sink = MediaSink::create(dir / "clip.mkv", options);
        EXPECT_EQ(sink->kind(), MediaKind::Video);
        for (int frame = 100; frame < 103; ++frame) sink->write(frame, gradient(16, 8, 3, ML::U8, frame));
        EXPECT_THROW(sink->write(105, gradient(16, 8, 3, ML::U8)), ML::Exception);  // frames go in order
        sink->finish();
    }
    auto source = MediaSource::open(dir / "clip.mkv");
    EXPECT_EQ(source->kind(), MediaKind::Video);
    EXPECT_TRUE(source->frameRange() == (FrameRange{0, 2}));
    EXPECT_TRUE(source->frameRate() == (FrameRate{30000, 1001}));
    EXPECT_EQ(source->read(1), gradient(16, 8, 3, ML::U8, 101));
}

TEST(MediaSource, ErrorsComeAtOpen) {
    TempDir dir;
    EXPECT_THROW(MediaSource::open(dir / "none.png"), ML::Exception);
    EXPECT_THROW(MediaSource::open(dir / "none.mp4"), ML::Exception);
    try {
        MediaSource::open(dir / "none.%04d.png");
        FAIL() << "no exception";
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("No files found for sequence"), std::string::npos) << e.what();
    }
    for (const char* out : {"a.png", "a.%04d.png", "a.mp4"})
        EXPECT_THROW(MediaSink::create(dir / "missing" / out), ML::Exception) << out;
    EXPECT_THROW(MediaSink::create(dir / "a.unknownformat"), ML::Exception);
    EXPECT_THROW(MediaSink::create(dir / "a.%04d.unknownformat"), ML::Exception);
    EXPECT_TRUE(dir.entries().empty());
}
