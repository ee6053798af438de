// A target configuration file as the plug-in reads it (PluginContext::readTargetConfig): JSON
// text, then one ModelInfo per element of "availableModels", then the tile size queries.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ML/Exception.h"
#include "Plugin/ModelInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using nlohmann::json;
    json config;
    try {
        config = json::parse(std::string(reinterpret_cast<const char*>(data), size));
    } catch (const json::exception&) {
        return 0;  // logged; the target is unavailable
    }
    // A bad entry ends the plug-in's set-up; mlMain reports the JSON library's or our own error.
    std::vector<ML::ModelInfo> models;
    try {
        for (const json& entry : config.at("availableModels")) models.emplace_back(entry);
    } catch (const json::exception&) {
        return 0;
    } catch (const ML::Exception&) {
        return 0;
    }
    // Parameters 104 and 105 ask each model for its one tile size.
    for (const ML::ModelInfo& model : models) {
        try {
            model.getOnlyTileSize();
        } catch (const ML::Exception&) {  // answered with -1
        }
    }
    return 0;
}
