#pragma once
// Writing the files of a package. Every file is first written under a temporary name in its
// own folder and then renamed over the final name, so that a failure never leaves a
// half-written file behind.
#include <filesystem>
#include <string>

#include <onnx/onnx_pb.h>

namespace qpkg {

// Makes the folder and its parents; std::runtime_error naming the folder when that fails.
void makeFolder(const std::filesystem::path& folder);

// Writes bytes to path through a temporary file beside it.
void writeFileAtomic(const std::filesystem::path& path, const std::string& bytes);

// Serialises a (checked) network to path.
void writeModel(const onnx::ModelProto& model, const std::filesystem::path& path);

// Writes contents encrypted, with the plug-in's own writer, to the encrypted twin of plainPath
// ("name.json" -> "name.bin"); returns the twin's path.
std::filesystem::path writeEncryptedTwin(const std::filesystem::path& plainPath, const std::string& contents);

}  // namespace qpkg
