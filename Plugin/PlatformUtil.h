#pragma once
// Operating-system queries of the plug-in: its own folder and the file names of backends.
#include <filesystem>
#include <string>

namespace ML {

// Folder of the library (or executable) that contains the plug-in's code.
std::filesystem::path pluginLibraryFolder();

// "MLBackend_" + name + the platform's library extension.
std::string backendLibraryFileName(const std::string& backendName);

}  // namespace ML
