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

TEST(EncryptedFile, WritesTheTwinAsLengthFieldAndContentsInWholeBlocks) {
    TempDir dir;
    std::string bytes;
    for (int i = 0; i < 256; ++i) bytes += static_cast<char>(i);
    // Length of the contents, and the file's size: the 8-byte length field, the contents and
    // padding up to whole blocks of 16.
    const std::pair<size_t, size_t> cases[] = {{0, 16}, {8, 16}, {9, 32}, {24, 32}, {25, 48}, {256, 272}};
    for (const auto& [length, fileSize] : cases) {
        const std::string contents = bytes.substr(0, length);
        ML::writeEncryptedFile(dir / "depth_config.json", contents);
        EXPECT_FALSE(fs::exists(dir / "depth_config.json"));
        EXPECT_EQ(fs::file_size(dir / "depth_config.bin"), fileSize) << "length " << length;
        EXPECT_EQ(ML::readEncryptedFile(dir / "depth_config.bin"), contents) << "length " << length;
    }
    // Blocks are encrypted independently: plain bytes 16..47 are two equal blocks here.
    ML::writeEncryptedFile(dir / "cfg.json", std::string(40, 'A'));
    const std::string cipher = ML::readBinaryFile(dir / "cfg.bin");
    EXPECT_EQ(cipher.substr(16, 16), cipher.substr(32, 16));
}

TEST(EncryptedFile, DeclaredLengthIsCutToTheBlocks) {
    TempDir dir;
    const ML::Aes128 aes(ML::modelFileKey);
    const std::pair<ML::u64, std::string> cases[] = {{1000, "abcdefgh" + std::string(16, 'z')}, {3, "abc"}, {0, ""}};
    for (const auto& [declared, contents] : cases) {
        // Written raw: the length field, then "abcdefgh" and, for the long one, a second block.
        std::string plain(8, '\0');
        for (int i = 0; i < 8; ++i) plain[i] = static_cast<char>((declared >> (8 * i)) & 0xFF);
        plain += "abcdefgh" + std::string(declared == 1000 ? 16 : 0, 'z');
        for (size_t offset = 0; offset < plain.size(); offset += 16)
            aes.encryptBlock(reinterpret_cast<ML::u8*>(plain.data()) + offset);
        ML::writeBinaryFile(dir / "raw.bin", plain.data(), plain.size());
        EXPECT_EQ(ML::readEncryptedFile(dir / "raw.bin"), contents) << "declared " << declared;
    }
}

TEST(EncryptedFile, TruncatedFilesAreRefused) {
    TempDir dir;
    ML::writeEncryptedFile(dir / "cfg.json", "some contents");
    const std::string bytes = ML::readBinaryFile(dir / "cfg.bin") + "tail";
    ML::writeBinaryFile(dir / "cfg.bin", bytes.data(), bytes.size());
    try {
        ML::readEncryptedFile(dir / "cfg.bin");
        FAIL() << "expected a refusal";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        EXPECT_NE(std::string(e.what()).find("not a multiple of 16"), std::string::npos) << e.what();
    }
    for (size_t size : {0, 7}) {
        ML::writeBinaryFile(dir / "tiny.bin", bytes.data(), size);
        EXPECT_THROW(ML::readEncryptedFile(dir / "tiny.bin"), std::out_of_range) << "size " << size;
    }
}

}  // namespace
