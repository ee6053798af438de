// NPY 1.0 dumps of tensors: header layout, type codes, data and refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ML/Exception.h"
#include "TempDir.h"
#include "Util/ML_FileUtil.h"

namespace {

namespace fs = std::filesystem;

struct Npy {
    std::string magic;     // 8 bytes: "\x93NUMPY" and version
    size_t headerLength;   // from the 16-bit field
    std::string header;    // the header text including padding and line feed
    std::string data;
};

Npy readNpy(const fs::path& path) {
    const std::string bytes = ML::readBinaryFile(path);
    Npy npy;
    npy.magic = bytes.substr(0, 8);
    npy.headerLength = static_cast<unsigned char>(bytes[8]) | (static_cast<unsigned char>(bytes[9]) << 8);
    npy.header = bytes.substr(10, npy.headerLength);
    npy.data = bytes.substr(10 + npy.headerLength);
    return npy;
}

TEST(WriteNumpy, HeaderFollowsTheFormatAndDataFollowsIt) {
    TempDir dir;
    std::vector<float> values(1 * 3 * 4 * 5);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i) * 0.5f;
    ML::writeNumpy(dir / "t.npy", values.data(), {1, 3, 4, 5}, ML::F32);

    const Npy npy = readNpy(dir / "t.npy");
    EXPECT_EQ(npy.magic, std::string("\x93NUMPY\x01\x00", 8));
    EXPECT_EQ((10 + npy.headerLength) % 64, 0u);
    ASSERT_FALSE(npy.header.empty());
    EXPECT_EQ(npy.header.back(), '\n');
    const std::string text = "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 3, 4, 5, )}";
    EXPECT_EQ(npy.header.substr(0, text.size()), text);
    EXPECT_EQ(npy.header.substr(text.size()), std::string(npy.header.size() - text.size() - 1, ' ') + "\n");
    ASSERT_EQ(npy.data.size(), values.size() * sizeof(float));
    EXPECT_EQ(std::memcmp(npy.data.data(), values.data(), npy.data.size()), 0);
}

TEST(WriteNumpy, TypeCodesAndElementSizes) {
    TempDir dir;
    const struct {
        ML::u32 type;
        const char* code;
        size_t size;
    } cases[] = {{ML::U8, "u1", 1}, {ML::F16, "f2", 2}, {ML::F32, "f4", 4}, {ML::I32, "i4", 4}, {ML::I64, "i8", 8}};
    const std::vector<char> data(6 * 8, 'd');
    for (const auto& c : cases) {
        ML::writeNumpy(dir / "t.npy", data.data(), {2, 3}, c.type);
        const Npy npy = readNpy(dir / "t.npy");
        EXPECT_EQ(npy.header.rfind(std::string("{'descr': '<") + c.code + "'", 0), 0u) << npy.header;
        EXPECT_NE(npy.header.find("'shape': (2, 3, )}"), std::string::npos) << npy.header;
        EXPECT_EQ(npy.data.size(), 6 * c.size) << c.code;
    }
}

TEST(WriteNumpy, LongHeaderGrowsToTheNextMultipleOf64) {
    TempDir dir;
    const std::vector<ML::u64> shape = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    const char value = 42;
    ML::writeNumpy(dir / "t.npy", &value, shape, ML::U8);
    const Npy npy = readNpy(dir / "t.npy");
    EXPECT_EQ(10 + npy.headerLength, 128u);
    EXPECT_EQ(npy.header.back(), '\n');
    EXPECT_EQ(npy.data, std::string(1, 42));
}

TEST(WriteNumpy, EmptyExtentWritesHeaderOnly) {
    TempDir dir;
    ML::writeNumpy(dir / "t.npy", nullptr, {1, 0, 4}, ML::F16);
    const Npy npy = readNpy(dir / "t.npy");
    EXPECT_NE(npy.header.find("(1, 0, 4, )"), std::string::npos);
    EXPECT_TRUE(npy.data.empty());
}

TEST(WriteNumpy, UnsupportedTypeIsRefusedBeforeWriting) {
    TempDir dir;
    const ML::u16 data[4] = {};
    for (ML::u32 type : {ML::U16, ML::I8, ML::U64, ML::SIZE_T}) {
        try {
            ML::writeNumpy(dir / "t.npy", data, {4}, type);
            FAIL() << "type " << type << " accepted";
        } catch (const ML::Exception& e) {
            EXPECT_NE(
                std::string(e.what()).find("Numpy export not implemented for dtype yet! (add to dtToNp map above)"),
                std::string::npos);
        }
    }
    EXPECT_FALSE(fs::exists(dir / "t.npy"));
}

}  // namespace
