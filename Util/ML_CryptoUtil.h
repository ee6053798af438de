#pragma once
// AES-128 (FIPS 197) in ECB mode for the encrypted twins of model files.
#include <array>
#include <filesystem>
#include <string>

#include "ML/Types.h"

namespace ML {

using AesKey = std::array<u8, 16>;

// The one key of every encrypted model file.
extern const AesKey modelFileKey;

class Aes128 {
public:
    explicit Aes128(const AesKey& key);
    void encryptBlock(u8 block[16]) const;
    void decryptBlock(u8 block[16]) const;

private:
    std::array<u8, 176> roundKeys{};
};

// Decrypts a file in the encrypted layout (u64 length, contents, zero padding).
// Sizes that are not a multiple of 16 are refused.
std::string readEncryptedFile(const std::filesystem::path& path);
// Encrypts contents and writes them to the encrypted twin of path.
void writeEncryptedFile(const std::filesystem::path& path, const std::string& contents);

}  // namespace ML
