// Encrypted twins of data files: any bytes as a .bin file for readEncryptedFile, and any contents
// through writeEncryptedFile and back.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "ML/Exception.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

namespace {

namespace fs = std::filesystem;

// In memory where the system offers it: files rewritten on disk thousands of times a second
// make the run wait for the disk.
fs::path scratchRoot() {
    std::error_code ec;
    return fs::is_directory("/dev/shm", ec) ? fs::path("/dev/shm") : fs::temp_directory_path();
}

struct ScratchFolder {
    fs::path path = scratchRoot() / ("quillon-fuzz-crypto-" + std::to_string(getpid()));
    ScratchFolder() { fs::create_directories(path); }
    ~ScratchFolder() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ScratchFolder scratch;
    const std::string bytes(reinterpret_cast<const char*>(data), size);

    const fs::path cipherFile = scratch.path / "any.bin";
    ML::writeBinaryFile(cipherFile, bytes.data(), bytes.size());
    try {
        const std::string contents = ML::readEncryptedFile(cipherFile);
        if (contents.size() + 8 > size) __builtin_trap();  // more than the file can hold
    } catch (const ML::Exception&) {      // size not a multiple of the block
    } catch (const std::out_of_range&) {  // shorter than the length field
    }

    ML::writeEncryptedFile(scratch.path / "twin.json", bytes);
    if (ML::readFileOrEncrypted(scratch.path / "twin.json") != bytes) __builtin_trap();
    return 0;
}
