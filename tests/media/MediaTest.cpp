// The media library: frames and their conversions, frame rates, numbered sequence names, sources
// and sinks chosen by path, and image and video files (round trips per format, bit depth and
// codec, reading what the ffmpeg tool made, and failures that leave nothing behind).
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <Imath/half.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/FrameRate.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/MediaSink.h"
#include "Host/Media/MediaSource.h"
#include "Host/Media/SequencePattern.h"
#include "Host/Media/VideoReader.h"
#include "Host/Media/VideoWriter.h"
#include "ML/Exception.h"
#include "util/ExpectMessage.h"
#include "util/TempDir.h"

using namespace QMedia;
namespace fs = std::filesystem;

namespace {

// Names of everything in a folder, hidden files included.
std::set<std::string> entries(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(folder)) names.insert(e.path().filename().string());
    return names;
}

// Smooth ramps per channel with a frame-dependent offset, so that frames differ.
QMedia::Frame gradient(int width, int height, int channels, ML::DataType type, int seed = 0) {
    QMedia::Frame f(width, height, channels, type);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                const float v = c == 0 ? float(x) / float(std::max(width - 1, 1))
                              : c == 1 ? float(y) / float(std::max(height - 1, 1))
                              : c == 2 ? std::fmod(0.15f * float(seed) + 0.1f, 1.0f)
                                       : 0.25f + 0.5f * float((x + y) % 2);
                f.setSample(x, y, c, v);
            }
    return f;
}

// Largest and mean absolute difference of all samples (as floats); infinite when the shapes differ.
struct Difference {
    float max = 0.0f, mean = 0.0f;
};
Difference difference(const QMedia::Frame& a, const QMedia::Frame& b) {
    if (a.width() != b.width() || a.height() != b.height() || a.channels() != b.channels()) return {INFINITY, INFINITY};
    Difference d;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            for (int c = 0; c < a.channels(); ++c) {
                const float e = std::fabs(a.sample(x, y, c) - b.sample(x, y, c));
                d.max = std::max(d.max, e);
                d.mean += e / float(a.width() * a.height() * a.channels());
            }
    return d;
}

// Runs the ffmpeg command-line tool quietly with the given arguments; true on success.
bool runFfmpeg(const std::string& args) {
    return std::system(("ffmpeg -nostdin -v error -y " + args + " > /dev/null 2>&1").c_str()) == 0;
}

void writeText(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Whether f throws while the largest file this process may write is lowered to bytes, so that
// writers fail part-way as on a full disk.
template <class F>
bool failsOnFullDisk(long bytes, F&& f) {
    std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of killing us
    rlimit previous{};
    getrlimit(RLIMIT_FSIZE, &previous);
    rlimit limit = previous;
    limit.rlim_cur = static_cast<rlim_t>(bytes);
    setrlimit(RLIMIT_FSIZE, &limit);
    bool failed = false;
    try {
        f();
    } catch (const ML::Exception&) {
        failed = true;
    }
    setrlimit(RLIMIT_FSIZE, &previous);
    return failed;
}

}  // namespace

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
    expectErrorWith([] { SequencePattern("shot/frame.exr"); }, "has no frame number");
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
        writeText(dir / name, "x");
    fs::create_directory(dir / "frame.0009.exr");
    const SequencePattern p(dir / "frame.####.exr");
    EXPECT_EQ(p.framesOnDisk(), (std::vector<int>{3, 4, 5, 8}));
    const auto range = p.rangeOnDisk();
    ASSERT_TRUE(range);
    EXPECT_TRUE(*range == (FrameRange{3, 8}));
    EXPECT_FALSE(SequencePattern(dir / "none.%04d.exr").rangeOnDisk());
    EXPECT_TRUE(SequencePattern(dir / "missing" / "a.%04d.exr").framesOnDisk().empty());
}

TEST(MediaKind, ChosenByPath) {
    // A pattern wins over the extension.
    for (const char* p : {"shots/a.%04d.exr", "a.####.png", "a.%04d.mp4"}) EXPECT_EQ(mediaKindOf(p), MediaKind::Sequence) << p;
    for (const char* p : {"clip.MP4", "a.mov", "a.mkv", "a.avi", "a.webm"}) EXPECT_EQ(mediaKindOf(p), MediaKind::Video) << p;
    for (const char* p : {"still.exr", "100%%.png"}) EXPECT_EQ(mediaKindOf(p), MediaKind::Image) << p;
}

// Each kind written through a sink and read back through a source.
TEST(MediaSource, RoundTripsThroughSinkAndSource) {
    TempDir dir;
    // A still image stands for every frame and takes one frame.
    const Frame still = gradient(12, 8, 4, ML::U8);
    auto image = MediaSink::create(dir / "still.png");
    EXPECT_THROW(image->finish(), ML::Exception);  // nothing written yet
    image->write(7, still);
    EXPECT_THROW(image->write(8, still), ML::Exception);
    image->finish();
    auto stillSource = MediaSource::open(dir / "still.png");
    EXPECT_TRUE(stillSource->frameRange() == (FrameRange{0, 0}));
    EXPECT_FALSE(stillSource->frameRate().valid());
    EXPECT_EQ(stillSource->read(123), still);

    // A sequence's range comes from the disk; a gap in it is an error when read.
    auto sequence = MediaSink::create(dir / "shot.%04d.exr");
    for (int frame = 10; frame <= 13; ++frame) sequence->write(frame, gradient(8, 6, 3, ML::F16, frame));
    sequence->finish();
    fs::remove(dir / "shot.0012.exr");
    auto frames = MediaSource::open(dir / "shot.####.exr");
    EXPECT_TRUE(frames->frameRange() == (FrameRange{10, 13}));
    EXPECT_EQ(frames->read(11), gradient(8, 6, 3, ML::F16, 11));
    expectErrorWith([&] { frames->read(12); }, "Missing frame 12 of sequence");
    EXPECT_THROW(frames->read(9), ML::Exception);
    EXPECT_THROW(frames->read(14), ML::Exception);

    // A video numbers its frames from 0 whatever frames were written.
    MediaSinkOptions options;
    options.video.frameRate = FrameRate{30000, 1001};
    {
        auto video = MediaSink::create(dir / "clip.mkv", options);
        for (int frame = 100; frame < 103; ++frame) video->write(frame, gradient(16, 8, 3, ML::U8, frame));
        EXPECT_THROW(video->write(105, gradient(16, 8, 3, ML::U8)), ML::Exception);  // frames go in order
        video->finish();
    }
    auto clip = MediaSource::open(dir / "clip.mkv");
    EXPECT_TRUE(clip->frameRange() == (FrameRange{0, 2}));
    EXPECT_TRUE(clip->frameRate() == (FrameRate{30000, 1001}));
    EXPECT_EQ(clip->read(1), gradient(16, 8, 3, ML::U8, 101));
}

TEST(MediaSource, ErrorsComeAtOpen) {
    TempDir dir;
    expectErrorWith([&] { MediaSource::open(dir / "none.%04d.png"); }, "No files found for sequence");
    for (const char* out : {"missing/a.png", "missing/a.%04d.png", "missing/a.mp4", "a.unknownformat",
                            "a.%04d.unknownformat"})
        EXPECT_THROW(MediaSink::create(dir / out), ML::Exception) << out;
    EXPECT_TRUE(entries(dir.path()).empty());
}

TEST(ImageIo, RoundTripsPerFormatAndBitDepth) {
    // Values a display range cannot hold: negative, above 1, tiny.
    const auto hdr = [](ML::DataType type) {
        Frame f(4, 2, 4, type);
        const float values[] = {-0.25f, 0.0f, 1e-3f, 0.5f, 1.0f, 4.5f, 100.0f, 1.0f / 3.0f};
        for (int i = 0; i < 32; ++i) f.setSample(i / 4 % 4, i / 16, i % 4, values[i % 8]);
        return f;
    };
    const float sixteenBits = 0.5f / 65535.0f + 1e-7f;  // what 16 bits keep and 8 bits do not
    const Frame u8 = gradient(21, 13, 3, ML::U8), fine = gradient(40, 20, 4, ML::F32), jpeg = gradient(64, 48, 4, ML::U8);
    const struct {
        const char* file;
        Frame frame;
        ImageWriteOptions options;
        Frame expected;          // read back as its type
        float maxError = 0.0f;   // 0: exact
        float meanError = 0.0f;  // 0: up to maxError
    } cases[] = {
        {"c1.png", gradient(31, 17, 1, ML::U8, 1), {}, gradient(31, 17, 1, ML::U8, 1)},
        {"c2.png", gradient(31, 17, 2, ML::U8, 2), {}, gradient(31, 17, 2, ML::U8, 2)},
        {"c3.png", u8, {}, u8},
        {"c4.png", gradient(31, 17, 4, ML::U8, 4), {}, gradient(31, 17, 4, ML::U8, 4)},
        {"deep.png", fine, {}, fine, sixteenBits},  // float frames become 16-bit PNG by default
        {"wide.png", u8, {BitDepth::U16}, convertType(u8, ML::F32), 1e-7f},
        {"a.jpg", jpeg, {BitDepth::Auto, 95}, convertChannels(jpeg, 3), 24.0f / 255.0f, 2.0f / 255.0f},  // no alpha
        {"a.tif", u8, {}, u8},
        {"b.tiff", fine, {BitDepth::U16}, fine, sixteenBits},
        {"c.tif", hdr(ML::F32), {}, hdr(ML::F32)},
        {"h.exr", hdr(ML::F16), {}, hdr(ML::F16)},
        {"f.exr", hdr(ML::F32), {}, hdr(ML::F32)},
        {"fh.exr", hdr(ML::F32), {BitDepth::F16}, hdr(ML::F16)},
        {"u.exr", u8, {}, convertType(u8, ML::F16)},  // 8-bit frames go to half, scaled to 0..1
    };
    TempDir dir;
    for (const auto& c : cases) {
        writeImage(dir / c.file, c.frame, c.options);
        const Frame back = readImage(dir / c.file);
        EXPECT_EQ(back.type(), c.expected.type()) << c.file;
        if (c.maxError == 0.0f) {
            EXPECT_EQ(back, c.expected) << c.file;
            continue;
        }
        const auto d = difference(back, c.expected);
        EXPECT_LE(d.max, c.maxError) << c.file;
        EXPECT_LE(d.mean, c.meanError > 0.0f ? c.meanError : c.maxError) << c.file;
    }
}

TEST(ImageIo, ErrorsNameTheProblemAndWritesLeaveNoFile) {
    TempDir dir;
    writeText(dir / "file", "x");
    writeText(dir / "junk.png", "this is not a picture at all");
    // A file cut off in the middle of its pixel data. (EXR rather than PNG: OpenImageIO 2.4
    // leaks a little memory on a cut PNG, which the leak checker would report.)
    writeImage(dir / "whole.exr", gradient(64, 64, 4, ML::F32));
    std::ifstream in(dir / "whole.exr", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    writeText(dir / "cut.exr", bytes.substr(0, bytes.size() / 2));
    const std::set<std::string> before = entries(dir.path());
    const Frame f = gradient(4, 4, 3, ML::F32);
    ImageWriteOptions poorJpeg;
    poorJpeg.jpegQuality = 0;
    const struct {
        fs::path path;
        const char* message;
        Frame frame = {};  // empty: read the path
        ImageWriteOptions options = {};
    } cases[] = {
        {dir / "a.jpg", "jpeg files cannot store bit depth float (use 8)", f, {BitDepth::F32}},
        {dir / "b.exr", "cannot store bit depth 8", f, {BitDepth::U8}},
        {dir / "c.png", "cannot store bit depth half", f, {BitDepth::F16}},
        {dir / "d.jpg", "JPEG quality must be 1 to 100, not 0", f, poorJpeg},
        {dir / "missing" / "a.png", "Output folder does not exist", f},
        {dir / "file" / "a.png", "Output folder is not a folder", f},
        {dir / "a.unknownformat", "Could not write image", f},
        {dir / "none.png", "Image file not found: "},
        {dir.path(), "Not an image file: "},
        {dir / "junk.png", "Could not read image"},
        {dir / "cut.exr", "Could not read image"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        expectErrorWith([&] { c.frame.empty() ? (void)readImage(c.path) : writeImage(c.path, c.frame, c.options); },
                        c.message);
    }
    expectErrorWith([&] { writeImage(dir / "empty.png", Frame()); }, "Cannot write an empty frame");
    EXPECT_EQ(entries(dir.path()), before);
    const fs::path locked = dir / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    if (!std::ofstream(locked / "probe")) {  // folder permissions are not enforced for every user
        expectErrorWith([&] { writeImage(locked / "a.png", f); }, "cannot create file");
        EXPECT_TRUE(fs::is_empty(locked));
    }
}

TEST(ImageIo, ReplacingWritesKeepTheOldFileUntilDone) {
    TempDir dir;
    writeImage(dir / "a.png", gradient(8, 8, 3, ML::U8, 1));
    const Frame second = gradient(8, 8, 3, ML::U8, 2);
    writeImage(dir / "a.png", second);
    EXPECT_EQ(readImage(dir / "a.png"), second);

    // Noise does not compress: each file is far larger than the limit below.
    Frame noise(256, 256, 4, ML::F32);
    unsigned state = 12345;
    for (size_t i = 0; i < noise.byteSize() / 4; ++i) {
        state = state * 1664525u + 1013904223u;
        reinterpret_cast<float*>(noise.data())[i] = float(state >> 8) / float(1 << 24);
    }
    for (const char* name : {"a.png", "a.exr", "a.tif"}) {
        if (std::string(name) != "a.png") writeImage(dir / name, convertType(second, ML::F32));
        EXPECT_TRUE(failsOnFullDisk(4096, [&] { writeImage(dir / name, noise); })) << name;
        EXPECT_EQ(readImage(dir / name).width(), 8) << name;  // the older file is untouched
    }
    // No temporary file is left.
    EXPECT_EQ(entries(dir.path()), (std::set<std::string>{"a.png", "a.exr", "a.tif"}));
}

// Lossless video in Matroska (which keeps no frame count) that the ffmpeg tool made, against the
// tool's own pictures, read out of order.
TEST(VideoTest, ReadsWhatTheFfmpegToolMade) {
    TempDir dir;
    if (!runFfmpeg("-version")) GTEST_SKIP() << "the ffmpeg tool is not installed";
    const std::string source = "-f lavfi -i testsrc=size=64x48:rate=10 -frames:v 5 ";
    ASSERT_TRUE(runFfmpeg(source + "-c:v ffv1 -pix_fmt bgr0 " + (dir / "src.mkv").string()));
    ASSERT_TRUE(runFfmpeg(source + (dir / "png.%04d.png").string()));
    VideoReader reader(dir / "src.mkv");
    ASSERT_EQ(reader.frameCount(), 5);
    EXPECT_EQ(std::tuple(reader.width(), reader.height()), std::tuple(64, 48));
    EXPECT_TRUE(reader.frameRate() == (FrameRate{10, 1}));
    EXPECT_FALSE(reader.hasAlpha());
    for (int i : {0, 3, 4, 1, 1, 2}) {  // going back reopens; asking twice gives the same picture
        const Frame expected = readImage(dir / ("png.000" + std::to_string(i + 1) + ".png"));
        EXPECT_EQ(reader.read(i), expected) << "frame " << i;
        EXPECT_EQ(reader.read(i, 4), convertChannels(expected, 4)) << "frame " << i;  // opaque alpha added
    }
    for (const auto& [frame, channels] : {std::pair{5, 3}, {-1, 3}, {0, 2}})
        EXPECT_THROW(reader.read(frame, channels), ML::Exception) << frame << " " << channels;
}

TEST(VideoTest, WriterRoundTripsPerCodec) {
    TempDir dir;
    const struct {
        const char* file;
        VideoCodec codec;
        const char* encoder;
        int count, width, height, channels;
        ML::DataType type;
        FrameRate rate;
        float meanError;  // 0: exact
        bool alpha;
    } cases[] = {
        {"out.mp4", VideoCodec::Auto, "libx264", 6, 64, 48, 3, ML::U8, {25, 1}, 6.0f / 255.0f, false},
        {"odd.mov", VideoCodec::H264, "libx264", 3, 31, 15, 3, ML::U8, {24, 1}, 8.0f / 255.0f, false},
        {"out.mkv", VideoCodec::Auto, "ffv1", 4, 33, 17, 4, ML::U8, {24, 1}, 0.0f, true},   // odd sizes, alpha
        {"gray.avi", VideoCodec::Auto, "mpeg4", 3, 32, 16, 1, ML::F32, {24, 1}, 8.0f / 255.0f, false},
        {"forced.mp4", VideoCodec::MPEG4, "mpeg4", 3, 32, 16, 3, ML::U8, {24, 1}, 8.0f / 255.0f, false},
        {"e.webm", VideoCodec::Auto, "libvpx-vp9", 3, 32, 16, 4, ML::U8, {24, 1}, 8.0f / 255.0f, false},
    };
    std::set<std::string> written;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        VideoWriteOptions options;
        options.codec = c.codec;
        options.frameRate = c.rate;
        std::vector<Frame> frames;
        {
            VideoWriter writer(dir / c.file, options);
            if (writer.encoderName() != c.encoder && std::string(c.encoder) == "libx264") continue;  // not built
            EXPECT_EQ(writer.encoderName(), c.encoder);
            for (int i = 0; i < c.count; ++i) {
                frames.push_back(gradient(c.width, c.height, c.channels, c.type, i));
                writer.write(frames.back());
            }
            EXPECT_EQ(writer.framesWritten(), c.count);
            EXPECT_FALSE(fs::exists(dir / c.file));  // only once finished
            writer.finish();
            written.insert(c.file);
        }
        VideoReader reader(dir / c.file);
        ASSERT_EQ(reader.frameCount(), c.count);
        EXPECT_EQ(std::tuple(reader.width(), reader.height(), reader.hasAlpha()), std::tuple(c.width, c.height, c.alpha));
        EXPECT_TRUE(reader.frameRate() == c.rate);
        const int channels = c.alpha ? 4 : 3;
        for (int i = c.count - 1; i >= 0; --i) {
            const Frame back = reader.read(i, channels);
            const Frame expected = convertChannels(convertType(frames[i], ML::U8), channels);
            if (c.meanError == 0.0f) {
                EXPECT_EQ(back, expected) << "frame " << i;
                continue;
            }
            // Close, and nearer its own original than its neighbours: the order is kept.
            const float own = difference(back, expected).mean;
            EXPECT_LT(own, c.meanError) << "frame " << i;
            for (int j : {i - 1, i + 1}) {
                if (j < 0 || j >= c.count || frames[j] == frames[i]) continue;  // gray frames do not differ
                EXPECT_LT(own, difference(back, convertChannels(convertType(frames[j], ML::U8), channels)).mean)
                    << "frame " << i << " against " << j;
            }
        }
    }
    EXPECT_EQ(entries(dir.path()), written);  // and no temporary files
}

TEST(VideoTest, FailuresLeaveNothing) {
    TempDir dir;
    {
        VideoWriter abandoned(dir / "gone.mp4");
        abandoned.write(gradient(16, 16, 3, ML::U8));
        VideoWriter empty(dir / "empty.mkv");
        EXPECT_THROW(empty.finish(), ML::Exception);
        VideoWriter mixed(dir / "mixed.mkv");
        mixed.write(gradient(16, 16, 3, ML::U8));
        EXPECT_THROW(mixed.write(gradient(8, 8, 3, ML::U8)), ML::Exception);
        EXPECT_THROW(mixed.write(gradient(16, 16, 3, ML::U8)), ML::Exception);  // a failed writer stays failed
        EXPECT_THROW(mixed.finish(), ML::Exception);
        VideoWriteOptions mpeg4;
        mpeg4.codec = VideoCodec::MPEG4;
        // MPEG-4 part 2 needs even sizes.
        EXPECT_THROW(VideoWriter(dir / "odd.mp4", mpeg4).write(gradient(31, 15, 3, ML::U8)), ML::Exception);
        VideoWriter full(dir / "full.mkv");  // a disk that fills up part-way
        EXPECT_TRUE(failsOnFullDisk(8192, [&] {
            for (int i = 0; i < 20; ++i) full.write(gradient(128, 128, 3, ML::U8, i));
            full.finish();
        }));
    }
    EXPECT_TRUE(entries(dir.path()).empty());
    writeText(dir / "junk.mp4", std::string(4000, 'j'));
    for (const fs::path& bad : {dir / "none.mp4", dir.path(), dir / "junk.mp4"})
        EXPECT_THROW(VideoReader{bad}, ML::Exception) << bad;
    VideoWriteOptions ffv1, badRate;
    ffv1.codec = VideoCodec::FFV1;
    badRate.frameRate = FrameRate{0, 1};
    const std::pair<fs::path, VideoWriteOptions> badWriters[] = {
        {dir / "missing" / "a.mp4", {}}, {dir / "a.xyz", {}}, {dir / "a.mkv", badRate}, {dir / "d.webm", ffv1}};
    for (const auto& [path, options] : badWriters) EXPECT_THROW(VideoWriter(path, options), ML::Exception) << path;
    EXPECT_EQ(entries(dir.path()), std::set<std::string>{"junk.mp4"});
}
