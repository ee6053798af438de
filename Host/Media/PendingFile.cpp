#include "Host/Media/PendingFile.h"

#include <atomic>
#include <random>
#include <string>
#include <system_error>

#include "ML/Exception.h"

namespace fs = std::filesystem;

namespace QMedia {
namespace {

// A name unlikely to collide with another writer, in this process or another one.
std::string uniqueSuffix() {
    static const unsigned long long seed = [] {
        std::random_device rd;
        return (static_cast<unsigned long long>(rd()) << 32) ^ rd();
    }();
    static std::atomic<unsigned long long> counter{0};
    const unsigned long long n = seed + counter.fetch_add(1) * 0x9E3779B97F4A7C15ull;
    static const char digits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string s;
    unsigned long long v = n;
    for (int i = 0; i < 12; ++i, v /= 36) s += digits[v % 36];
    return s;
}

fs::path folderOf(const fs::path& target) {
    const fs::path parent = target.parent_path();
    return parent.empty() ? fs::path(".") : parent;
}

}  // namespace

void checkOutputFolder(const fs::path& target) {
    if (target.filename().empty()) ML_THROW("Output path names a folder, not a file: " + target.string());
    const fs::path folder = folderOf(target);
    std::error_code ec;
    const auto status = fs::status(folder, ec);
    if (!fs::exists(status)) ML_THROW("Output folder does not exist: " + folder.string());
    if (!fs::is_directory(status)) ML_THROW("Output folder is not a folder: " + folder.string());
    if (fs::is_directory(fs::status(target, ec))) ML_THROW("Output path is a folder: " + target.string());
}

PendingFile::PendingFile(const fs::path& target) : target_(target) {
    checkOutputFolder(target);
    // Hidden, and ending in ".tmp" so that nothing takes it for a finished picture or video.
    temp_ = folderOf(target) / ("." + target.filename().string() + "." + uniqueSuffix() + ".tmp");
}

PendingFile::~PendingFile() { discard(); }

void PendingFile::commit() {
    if (committed_) return;
    std::error_code ec;
    if (!fs::exists(temp_, ec)) ML_THROW("Output was not written: " + target_.string());
    fs::rename(temp_, target_, ec);
    if (ec) {
        discard();
        ML_THROW("Could not move finished output to " + target_.string() + ": " + ec.message());
    }
    committed_ = true;
}

void PendingFile::discard() {
    if (committed_) return;
    std::error_code ec;
    fs::remove(temp_, ec);  // nothing to report: the file may never have been created
}

}  // namespace QMedia
