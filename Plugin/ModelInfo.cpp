#include "Plugin/ModelInfo.h"

#include "ML/Exception.h"

namespace ML {

namespace {

using nlohmann::json;

// The value under key, or null when the entry is no object or lacks the key, so that a missing
// key fails in get<>() with the same type error as a value of the wrong type.
const json& valueOrNull(const json& entry, const char* key) {
    static const json null;
    if (!entry.is_object()) return null;
    const auto it = entry.find(key);
    return it == entry.end() ? null : *it;
}

}  // namespace

ModelInfo::ModelInfo(const json& entry)
    : modelType(valueOrNull(entry, "modelType").get<std::string>()),
      modelId(valueOrNull(entry, "modelId").get<std::string>()),
      modelDisplayName(valueOrNull(entry, "modelDisplayName").get<std::string>()),
      modelDescription(valueOrNull(entry, "modelDescription").get<std::string>()) {
    if (entry.is_object() && entry.contains("inGamma")) inGamma = entry["inGamma"].get<float>();
    if (entry.is_object() && entry.contains("params")) params = entry["params"];
    if (params.is_object() && params.contains("availableTileSizes")) {
        for (const json& size : params["availableTileSizes"]) {
            TileSize tile;
            tile.execH = valueOrNull(size, "execH").get<i32>();
            tile.execW = valueOrNull(size, "execW").get<i32>();
            availableTileSizes.push_back(tile);
        }
    }
}

const TileSize& ModelInfo::getOnlyTileSize() const {
    if (availableTileSizes.empty()) ML_THROW("No tile size found for model!");
    if (availableTileSizes.size() > 1) ML_THROW("Model only supports one tile size!");
    return availableTileSizes.front();
}

}  // namespace ML
