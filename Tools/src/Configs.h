#pragma once
// The sixteen target configuration files: JSON objects with the target's models under
// "availableModels".
#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qpkg {

// One model that a target's file offers.
struct TargetConfig {
    int target = 0;
    std::string file;  // "depth_config.json"
    std::string modelType;
    std::string modelId;
    std::string displayName;
    std::string description;
    int execH = 0;  // the model's single tile size
    int execW = 0;
    float inGamma = -1.0f;  // written only when positive
    nlohmann::json params = nlohmann::json::object();  // family-specific entries beside the tile sizes
};

// The models of all targets, in the order the plug-in reads their files; models of one file are
// adjacent, in the order the file lists them.
const std::vector<TargetConfig>& targetConfigs();

// A file's text: {"availableModels": [{...}, ...]}, indented, keys sorted, ending in a line feed.
std::string configText(const std::vector<TargetConfig>& models);

// Writes every configuration file into the folder; with encrypt also its encrypted twin.
void writeConfigs(const std::filesystem::path& configFolder, bool encrypt);

}  // namespace qpkg
