// NPY 1.0 dumps of tensors: header layout, type codes, data and refusals.
#include <gtest/gtest.h>

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

TEST(WriteNumpy, HeaderNamesTypeAndShapeAndTheDataFollows) {
    TempDir dir;
    std::vector<char> bytes(1000);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
    const struct { ML::u32 type; std::vector<ML::u64> shape; const char *code, *dims; size_t elementSize; } cases[] = {
        {ML::F32, {1, 3, 4, 5}, "f4", "1, 3, 4, 5, ", 4},
        {ML::U8, {2, 3}, "u1", "2, 3, ", 1},
        {ML::F16, {1, 0, 4}, "f2", "1, 0, 4, ", 2},  // no data
        {ML::I32, {7}, "i4", "7, ", 4},
        {ML::I64, std::vector<ML::u64>(20, 1), "i8",
         "1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, ", 8},  // a longer header
    };
    for (const auto& c : cases) {
        ML::writeNumpy(dir / "t.npy", bytes.data(), c.shape, c.type);
        const auto [header, data] = readNpy(dir / "t.npy");
        const std::string text =
            std::string("{'descr': '<") + c.code + "', 'fortran_order': False, 'shape': (" + c.dims + ")}";
        ASSERT_GT(header.size(), text.size()) << c.code;
        EXPECT_EQ(header, text + std::string(header.size() - text.size() - 1, ' ') + "\n");
        size_t size = c.elementSize;
        for (ML::u64 extent : c.shape) size *= extent;
        EXPECT_EQ(data, std::string(bytes.data(), size)) << c.code;
    }
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
