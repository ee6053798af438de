// Image and video files: round trips per format, bit depth and codec, reading what the ffmpeg
// tool made, and failures that leave nothing behind.
#include <gtest/gtest.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "Host/Media/VideoReader.h"
#include "Host/Media/VideoWriter.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::difference;
using QMediaTest::errorOf;
using QMediaTest::gradient;
namespace fs = std::filesystem;

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
    QMediaTest::writeText(dir / "file", "x");
    QMediaTest::writeText(dir / "junk.png", "this is not a picture at all");
    // A file cut off in the middle of its pixel data. (EXR rather than PNG: OpenImageIO 2.4
    // leaks a little memory on a cut PNG, which the leak checker would report.)
    writeImage(dir / "whole.exr", gradient(64, 64, 4, ML::F32));
    std::ifstream in(dir / "whole.exr", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    QMediaTest::writeText(dir / "cut.exr", bytes.substr(0, bytes.size() / 2));
    const std::set<std::string> before = QMediaTest::entries(dir.path());

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
        const std::string e = errorOf([&] {
            if (c.frame.empty()) readImage(c.path);
            else writeImage(c.path, c.frame, c.options);
        });
        EXPECT_NE(e.find(c.message), std::string::npos) << c.path << ": " << e;
    }
    const std::string empty = errorOf([&] { writeImage(dir / "empty.png", Frame()); });
    EXPECT_NE(empty.find("Cannot write an empty frame"), std::string::npos) << empty;
    EXPECT_EQ(QMediaTest::entries(dir.path()), before);

    const fs::path locked = dir / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    if (!std::ofstream(locked / "probe")) {  // folder permissions are not enforced for every user
        const std::string e = errorOf([&] { writeImage(locked / "a.png", f); });
        EXPECT_NE(e.find("cannot create file"), std::string::npos) << e;
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
        {
            QMediaTest::FileSizeLimit limit(4096);
            EXPECT_THROW(writeImage(dir / name, noise), ML::Exception) << name;
        }
        EXPECT_EQ(readImage(dir / name).width(), 8) << name;  // the older file is untouched
    }
    // No temporary file is left.
    EXPECT_EQ(QMediaTest::entries(dir.path()), (std::set<std::string>{"a.png", "a.exr", "a.tif"}));
}

// Lossless video in Matroska (which keeps no frame count) that the ffmpeg tool made, against the
// tool's own pictures, read out of order.
TEST(VideoTest, ReadsWhatTheFfmpegToolMade) {
    TempDir dir;
    if (!QMediaTest::runFfmpeg("-version")) GTEST_SKIP() << "the ffmpeg tool is not installed";
    const std::string source = "-f lavfi -i testsrc=size=64x48:rate=10 -frames:v 5 ";
    ASSERT_TRUE(QMediaTest::runFfmpeg(source + "-c:v ffv1 -pix_fmt bgr0 " + (dir / "src.mkv").string()));
    ASSERT_TRUE(QMediaTest::runFfmpeg(source + (dir / "png.%04d.png").string()));
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
    EXPECT_EQ(QMediaTest::entries(dir.path()), written);  // and no temporary files
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
        QMediaTest::FileSizeLimit limit(8192);
        EXPECT_THROW(
            {
                for (int i = 0; i < 20; ++i) full.write(gradient(128, 128, 3, ML::U8, i));
                full.finish();
            },
            ML::Exception);
    }
    EXPECT_TRUE(QMediaTest::entries(dir.path()).empty());

    QMediaTest::writeText(dir / "junk.mp4", std::string(4000, 'j'));
    for (const fs::path& bad : {dir / "none.mp4", dir.path(), dir / "junk.mp4"})
        EXPECT_THROW(VideoReader{bad}, ML::Exception) << bad;
    VideoWriteOptions ffv1, badRate;
    ffv1.codec = VideoCodec::FFV1;
    badRate.frameRate = FrameRate{0, 1};
    const std::pair<fs::path, VideoWriteOptions> badWriters[] = {
        {dir / "missing" / "a.mp4", {}}, {dir / "a.xyz", {}}, {dir / "a.mkv", badRate}, {dir / "d.webm", ffv1}};
    for (const auto& [path, options] : badWriters) EXPECT_THROW(VideoWriter(path, options), ML::Exception) << path;
    EXPECT_EQ(QMediaTest::entries(dir.path()), std::set<std::string>{"junk.mp4"});
}
