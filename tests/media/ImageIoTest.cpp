// Image files: round trips per format and bit depth, and failures that leave nothing behind.
#include <gtest/gtest.h>

#include "Host/Media/FrameConvert.h"
#include "Host/Media/ImageReader.h"
#include "Host/Media/ImageWriter.h"
#include "media/MediaTestUtil.h"

using namespace QMedia;
using QMediaTest::difference;
using QMediaTest::errorOf;
using QMediaTest::gradient;
namespace fs = std::filesystem;

namespace {

// Values that 16 bits hold exactly and 8 bits do not.
Frame fineRamp(int width, int height, int channels) {
    Frame f(width, height, channels, ML::F32);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c)
                f.setSample(x, y, c, float((x * 977 + y * 131 + c * 7919) % 65536) / 65535.0f);
    return f;
}

// Values a display range cannot hold: negative, above 1, tiny.
Frame hdrValues(ML::DataType type) {
    Frame f(4, 2, 4, type);
    const float values[] = {-0.25f, 0.0f, 1e-3f, 0.5f, 1.0f, 4.5f, 100.0f, 1.0f / 3.0f};
    for (int i = 0; i < 32; ++i) f.setSample(i / 4 % 4, i / 16, i % 4, values[i % 8]);
    return f;
}

}  // namespace

TEST(ImageIo, RoundTripsPerFormatAndBitDepth) {
    struct Case {
        const char* file;
        Frame frame;
        ImageWriteOptions options;
        ML::DataType readType;
        Frame expected;        // compared as readType
        float maxError = 0.0f;  // 0: exact
        float meanError = 0.0f;  // 0: up to maxError
    };
    const float sixteenBits = 0.5f / 65535.0f + 1e-7f;
    const Frame u8 = gradient(21, 13, 3, ML::U8);
    const Frame fine = fineRamp(40, 20, 3);
    const Frame jpegSource = gradient(64, 48, 4, ML::U8);
    const Case cases[] = {
        {"c1.png", gradient(31, 17, 1, ML::U8, 1), {}, ML::U8, gradient(31, 17, 1, ML::U8, 1)},
        {"c2.png", gradient(31, 17, 2, ML::U8, 2), {}, ML::U8, gradient(31, 17, 2, ML::U8, 2)},
        {"c3.png", u8, {}, ML::U8, u8},
        {"c4.png", gradient(31, 17, 4, ML::U8, 4), {}, ML::U8, gradient(31, 17, 4, ML::U8, 4)},
        {"deep.png", fine, {}, ML::F32, fine, sixteenBits},  // float frames become 16-bit PNG by default
        {"wide.png", u8, {BitDepth::U16}, ML::F32, convertType(u8, ML::F32), 1e-7f},
        {"a.jpg", jpegSource, {BitDepth::Auto, 95}, ML::U8, convertChannels(jpegSource, 3), 24.0f / 255.0f,
         2.0f / 255.0f},  // alpha dropped
        {"a.tif", u8, {}, ML::U8, u8},
        {"b.tiff", fineRamp(21, 13, 4), {BitDepth::U16}, ML::F32, fineRamp(21, 13, 4), sixteenBits},
        {"c.tif", hdrValues(ML::F32), {}, ML::F32, hdrValues(ML::F32)},
        {"h.exr", hdrValues(ML::F16), {}, ML::F16, hdrValues(ML::F16)},
        {"f.exr", hdrValues(ML::F32), {}, ML::F32, hdrValues(ML::F32)},
        {"fh.exr", hdrValues(ML::F32), {BitDepth::F16}, ML::F16, hdrValues(ML::F16)},
        {"u.exr", u8, {}, ML::F16, convertType(u8, ML::F16)},  // 8-bit frames go to half, scaled to 0..1
    };
    TempDir dir;
    for (const Case& c : cases) {
        writeImage(dir / c.file, c.frame, c.options);
        const Frame back = readImage(dir / c.file);
        EXPECT_EQ(back.type(), c.readType) << c.file;
        if (c.maxError == 0.0f) {
            EXPECT_EQ(back, c.expected) << c.file;
            continue;
        }
        const auto d = difference(back, c.expected);
        EXPECT_LE(d.max, c.maxError) << c.file;
        EXPECT_LE(d.mean, c.meanError > 0.0f ? c.meanError : c.maxError) << c.file;
    }
}

TEST(ImageIo, WriteErrorsLeaveNoFile) {
    TempDir dir;
    QMediaTest::writeText(dir / "file", "x");
    const Frame f = gradient(4, 4, 3, ML::F32);
    ImageWriteOptions poorJpeg;
    poorJpeg.jpegQuality = 0;
    const struct {
        fs::path path;
        Frame frame;
        ImageWriteOptions options;
        const char* message;
    } cases[] = {
        {dir / "a.jpg", f, {BitDepth::F32}, "jpeg files cannot store bit depth float (use 8)"},
        {dir / "b.exr", f, {BitDepth::U8}, "cannot store bit depth 8"},
        {dir / "c.png", f, {BitDepth::F16}, "cannot store bit depth half"},
        {dir / "d.jpg", f, poorJpeg, "JPEG quality must be 1 to 100, not 0"},
        {dir / "missing" / "a.png", f, {}, "Output folder does not exist"},
        {dir / "file" / "a.png", f, {}, "Output folder is not a folder"},
        {dir / "a.unknownformat", f, {}, "Could not write image"},
        {dir / "empty.png", Frame(), {}, "Cannot write an empty frame"},
    };
    for (const auto& c : cases) {
        const std::string e = errorOf([&] { writeImage(c.path, c.frame, c.options); });
        EXPECT_NE(e.find(c.message), std::string::npos) << c.path << ": " << e;
    }
    EXPECT_EQ(QMediaTest::entries(dir.path()), std::set<std::string>{"file"});

    const fs::path locked = dir / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    if (!std::ofstream(locked / "probe")) {  // folder permissions are not enforced for every user
        const std::string e = errorOf([&] { writeImage(locked / "a.png", f); });
        EXPECT_NE(e.find("cannot create file"), std::string::npos) << e;
        EXPECT_TRUE(fs::is_empty(locked));
    }
}

TEST(ImageIo, MissingAndUnreadableFiles) {
    TempDir dir;
    QMediaTest::writeText(dir / "junk.png", "this is not a picture at all");
    // A file cut off in the middle of its pixel data. (EXR rather than PNG: OpenImageIO 2.4
    // leaks a little memory on a cut PNG, which the leak checker would report.)
    writeImage(dir / "whole.exr", gradient(64, 64, 4, ML::F32));
    std::ifstream in(dir / "whole.exr", std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    QMediaTest::writeText(dir / "cut.exr", bytes.substr(0, bytes.size() / 2));

    const std::pair<fs::path, const char*> cases[] = {
        {dir / "none.png", "Image file not found: "},
        {dir.path(), "Not an image file: "},
        {dir / "junk.png", "Could not read image"},
        {dir / "cut.exr", "Could not read image"},
    };
    for (const auto& [path, message] : cases) {
        const std::string e = errorOf([&] { readImage(path); });
        EXPECT_NE(e.find(message), std::string::npos) << path << ": " << e;
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
