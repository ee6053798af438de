#pragma once
// Whole packages and groups of networks, as the command line offers them.
#include <filesystem>

namespace qpkg {

// Folders of a package: the host's data folder and aux folder (the backend's model folder).
std::filesystem::path configFolderOf(const std::filesystem::path& packageDir);  // <dir>/config
std::filesystem::path modelFolderOf(const std::filesystem::path& packageDir);   // <dir>/models

// Every network of <modelFolder>/imgcvt: all conversions, resize, gamma and statistics.
void writeImgcvt(const std::filesystem::path& modelFolder);

// The default package: configuration files, helper networks and stand-ins.
void writeDefaultPackage(const std::filesystem::path& packageDir, bool encrypt);

}  // namespace qpkg
