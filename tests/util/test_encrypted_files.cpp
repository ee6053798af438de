// Encrypted twins of model files: layout, round trips, length edge cases and refusals.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ML/Exception.h"
#include "TempDir.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

namespace {

namespace fs = std::filesystem;

std::string allBytes() {
    std::string s;
    for (int i = 0; i < 256; ++i) s += static_cast<char>(i);
    return s;
}

// Encrypts a raw plain layout (length field included) block by block and writes it as is.
void writeRawEncrypted(const fs::path& path, std::string plainLayout) {
    const ML::Aes128 aes(ML::modelFileKey);
    for (size_t offset = 0; offset < plainLayout.size(); offset += 16)
        aes.encryptBlock(reinterpret_cast<ML::u8*>(plainLayout.data()) + offset);
    ML::writeBinaryFile(path, plainLayout.data(), plainLayout.size());
}

std::string lengthField(ML::u64 length) {
    std::string s(8, '\0');
    for (int i = 0; i < 8; ++i) s[i] = static_cast<char>((length >> (8 * i)) & 0xFF);
    return s;
}

TEST(EncryptedFile, WritesToTheTwinAndRoundTripsByteForByte) {
    TempDir dir;
    const std::string contents = allBytes() + std::string(3, '\0') + "{\"availableModels\": []}";
    ML::writeEncryptedFile(dir / "depth_config.json", contents);

    EXPECT_FALSE(fs::exists(dir / "depth_config.json"));
    ASSERT_TRUE(fs::exists(dir / "depth_config.bin"));
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "depth_config.json"), contents);
    EXPECT_EQ(ML::readEncryptedFile(dir / "depth_config.bin"), contents);
}

TEST(EncryptedFile, SizeIsLengthFieldPlusContentsRoundedToWholeBlocks) {
    TempDir dir;
    const std::pair<size_t, size_t> cases[] = {{0, 16}, {7, 16}, {8, 16}, {9, 32}, {24, 32}, {25, 48}};
    for (const auto& [length, fileSize] : cases) {
        const std::string contents(length, 'x');
        ML::writeEncryptedFile(dir / "data.bin", contents);
        EXPECT_EQ(fs::file_size(dir / "data.bin"), fileSize) << "length " << length;
        EXPECT_EQ(ML::readEncryptedFile(dir / "data.bin"), contents) << "length " << length;
    }
}

TEST(EncryptedFile, BlocksAreEncryptedIndependently) {
    // Plain bytes 16..47 are two equal blocks of contents: ECB gives two equal cipher blocks.
    TempDir dir;
    ML::writeEncryptedFile(dir / "cfg.json", std::string(40, 'A'));
    const std::string bytes = ML::readBinaryFile(dir / "cfg.bin");
    ASSERT_EQ(bytes.size(), 48u);
    EXPECT_EQ(bytes.substr(16, 16), bytes.substr(32, 16));
    EXPECT_NE(bytes.substr(0, 16), bytes.substr(16, 16));
}

TEST(EncryptedFile, DeclaredLengthBeyondContentsIsCut) {
    TempDir dir;
    writeRawEncrypted(dir / "long.bin", lengthField(1000) + "abcdefgh" + std::string(16, 'z'));
    EXPECT_EQ(ML::readEncryptedFile(dir / "long.bin"), "abcdefgh" + std::string(16, 'z'));
}

TEST(EncryptedFile, DeclaredLengthShorterThanBlocksDropsPadding) {
    TempDir dir;
    writeRawEncrypted(dir / "short.bin", lengthField(3) + "abcdefgh");
    EXPECT_EQ(ML::readEncryptedFile(dir / "short.bin"), "abc");
}

TEST(EncryptedFile, DeclaredLengthZeroGivesEmptyContents) {
    TempDir dir;
    writeRawEncrypted(dir / "zero.bin", lengthField(0) + "abcdefgh");
    EXPECT_EQ(ML::readEncryptedFile(dir / "zero.bin"), "");
}

TEST(EncryptedFile, SizeNotMultipleOfBlockIsRefused) {
    TempDir dir;
    ML::writeEncryptedFile(dir / "cfg.json", "some contents");
    std::string bytes = ML::readBinaryFile(dir / "cfg.bin");
    bytes += "tail";
    ML::writeBinaryFile(dir / "cfg.bin", bytes.data(), bytes.size());
    try {
        ML::readEncryptedFile(dir / "cfg.bin");
        FAIL() << "expected a refusal";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        EXPECT_NE(std::string(e.what()).find("not a multiple of 16"), std::string::npos) << e.what();
    }
}

TEST(EncryptedFile, FileShorterThanLengthFieldIsOutOfRange) {
    TempDir dir;
    for (size_t size : {0, 1, 7}) {
        const std::string bytes(size, 'q');
        ML::writeBinaryFile(dir / "tiny.bin", bytes.data(), bytes.size());
        EXPECT_THROW(ML::readEncryptedFile(dir / "tiny.bin"), std::out_of_range) << "size " << size;
    }
}

}  // namespace
