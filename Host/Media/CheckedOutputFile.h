#pragma once
// The file an image writer writes through: an OpenImageIO I/O proxy that remembers every
// short write and reports buffered write errors at close, which image writers may not check
// (a full disk must not end in a truncated picture that looks finished).
#include <OpenImageIO/filesystem.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

namespace QMedia {

class CheckedOutputFile : public OIIO::Filesystem::IOFile {
public:
    // Creates or truncates the file; null with the system's reason in `error` on failure.
    static std::unique_ptr<CheckedOutputFile> create(const std::filesystem::path& path, std::string& error);
    ~CheckedOutputFile() override;

    bool opened() const override { return file_ != nullptr; }
    size_t write(const void* buf, size_t size) override;
    size_t pwrite(const void* buf, size_t size, int64_t offset) override;
    // The writer's close is not ours: the file stays open until finish().
    void close() override {}

    // Flushes and closes; false when any write fell short or the flush failed.
    bool finish();

private:
    explicit CheckedOutputFile(FILE* file);

    FILE* file_ = nullptr;
    bool failed_ = false;
};

}  // namespace QMedia
