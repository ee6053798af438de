// NPY 1.0 dumps of tensors: header layout, type codes, data and refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "ML/Exception.h"
#include "TempDir.h"
#include "Util/ML_FileUtil.h"

namespace {

// The header text (padding and line feed included) and the data after it.
std::pair<std::string, std::string> readNpy(const std::filesystem::path& path) {
    const std::string bytes = ML::readBinaryFile(path);
    EXPECT_EQ(bytes.substr(0, 8), std::string("\x93NUMPY\x01\x00", 8));
    const size_t length = static_cast<unsigned char>(bytes[8]) | (static_cast<unsigned char>(bytes[9]) << 8);
    EXPECT_EQ((10 + length) % 64, 0u);
    EXPECT_EQ(bytes[9 + length], '\n');
    return {bytes.substr(10, length), bytes.substr(10 + length)};
}

TEST(WriteNumpy, HeaderNamesTypeAndShapeAndDataFollowsIt) {
    TempDir dir;
    std::vector<float> values(1 * 3 * 4 * 5);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i) * 0.5f;
    ML::writeNumpy(dir / "t.npy", values.data(), {1, 3, 4, 5}, ML::F32);
    const auto [header, data] = readNpy(dir / "t.npy");
    const std::string text = "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 3, 4, 5, )}";
    EXPECT_EQ(header, text + std::string(header.size() - text.size() - 1, ' ') + "\n");
    ASSERT_EQ(data.size(), values.size() * sizeof(float));
    EXPECT_EQ(std::memcmp(data.data(), values.data(), data.size()), 0);

    const struct {
        ML::u32 type;
        const char* code;
        size_t size;
    } cases[] = {{ML::U8, "u1", 1}, {ML::F16, "f2", 2}, {ML::I32, "i4", 4}, {ML::I64, "i8", 8}};
    const std::vector<char> bytes(6 * 8, 'd');
    for (const auto& c : cases) {
        ML::writeNumpy(dir / "t.npy", bytes.data(), {2, 3}, c.type);
        const auto [typed, typedData] = readNpy(dir / "t.npy");
        EXPECT_EQ(typed.rfind(std::string("{'descr': '<") + c.code + "', 'fortran_order': False, 'shape': (2, 3, )}", 0), 0u)
            << typed;
        EXPECT_EQ(typedData.size(), 6 * c.size) << c.code;
    }
}

TEST(WriteNumpy, LongHeaderGrowsAndEmptyExtentWritesHeaderOnly) {
    TempDir dir;
    const char value = 42;
    ML::writeNumpy(dir / "t.npy", &value, std::vector<ML::u64>(20, 1), ML::U8);
    const auto [header, data] = readNpy(dir / "t.npy");
    EXPECT_EQ(header.size(), 118u);  // 128 bytes with the magic and length
    EXPECT_EQ(data, std::string(1, 42));

    ML::writeNumpy(dir / "t.npy", nullptr, {1, 0, 4}, ML::F16);
    const auto [empty, none] = readNpy(dir / "t.npy");
    EXPECT_NE(empty.find("(1, 0, 4, )"), std::string::npos);
    EXPECT_TRUE(none.empty());
}

TEST(WriteNumpy, UnsupportedTypeIsRefusedBeforeWriting) {
    TempDir dir;
    const ML::u16 data[4] = {};
    for (ML::u32 type : {ML::U16, ML::I8, ML::U64, ML::SIZE_T}) {
        try {
            ML::writeNumpy(dir / "t.npy", data, {4}, type);
            ADD_FAILURE() << "type " << type << " accepted";
        } catch (const ML::Exception& e) {
            EXPECT_NE(std::string(e.what()).find("Numpy export not implemented for dtype yet! (add to dtToNp map above)"),
                      std::string::npos);
        }
    }
    EXPECT_FALSE(std::filesystem::exists(dir / "t.npy"));
}

}  // namespace
