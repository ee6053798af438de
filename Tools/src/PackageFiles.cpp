#include "PackageFiles.h"

#include <fstream>
#include <random>
#include <stdexcept>
#include <system_error>

#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

namespace fs = std::filesystem;

namespace qpkg {

namespace {

// A name beside path that no other writer uses: ".<name>.tmp-<random><ext>".
fs::path temporaryBeside(const fs::path& path) {
    static std::mt19937_64 rng{std::random_device{}()};
    const std::string suffix = std::to_string(rng() % 100000000000ULL);
    return path.parent_path() / ("." + path.stem().string() + ".tmp-" + suffix + path.extension().string());
}

// Removes the temporary file unless released, whatever ends the write.
class TemporaryFile {
public:
    explicit TemporaryFile(fs::path p) : path_(std::move(p)) {}
    ~TemporaryFile() {
        if (!path_.empty()) {
            std::error_code ec;
            fs::remove(path_, ec);
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const fs::path& path() const { return path_; }
    void moveTo(const fs::path& target) {
        std::error_code ec;
        fs::rename(path_, target, ec);
        if (ec) throw std::runtime_error("cannot write " + target.string() + ": " + ec.message());
        path_.clear();
    }

private:
    fs::path path_;
};

}  // namespace

void makeFolder(const fs::path& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec) throw std::runtime_error("cannot create folder " + folder.string() + ": " + ec.message());
    if (!fs::is_directory(folder, ec)) throw std::runtime_error("not a folder: " + folder.string());
}

void writeFileAtomic(const fs::path& path, const std::string& bytes) {
    TemporaryFile tmp(temporaryBeside(path));
    {
        std::ofstream out(tmp.path(), std::ios::binary | std::ios::trunc);
        if (!out) throw std::runtime_error("cannot write " + path.string() + ": cannot create a file in its folder");
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        out.close();
        if (!out) throw std::runtime_error("cannot write " + path.string() + ": write failed");
    }
    tmp.moveTo(path);
}

void writeModel(const onnx::ModelProto& model, const fs::path& path) {
    std::string bytes;
    if (!model.SerializeToString(&bytes)) throw std::runtime_error("cannot serialise network " + path.string());
    writeFileAtomic(path, bytes);
}

fs::path writeEncryptedTwin(const fs::path& plainPath, const std::string& contents) {
    const fs::path twin = ML::encryptedTwin(plainPath);
    // The writer picks the twin of the name it is given, so hand it a temporary plain name.
    const fs::path tmpPlain = temporaryBeside(plainPath);
    TemporaryFile tmp(ML::encryptedTwin(tmpPlain));
    try {
        ML::writeEncryptedFile(tmpPlain, contents);
    } catch (const std::exception& e) {
        throw std::runtime_error("cannot write " + twin.string() + ": " + e.what());
    }
    tmp.moveTo(twin);
    return twin;
}

}  // namespace qpkg
