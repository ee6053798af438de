#pragma once
// The sixteen target configuration files: JSON objects with one model under "availableModels".
#include <filesystem>
#include <string>
#include <vector>

namespace qpkg {

// One target and the model its file offers.
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
};

// All targets, in the order the plug-in reads their files.
const std::vector<TargetConfig>& targetConfigs();

// The file's text: {"availableModels": [{...}]}, indented, keys sorted, ending in a line feed.
std::string configText(const TargetConfig& config);

// Writes every configuration file into the folder; with encrypt also its encrypted twin.
void writeConfigs(const std::filesystem::path& configFolder, bool encrypt);

}  // namespace qpkg
