// Plain file access, existence queries, twin names and the plain-or-encrypted reader.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "ML/Exception.h"
#include "TempDir.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

namespace {

namespace fs = std::filesystem;

void writeText(const fs::path& path, const std::string& text) { ML::writeBinaryFile(path, text.data(), text.size()); }

std::string messageOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(EncryptedTwin, ReplacesTheExtensionOfTheLastComponent) {
    EXPECT_EQ(ML::encryptedTwin("models/depth_config.json"), fs::path("models/depth_config.bin"));
    EXPECT_EQ(ML::encryptedTwin("/abs/dir.d/archive.tar.gz"), fs::path("/abs/dir.d/archive.tar.bin"));
    EXPECT_EQ(ML::encryptedTwin("vocab.txt"), fs::path("vocab.bin"));
    EXPECT_EQ(ML::encryptedTwin("name."), fs::path("name.bin"));
}

TEST(EncryptedTwin, NameWithoutExtensionGetsOne) {
    EXPECT_EQ(ML::encryptedTwin("data/README"), fs::path("data/README.bin"));
    EXPECT_EQ(ML::encryptedTwin("dir.d/file"), fs::path("dir.d/file.bin"));
}

TEST(EncryptedTwin, BinFileIsItsOwnTwin) {
    EXPECT_EQ(ML::encryptedTwin("mesh/vgg_uvs.bin"), fs::path("mesh/vgg_uvs.bin"));
}

TEST(EncryptedTwin, SplitsAtTheLastDotEvenForLeadingDots) {
    EXPECT_EQ(ML::encryptedTwin("dir/.hidden"), fs::path("dir/.bin"));
    EXPECT_EQ(ML::encryptedTwin("dir/.."), fs::path("dir/...bin"));
}

TEST(FileExists, FilesAndFoldersExistMissingOnesDoNot) {
    TempDir dir;
    writeText(dir / "present.json", "{}");
    EXPECT_TRUE(ML::fileExists(dir / "present.json"));
    EXPECT_TRUE(ML::fileExists(dir.path()));
    EXPECT_FALSE(ML::fileExists(dir / "absent.json"));
    EXPECT_FALSE(ML::fileExists(dir / "absent" / "deeper.json"));
    // A file used as a folder is "not found" too.
    EXPECT_FALSE(ML::fileExists(dir / "present.json" / "inner.json"));
}

TEST(FileExists, OtherQueryErrorsThrowFromExists) {
    TempDir dir;
    const fs::path tooLong = dir / std::string(300, 'n');
    try {
        ML::fileExists(tooLong);
        FAIL() << "expected a filesystem failure";
    } catch (const fs::filesystem_error& e) {
        EXPECT_NE(std::string(e.what()).find("exists"), std::string::npos) << e.what();
        EXPECT_EQ(e.path1(), tooLong);
    }

    fs::create_symlink("loop_b", dir / "loop_a");
    fs::create_symlink("loop_a", dir / "loop_b");
    EXPECT_THROW(ML::fileExists(dir / "loop_a"), fs::filesystem_error);
}

TEST(BinaryFile, WriteThenReadKeepsEveryByte) {
    TempDir dir;
    std::string bytes;
    for (int i = 0; i < 1000; ++i) bytes += static_cast<char>(i * 7);
    ML::writeBinaryFile(dir / "b.dat", bytes.data(), bytes.size());
    EXPECT_EQ(ML::readBinaryFile(dir / "b.dat"), bytes);
    EXPECT_EQ(ML::readTextFile(dir / "b.dat"), bytes);

    ML::writeBinaryFile(dir / "b.dat", "xy", 2);  // truncates
    EXPECT_EQ(ML::readBinaryFile(dir / "b.dat"), "xy");
    ML::writeBinaryFile(dir / "b.dat", nullptr, 0);
    EXPECT_EQ(ML::readBinaryFile(dir / "b.dat"), "");
}

TEST(BinaryFile, ReadFailureNamesThePathWithoutBlank) {
    TempDir dir;
    const fs::path missing = dir / "missing.json";
    const std::string text = messageOf([&] { ML::readBinaryFile(missing); });
    EXPECT_NE(text.find("PLUGIN/INTERNAL: "), std::string::npos) << text;
    EXPECT_NE(text.find(": Could not read file (for reading):" + missing.string()), std::string::npos) << text;
    EXPECT_NE(messageOf([&] { ML::readBinaryFile(dir.path()); }).find("Could not read file (for reading):"),
              std::string::npos);
}

TEST(BinaryFile, WriteFailureNamesThePath) {
    TempDir dir;
    const fs::path target = dir / "no_such_folder" / "out.bin";
    const std::string text = messageOf([&] { ML::writeBinaryFile(target, "a", 1); });
    EXPECT_NE(text.find("could not open file (for writing): " + target.string()), std::string::npos) << text;
}

TEST(ReadFileOrEncrypted, PlainFileWinsOverTwin) {
    TempDir dir;
    writeText(dir / "depth_config.json", "plain");
    ML::writeEncryptedFile(dir / "depth_config.json", "encrypted");
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "depth_config.json"), "plain");
}

TEST(ReadFileOrEncrypted, TwinIsDecryptedWhenPlainIsAbsent) {
    TempDir dir;
    ML::writeEncryptedFile(dir / "depth_config.json", R"({"availableModels":[]})");
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "depth_config.json"), R"({"availableModels":[]})");
}

TEST(ReadFileOrEncrypted, NeitherPresentIsAHostErrorNamingBoth) {
    TempDir dir;
    const fs::path plain = dir / "depth_config.json";
    try {
        ML::readFileOrEncrypted(plain);
        FAIL() << "expected a failure";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.source(), ML::Exception::PLUGIN);
        EXPECT_EQ(e.code(), ML::Exception::HOST);
        const std::string expected = "Could not load file or encrypted fallback: " + plain.string() + " - or - " +
                                     (dir / "depth_config.bin").string();
        const std::string text = e.what();
        ASSERT_GE(text.size(), expected.size());
        EXPECT_EQ(text.substr(text.size() - expected.size()), expected);
    }
}

TEST(ReadFileOrEncrypted, MissingBinFileNamesItselfTwice) {
    TempDir dir;
    const fs::path bin = dir / "vgg_uvs.bin";
    const std::string text = messageOf([&] { ML::readFileOrEncrypted(bin); });
    EXPECT_NE(text.find(bin.string() + " - or - " + bin.string()), std::string::npos) << text;
}

TEST(ReadFileOrEncrypted, PlainBinFileIsReadAsIs) {
    // A ".bin" data file that exists is a plain file: it is not decrypted.
    TempDir dir;
    writeText(dir / "fv_tris.bin", "raw bytes");
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "fv_tris.bin"), "raw bytes");
}

}  // namespace
