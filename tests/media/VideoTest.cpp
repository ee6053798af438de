// Video files: reading what the ffmpeg tool made, writing and reading back, and failures.
#include <gtest/gtest.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/VideoReader.h"
#include "Host/Media/VideoWriter.h"
#include "ML/Exception.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::difference;
using QMediaTest::gradient;
using QMediaTest::TempDir;
namespace fs = std::filesystem;

namespace {

class VideoTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QMediaTest::haveFfmpegTool()) GTEST_SKIP() << "the ffmpeg tool is not installed";
    }
    TempDir dir;
};

const char* kTestSource = "-f lavfi -i testsrc=size=64x48:rate=10 -frames:v 5";

// Frames that differ clearly from each other.
std::vector<Frame> clip(int count, int width, int height, int channels) {
    std::vector<Frame> frames;
    for (int i = 0; i < count; ++i) frames.push_back(gradient(width, height, channels, ML::U8, i));
    return frames;
}

}  // namespace

TEST_F(VideoTest, ReadsH264FromTheFfmpegTool) {
    const fs::path path = dir / "src.mp4";
    ASSERT_TRUE(QMediaTest::runFfmpeg(std::string(kTestSource) + " -pix_fmt yuv420p " + path.string()));
    VideoReader reader(path);
    EXPECT_EQ(reader.frameCount(), 5);
    EXPECT_EQ(reader.width(), 64);
    EXPECT_EQ(reader.height(), 48);
    EXPECT_TRUE(reader.frameRate() == (FrameRate{10, 1}));
    EXPECT_FALSE(reader.hasAlpha());

    std::vector<Frame> frames;
    for (int i = 0; i < 5; ++i) {
        frames.push_back(reader.read(i));
        EXPECT_EQ(frames.back().width(), 64);
        EXPECT_EQ(frames.back().channels(), 3);
        EXPECT_EQ(frames.back().type(), ML::U8);
    }
    EXPECT_NE(frames[0], frames[1]);  // the test pattern moves
    // Going back reopens and gives the very same pictures; asking twice does too.
    EXPECT_EQ(reader.read(1), frames[1]);
    EXPECT_EQ(reader.read(1), frames[1]);
    EXPECT_EQ(reader.read(4), frames[4]);
    const Frame rgba = reader.read(2, 4);
    EXPECT_EQ(convertChannels(rgba, 3), frames[2]);
    EXPECT_EQ(rgba.data()[3], 255);

    EXPECT_THROW(reader.read(5), ML::Exception);
    EXPECT_THROW(reader.read(-1), ML::Exception);
    EXPECT_THROW(reader.read(0, 2), ML::Exception);
}

TEST_F(VideoTest, LosslessVideoMatchesTheToolsOwnFramesInOrder) {
    // Matroska keeps no frame count, so this also covers counting the packets.
    const fs::path video = dir / "src.mkv";
    ASSERT_TRUE(QMediaTest::runFfmpeg(std::string(kTestSource) + " -c:v ffv1 -pix_fmt bgr0 " + video.string()));
    ASSERT_TRUE(QMediaTest::runFfmpeg(std::string(kTestSource) + " " + (dir / "png.%04d.png").string()));
    VideoReader reader(video);
    ASSERT_EQ(reader.frameCount(), 5);
    for (int i : {0, 3, 4, 1, 2}) {
        char name[32];
        std::snprintf(name, sizeof(name), "png.%04d.png", i + 1);
        EXPECT_EQ(reader.read(i), readImage(dir / name)) << "frame " << i;
    }
}

TEST_F(VideoTest, WriterRoundTripH264) {
    const std::vector<Frame> frames = clip(6, 64, 48, 3);
    VideoWriteOptions options;
    options.frameRate = FrameRate{25, 1};
    {
        VideoWriter writer(dir / "out.mp4", options);
        for (const Frame& f : frames) writer.write(f);
        EXPECT_EQ(writer.framesWritten(), 6);
        EXPECT_FALSE(fs::exists(dir / "out.mp4"));  // only once finished
        writer.finish();
    }
    EXPECT_EQ(dir.entries(), std::set<std::string>{"out.mp4"});
    VideoReader reader(dir / "out.mp4");
    ASSERT_EQ(reader.frameCount(), 6);
    EXPECT_EQ(reader.width(), 64);
    EXPECT_EQ(reader.height(), 48);
    EXPECT_TRUE(reader.frameRate() == (FrameRate{25, 1}));
    for (int i = 0; i < 6; ++i) {
        const Frame back = reader.read(i);
        const float own = difference(back, frames[i]).mean;
        EXPECT_LT(own, 6.0f / 255.0f) << "frame " << i;
        // Each frame is nearer its own original than its neighbours: the order is kept.
        if (i > 0) {
            EXPECT_LT(own, difference(back, frames[i - 1]).mean) << "frame " << i;
        }
        if (i < 5) {
            EXPECT_LT(own, difference(back, frames[i + 1]).mean) << "frame " << i;
        }
    }
}

TEST_F(VideoTest, WriterLosslessKeepsPixelsAndAlpha) {
    const std::vector<Frame> rgba = clip(4, 33, 17, 4);  // odd sizes too
    VideoWriter writer(dir / "out.mkv");
    EXPECT_EQ(writer.encoderName(), "ffv1");
    for (const Frame& f : rgba) writer.write(f);
    writer.finish();

    VideoReader reader(dir / "out.mkv");
    ASSERT_EQ(reader.frameCount(), 4);
    EXPECT_TRUE(reader.hasAlpha());
    EXPECT_TRUE(reader.frameRate() == (FrameRate{24, 1}));
    for (int i = 3; i >= 0; --i) EXPECT_EQ(reader.read(i, 4), rgba[i]) << "frame " << i;
}

TEST_F(VideoTest, WriterConvertsTypesAndPicksCodecs) {
    // Float gray frames into MPEG-4 part 2 in AVI.
    VideoWriter avi(dir / "a.avi");
    EXPECT_EQ(avi.encoderName(), "mpeg4");
    for (int i = 0; i < 3; ++i) avi.write(gradient(32, 16, 1, ML::F32, i));
    avi.finish();
    VideoReader reader(dir / "a.avi");
    EXPECT_EQ(reader.frameCount(), 3);
    const Frame back = reader.read(2);
    EXPECT_LT(difference(back, convertChannels(gradient(32, 16, 1, ML::U8, 2), 3)).mean, 8.0f / 255.0f);

    // Odd sizes in H.264 (where the encoder exists) and an explicit codec.
    VideoWriteOptions mpeg4;
    mpeg4.codec = VideoCodec::MPEG4;
    VideoWriter forced(dir / "b.mp4", mpeg4);
    EXPECT_EQ(forced.encoderName(), "mpeg4");
    VideoWriter h264(dir / "c.mov");
    if (h264.encoderName() == "libx264") {
        h264.write(gradient(31, 15, 3, ML::U8));
        h264.finish();
        EXPECT_EQ(VideoReader(dir / "c.mov").width(), 31);
    }
    // VP9 in WebM, with alpha in the input.
    VideoWriter webm(dir / "e.webm");
    EXPECT_EQ(webm.encoderName(), "libvpx-vp9");
    for (int i = 0; i < 3; ++i) webm.write(gradient(32, 16, 4, ML::U8, i));
    webm.finish();
    VideoReader vp9(dir / "e.webm");
    EXPECT_EQ(vp9.frameCount(), 3);
    EXPECT_LT(difference(vp9.read(1), convertChannels(gradient(32, 16, 4, ML::U8, 1), 3)).mean, 8.0f / 255.0f);

    // MPEG-4 part 2 needs even sizes.
    EXPECT_THROW(forced.write(gradient(31, 15, 3, ML::U8)), ML::Exception);
    VideoWriteOptions ffv1InMp4;
    ffv1InMp4.codec = VideoCodec::FFV1;
    EXPECT_THROW(VideoWriter(dir / "d.webm", ffv1InMp4), ML::Exception);
}

TEST_F(VideoTest, AbandonedOrFailedWritersLeaveNothing) {
    {
        VideoWriter writer(dir / "gone.mp4");
        writer.write(gradient(16, 16, 3, ML::U8));
        writer.write(gradient(16, 16, 3, ML::U8, 1));
    }
    EXPECT_TRUE(dir.entries().empty());

    {
        VideoWriter empty(dir / "empty.mkv");
        EXPECT_THROW(empty.finish(), ML::Exception);
    }
    EXPECT_TRUE(dir.entries().empty());

    VideoWriter mixed(dir / "mixed.mkv");
    mixed.write(gradient(16, 16, 3, ML::U8));
    EXPECT_THROW(mixed.write(gradient(8, 8, 3, ML::U8)), ML::Exception);
    EXPECT_THROW(mixed.write(gradient(16, 16, 3, ML::U8)), ML::Exception);
    EXPECT_THROW(mixed.finish(), ML::Exception);
    EXPECT_TRUE(dir.entries().empty());

    // A disk that fills up part-way.
    VideoWriter full(dir / "full.mkv");
    {
        QMediaTest::FileSizeLimit limit(8192);
        EXPECT_THROW(
            {
                for (int i = 0; i < 20; ++i) full.write(gradient(128, 128, 3, ML::U8, i));
                full.finish();
            },
            ML::Exception);
    }
    EXPECT_TRUE(dir.entries().empty());
}

TEST_F(VideoTest, BadPaths) {
    EXPECT_THROW(VideoReader(dir / "none.mp4"), ML::Exception);
    EXPECT_THROW(VideoReader(dir.path()), ML::Exception);
    QMediaTest::writeText(dir / "junk.mp4", std::string(4000, 'j'));
    EXPECT_THROW(VideoReader(dir / "junk.mp4"), ML::Exception);

    EXPECT_THROW(VideoWriter(dir / "missing" / "a.mp4"), ML::Exception);
    EXPECT_THROW(VideoWriter(dir / "a.xyz"), ML::Exception);
    VideoWriteOptions badRate;
    badRate.frameRate = FrameRate{0, 1};
    EXPECT_THROW(VideoWriter(dir / "a.mkv", badRate), ML::Exception);
    EXPECT_EQ(dir.entries(), std::set<std::string>{"junk.mp4"});
}
