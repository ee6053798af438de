#pragma once
// An output file that appears only when it is complete: writers fill a temporary file in the
// target's folder, and commit() renames it over the target. Until then, and whenever the
// object is destroyed without commit(), the temporary file is removed.
#include <filesystem>

namespace QMedia {

class PendingFile {
public:
    // Checks that the target's folder exists and that the target is not a folder.
    // The temporary file itself is created by the writer at tempPath().
    explicit PendingFile(const std::filesystem::path& target);
    ~PendingFile();
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    const std::filesystem::path& target() const { return target_; }
    const std::filesystem::path& tempPath() const { return temp_; }
    bool committed() const { return committed_; }

    // Renames the temporary file to the target, replacing an older target. Throws when the
    // temporary file is missing or the rename fails; the temporary file is gone either way.
    void commit();
    // Removes the temporary file (if any); the target stays as it was.
    void discard();

private:
    std::filesystem::path target_;
    std::filesystem::path temp_;
    bool committed_ = false;
};

// Throws a clear error unless the folder of `target` exists and is a folder.
void checkOutputFolder(const std::filesystem::path& target);

}  // namespace QMedia
