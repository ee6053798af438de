#pragma once
// Result buffers of the effect written to files, whole or not at all.
#include <filesystem>
#include <string>

namespace QCli {

// The file of one frame: pattern paths ("name.%04d.json") get the frame number.
std::filesystem::path bufferPathFor(const std::filesystem::path& path, int frame);

// Writes bytes under a temporary name and renames it to path; throws CliError (EXIT_HOST).
void writeBufferFile(const std::filesystem::path& path, const std::string& bytes);

}  // namespace QCli
