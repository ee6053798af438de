#include "Host/Media/CheckedOutputFile.h"

#include <cerrno>
#include <cstring>

namespace QMedia {

std::unique_ptr<CheckedOutputFile> CheckedOutputFile::create(const std::filesystem::path& path, std::string& error) {
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) {
        error = std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<CheckedOutputFile>(new CheckedOutputFile(file));
}

CheckedOutputFile::CheckedOutputFile(FILE* file)
    : OIIO::Filesystem::IOFile(file, OIIO::Filesystem::IOProxy::Write), file_(file) {}

CheckedOutputFile::~CheckedOutputFile() {
    if (file_) std::fclose(file_);
}

size_t CheckedOutputFile::write(const void* buf, size_t size) {
    const size_t n = IOFile::write(buf, size);
    if (n != size) failed_ = true;
    return n;
}

size_t CheckedOutputFile::pwrite(const void* buf, size_t size, int64_t offset) {
    const size_t n = IOFile::pwrite(buf, size, offset);
    if (n != size) failed_ = true;
    return n;
}

bool CheckedOutputFile::finish() {
    if (!file_) return false;
    const bool flushed = std::fflush(file_) == 0 && !std::ferror(file_);
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    return flushed && closed && !failed_;
}

}  // namespace QMedia
