// Sources and sinks chosen by path: images, sequences and videos behind one interface.
#include <gtest/gtest.h>

#include "Host/Media/MediaSink.h"
#include "Host/Media/MediaSource.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::errorOf;
using QMediaTest::gradient;
namespace fs = std::filesystem;

TEST(MediaKind, ChosenByPath) {
    const std::pair<const char*, MediaKind> cases[] = {
        {"shots/a.%04d.exr", MediaKind::Sequence}, {"a.####.png", MediaKind::Sequence},
        {"a.%04d.mp4", MediaKind::Sequence},  // a pattern wins over the extension
        {"clip.MP4", MediaKind::Video},            {"a.mov", MediaKind::Video},
        {"a.mkv", MediaKind::Video},               {"a.avi", MediaKind::Video},
        {"a.webm", MediaKind::Video},              {"still.exr", MediaKind::Image},
        {"100%%.png", MediaKind::Image},
    };
    for (const auto& [path, kind] : cases) EXPECT_EQ(mediaKindOf(path), kind) << path;
}

// Each kind written through a sink and read back through a source.
TEST(MediaSource, RoundTripsThroughSinkAndSource) {
    TempDir dir;
    // A still image stands for every frame and takes one frame.
    const Frame still = gradient(12, 8, 4, ML::U8);
    auto image = MediaSink::create(dir / "still.png");
    EXPECT_EQ(image->kind(), MediaKind::Image);
    EXPECT_THROW(image->finish(), ML::Exception);  // nothing written yet
    image->write(7, still);
    EXPECT_THROW(image->write(8, still), ML::Exception);
    image->finish();
    auto stillSource = MediaSource::open(dir / "still.png");
    EXPECT_EQ(stillSource->kind(), MediaKind::Image);
    EXPECT_TRUE(stillSource->frameRange() == (FrameRange{0, 0}));
    EXPECT_FALSE(stillSource->frameRate().valid());
    EXPECT_EQ(stillSource->read(123), still);

    // A sequence's range comes from the disk; a gap in it is an error when read.
    auto sequence = MediaSink::create(dir / "shot.%04d.exr");
    EXPECT_EQ(sequence->kind(), MediaKind::Sequence);
    for (int frame = 10; frame <= 13; ++frame) sequence->write(frame, gradient(8, 6, 3, ML::F16, frame));
    sequence->finish();
    fs::remove(dir / "shot.0012.exr");
    auto frames = MediaSource::open(dir / "shot.####.exr");
    EXPECT_EQ(frames->kind(), MediaKind::Sequence);
    EXPECT_TRUE(frames->frameRange() == (FrameRange{10, 13}));
    EXPECT_EQ(frames->read(11), gradient(8, 6, 3, ML::F16, 11));
    const std::string e = errorOf([&] { frames->read(12); });
    EXPECT_NE(e.find("Missing frame 12 of sequence"), std::string::npos) << e;
    EXPECT_THROW(frames->read(9), ML::Exception);
    EXPECT_THROW(frames->read(14), ML::Exception);

    // A video numbers its frames from 0 whatever frames were written.
    MediaSinkOptions options;
    options.video.frameRate = FrameRate{30000, 1001};
    {
        auto video = MediaSink::create(dir / "clip.mkv", options);
        EXPECT_EQ(video->kind(), MediaKind::Video);
        for (int frame = 100; frame < 103; ++frame) video->write(frame, gradient(16, 8, 3, ML::U8, frame));
        EXPECT_THROW(video->write(105, gradient(16, 8, 3, ML::U8)), ML::Exception);  // frames go in order
        video->finish();
    }
    auto clip = MediaSource::open(dir / "clip.mkv");
    EXPECT_EQ(clip->kind(), MediaKind::Video);
    EXPECT_TRUE(clip->frameRange() == (FrameRange{0, 2}));
    EXPECT_TRUE(clip->frameRate() == (FrameRate{30000, 1001}));
    EXPECT_EQ(clip->read(1), gradient(16, 8, 3, ML::U8, 101));
}

TEST(MediaSource, ErrorsComeAtOpen) {
    TempDir dir;
    EXPECT_THROW(MediaSource::open(dir / "none.png"), ML::Exception);
    EXPECT_THROW(MediaSource::open(dir / "none.mp4"), ML::Exception);
    const std::string e = errorOf([&] { MediaSource::open(dir / "none.%04d.png"); });
    EXPECT_NE(e.find("No files found for sequence"), std::string::npos) << e;
    for (const char* out : {"missing/a.png", "missing/a.%04d.png", "missing/a.mp4", "a.unknownformat",
                            "a.%04d.unknownformat"})
        EXPECT_THROW(MediaSink::create(dir / out), ML::Exception) << out;
    EXPECT_TRUE(QMediaTest::entries(dir.path()).empty());
}
