#pragma once
// The real networks of the default package: where each comes from, under which licence, and
// the adapter that fits it to its family. The package lists every network it holds, imported or
// stand-in, in models/networks.json and models/NETWORKS.md.
#include <filesystem>
#include <string>
#include <vector>

namespace qpkg::tfjs {

struct NetworkSource {
    std::string modelId;   // the file written: <modelId>.onnx
    std::string package;   // npm name@version
    std::string folder;    // the package's folder under the networks folder
    std::string file;      // model.json inside the package
    std::string licence;   // SPDX identifier
    std::string upstream;  // where the network was made
    std::string adapter;   // adapter of Adapters.h
    bool gpl = false;      // written only when asked for by name
};

const std::vector<NetworkSource>& networkSources();

// One model file of a package, for networks.json.
struct NetworkRecord {
    std::string modelId;
    bool imported = false;  // false: a stand-in, or a helper network
    std::string source, file, licence, upstream, adapter;
    bool helper = false;  // a network of the tool itself that does the real work, not a stand-in
};

// What writing the real networks did: a record per network written, a line per network left out.
struct RealNetworks {
    std::vector<NetworkRecord> records;
    std::vector<std::string> notes;
};

// Imports every network of sources whose model.json lies in networksFolder into modelFolder.
// GPL networks only when their id is in with. A missing networks folder or model.json is a
// note, not an error; a network that fails to import is an ImportError.
RealNetworks writeRealNetworks(const std::filesystem::path& modelFolder, const std::filesystem::path& networksFolder,
                               const std::vector<NetworkSource>& sources, const std::vector<std::string>& with);

// Writes models/networks.json and models/NETWORKS.md for these records.
void writeNetworkIndex(const std::filesystem::path& modelFolder, const std::vector<NetworkRecord>& records);

// The records of networks.json in a model folder by model id; empty when there is none or it
// cannot be read.
std::vector<NetworkRecord> readNetworkIndex(const std::filesystem::path& modelFolder);

}  // namespace qpkg::tfjs
