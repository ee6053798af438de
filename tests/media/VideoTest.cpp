// Video files: reading what the ffmpeg tool made, writing and reading back, and failures.
#include <gtest/gtest.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/VideoReader.h"
#include "Host/Media/VideoWriter.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::difference;
using QMediaTest::gradient;
namespace fs = std::filesystem;

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
