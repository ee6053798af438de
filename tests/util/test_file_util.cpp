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

TEST(EncryptedTwin, ReplacesOrAddsTheExtensionOfTheLastComponent) {
    const std::pair<const char*, const char*> cases[] = {
        {"models/depth_config.json", "models/depth_config.bin"}, {"/abs/dir.d/archive.tar.gz", "/abs/dir.d/archive.tar.bin"},
        {"name.", "name.bin"},           {"dir.d/file", "dir.d/file.bin"},  {"mesh/vgg_uvs.bin", "mesh/vgg_uvs.bin"},
        {"dir/.hidden", "dir/.bin"},     {"dir/..", "dir/...bin"}};
    for (const auto& [path, twin] : cases) EXPECT_EQ(ML::encryptedTwin(path), fs::path(twin)) << path;
}

TEST(FileExists, NotFoundIsFalseOtherQueryErrorsThrow) {
    TempDir dir;
    writeText(dir / "present.json", "{}");
    EXPECT_TRUE(ML::fileExists(dir / "present.json"));
    EXPECT_TRUE(ML::fileExists(dir.path()));
    EXPECT_FALSE(ML::fileExists(dir / "absent" / "deeper.json"));
    EXPECT_FALSE(ML::fileExists(dir / "present.json" / "inner.json"));  // a file used as a folder

    const fs::path tooLong = dir / std::string(300, 'n');
    try {
        ML::fileExists(tooLong);
        FAIL() << "expected a filesystem failure";
    } catch (const fs::filesystem_error& e) {
        EXPECT_NE(std::string(e.what()).find("exists"), std::string::npos) << e.what();
        EXPECT_EQ(e.path1(), tooLong);
    }
}

TEST(BinaryFile, FailuresNameThePath) {
    TempDir dir;
    const fs::path missing = dir / "missing.json";
    const std::string text = messageOf([&] { ML::readBinaryFile(missing); });
    EXPECT_NE(text.find("PLUGIN/INTERNAL: "), std::string::npos) << text;
    EXPECT_NE(text.find(": Could not read file (for reading):" + missing.string()), std::string::npos) << text;
    EXPECT_NE(messageOf([&] { ML::readBinaryFile(dir.path()); }).find("Could not read file (for reading):"),
              std::string::npos);
    const fs::path target = dir / "no_such_folder" / "out.bin";
    EXPECT_NE(messageOf([&] { ML::writeBinaryFile(target, "a", 1); })
                  .find("could not open file (for writing): " + target.string()),
              std::string::npos);
}

TEST(ReadFileOrEncrypted, PlainFileWinsOverTwinAndPlainBinIsReadAsIs) {
    TempDir dir;
    ML::writeEncryptedFile(dir / "depth_config.json", "encrypted");
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "depth_config.json"), "encrypted");
    writeText(dir / "depth_config.json", "plain");
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "depth_config.json"), "plain");
    writeText(dir / "fv_tris.bin", "raw bytes");  // a ".bin" data file that exists is not decrypted
    EXPECT_EQ(ML::readFileOrEncrypted(dir / "fv_tris.bin"), "raw bytes");
}

TEST(ReadFileOrEncrypted, NeitherPresentIsAHostErrorNamingBoth) {
    TempDir dir;
    const struct { fs::path asked, twin; } cases[] = {
        {dir / "depth_config.json", dir / "depth_config.bin"}, {dir / "vgg_uvs.bin", dir / "vgg_uvs.bin"},
    };
    for (const auto& c : cases) {
        try {
            ML::readFileOrEncrypted(c.asked);
            ADD_FAILURE() << "expected a failure";
        } catch (const ML::Exception& e) {
            EXPECT_EQ(e.source(), ML::Exception::PLUGIN);
            EXPECT_EQ(e.code(), ML::Exception::HOST);
            const std::string expected = "Could not load file or encrypted fallback: " + c.asked.string() + " - or - " +
                                         c.twin.string();
            const std::string text = e.what();
            ASSERT_GE(text.size(), expected.size());
            EXPECT_EQ(text.substr(text.size() - expected.size()), expected);
        }
    }
}

}  // namespace
