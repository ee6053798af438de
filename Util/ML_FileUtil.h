#pragma once
// Reading and writing of the files the plug-in itself reads: configuration and data files,
// plain or as an encrypted twin, and NPY dumps of tensors.
#include <filesystem>
#include <string>
#include <vector>

#include "ML/Types.h"

namespace ML {

// The whole file; "Could not read file (for reading):" + path on failure.
std::string readBinaryFile(const std::filesystem::path& path);
std::string readTextFile(const std::filesystem::path& path);
// Truncates; "could not open file (for writing): " + path on failure.
void writeBinaryFile(const std::filesystem::path& path, const void* data, size_t size);

// Existence by a status query that does not open the file; errors other than "not found" throw.
bool fileExists(const std::filesystem::path& path);

// "name.ext" -> "name.bin" in the same folder; a ".bin" file is its own twin.
std::filesystem::path encryptedTwin(const std::filesystem::path& path);

// The plain file if it exists, else its decrypted twin, else PLUGIN/HOST
// "Could not load file or encrypted fallback: " + path + " - or - " + twin.
std::string readFileOrEncrypted(const std::filesystem::path& path);

// Writes a tensor in NPY 1.0 format (U8, F16, F32, I32, I64).
void writeNumpy(const std::filesystem::path& path, const void* data, const std::vector<u64>& shape, u32 dataType);

}  // namespace ML
