#pragma once
// Whole packages and groups of networks, as the command line offers them.
#include <filesystem>
#include <string>
#include <vector>

#include "Import/NetworkSources.h"

namespace qpkg {

// Folders of a package: the host's data folder and aux folder (the backend's model folder).
std::filesystem::path configFolderOf(const std::filesystem::path& packageDir);  // <dir>/config
std::filesystem::path modelFolderOf(const std::filesystem::path& packageDir);   // <dir>/models

// Every network of <modelFolder>/imgcvt: all conversions, resize, gamma and statistics.
// portable: conversions and resizes of standard ONNX operators only, instead of the fused operators that only
// the ort backends run.
void writeImgcvt(const std::filesystem::path& modelFolder, bool portable = false);

// Where the real networks are unless the user says: $QUILLON_NETWORKS, else the source tree's
// .deps/networks (scripts/setup unpacks them there).
std::filesystem::path defaultNetworksFolder();

struct PackageOptions {
    bool encrypt = false;
    bool portable = false;  // helper networks of standard ONNX operators only
    // Folder of the real networks (<folder>/<package folder>/<file>); empty: stand-ins only.
    std::filesystem::path networks;
    std::vector<std::string> with;  // GPL networks to include, by model id
    // The real networks to write; nullptr: tfjs::networkSources().
    const std::vector<tfjs::NetworkSource>* sources = nullptr;
};

// The default package: configuration files, helper networks, stand-ins, the real networks found
// and models/networks.json with NETWORKS.md. Returns lines for the user: networks left out, why.
std::vector<std::string> writeDefaultPackage(const std::filesystem::path& packageDir, const PackageOptions& options);
// Stand-ins only.
void writeDefaultPackage(const std::filesystem::path& packageDir, bool encrypt);

}  // namespace qpkg
