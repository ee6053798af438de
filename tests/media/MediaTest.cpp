// Frames and their conversions, frame rates, numbered sequence names, and sources and sinks
// chosen by path (images, sequences and videos behind one interface).
#include <gtest/gtest.h>

#include <Imath/half.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/FrameRate.h"
#include "Host/Media/MediaSink.h"
#include "Host/Media/MediaSource.h"
#include "Host/Media/SequencePattern.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::errorOf;
using QMediaTest::gradient;
namespace fs = std::filesystem;

TEST(Frame, LayoutSamplesAndBadShapes) {
    Frame f(5, 3, 4, ML::F32);
    EXPECT_EQ(f.byteSize(), 240u);
    EXPECT_EQ(f.row(2) - f.data(), 160);
    for (size_t i = 0; i < f.byteSize(); ++i) ASSERT_EQ(f.data()[i], 0);

    // 8-bit samples round and clamp; NaN becomes 0.
    Frame u8(1, 1, 1, ML::U8);
    for (const auto& [value, stored] : {std::pair{0.5f, 128}, {7.0f, 255}, {-1.0f, 0}, {NAN, 0}}) {
        u8.setSample(0, 0, 0, value);
        EXPECT_EQ(u8.data()[0], stored) << value;
    }
    Frame h(1, 1, 2, ML::F16);
    h.setSample(0, 0, 1, 3.25f);
    EXPECT_EQ(float(reinterpret_cast<const Imath::half*>(h.data())[1]), 3.25f);
    EXPECT_EQ(h.sample(0, 0, 1), 3.25f);

    for (const auto& [w, hgt, c, type] : {std::tuple{0, 4, 3, ML::U8}, {4, -1, 3, ML::U8}, {4, 4, 0, ML::U8},
                                          {4, 4, 5, ML::U8}, {4, 4, 3, ML::U16}, {1 << 30, 1 << 30, 4, ML::F32}})
        EXPECT_THROW(Frame(w, hgt, c, type), ML::Exception) << w << "x" << hgt << "x" << c << " type " << type;
}

TEST(FrameConvert, TypesRoundTripAndChannelsFollowGrayRgbAlphaRules) {
    const Frame u8 = gradient(17, 9, 3, ML::U8);
    EXPECT_EQ(convertType(convertType(u8, ML::F32), ML::U8), u8);
    EXPECT_EQ(convertType(convertType(u8, ML::F16), ML::U8), u8);  // 8 bits fit a half's mantissa
    Frame third(1, 1, 1, ML::F32);
    third.setSample(0, 0, 0, 1.0f / 3.0f);
    EXPECT_EQ(convertType(third, ML::F16).sample(0, 0, 0), float(Imath::half(1.0f / 3.0f)));
    EXPECT_THROW(convertType(third, ML::I32), ML::Exception);

    Frame rgba(1, 1, 4, ML::F32);
    const float px[4] = {0.2f, 0.4f, 0.6f, 0.3f};
    for (int c = 0; c < 4; ++c) rgba.setSample(0, 0, c, px[c]);
    const Frame rgb = convertChannels(rgba, 3);
    for (int c = 0; c < 3; ++c) EXPECT_FLOAT_EQ(rgb.sample(0, 0, c), px[c]);
    const Frame grayAlpha = convertChannels(rgba, 2);
    EXPECT_NEAR(grayAlpha.sample(0, 0, 0), 0.2126f * 0.2f + 0.7152f * 0.4f + 0.0722f * 0.6f, 1e-6f);
    EXPECT_FLOAT_EQ(grayAlpha.sample(0, 0, 1), 0.3f);
    EXPECT_FLOAT_EQ(convertChannels(rgb, 4).sample(0, 0, 3), 1.0f);

    Frame gray(1, 1, 1, ML::U8);
    gray.setSample(0, 0, 0, 0.8f);
    const Frame spread = convertChannels(gray, 4);
    EXPECT_EQ(spread.data()[0], gray.data()[0]);
    EXPECT_EQ(spread.data()[2], gray.data()[0]);
    EXPECT_EQ(spread.data()[3], 255);
    EXPECT_THROW(convertChannels(gray, 5), ML::Exception);
}

TEST(FrameRate, NumbersAndFractions) {
    const std::pair<const char*, FrameRate> good[] = {
        {"24", {24, 1}},           {"29.97", {30000, 1001}}, {"23.976", {24000, 1001}}, {"12.5", {25, 2}},
        {"60000/1001", {60000, 1001}}, {"50/2", {25, 1}},
    };
    for (const auto& [text, rate] : good) EXPECT_TRUE(FrameRate::parse(text) == rate) << text;
    for (const char* bad : {"", "abc", "24fps", "0", "1/0", "-24", "/5", "5/"})
        EXPECT_THROW(FrameRate::parse(bad), ML::Exception) << bad;
    EXPECT_THROW(FrameRate::fromDouble(-5), ML::Exception);
}

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
    EXPECT_NE(errorOf([] { SequencePattern("shot/frame.exr"); }).find("has no frame number"),
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
