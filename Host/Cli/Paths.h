#pragma once
// Where quillon finds its plug-in and package by default.
#include <filesystem>

namespace QCli {

// Folder of the running executable.
std::filesystem::path executableDir();
// Quillon.so beside the executable.
std::filesystem::path defaultPluginPath();
// <executable dir>/package.
std::filesystem::path defaultPackageDir();

}  // namespace QCli
