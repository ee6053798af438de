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
