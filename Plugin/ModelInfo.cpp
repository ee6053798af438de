#include "Plugin/ModelInfo.h"

#include <utility>

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

// One extent of a tile size. A missing or non-numeric value is the JSON library's type error like
// any other; a number below 1 is no size, and one that i32 cannot hold is refused before the
// conversion (undefined for floating point, wrapping for integers).
i32 tileExtent(const json& size, const char* key, const std::string& modelId) {
    const json& value = valueOrNull(size, key);
    if (value.is_number()) {
        // Every integer too large rounds to a double beyond this exact bound.
        const double number = value.get<double>();
        if (!(number >= 1.0 && number < 2147483648.0))
            ML_THROW("Tile size " + std::string(key) + " of model " + modelId + " out of range: " + value.dump());
    }
    return value.get<i32>();
}

// Copying a JSON value recurses once per level of arrays and objects: params nested some ten
// thousand levels deep would overflow the stack. The depth is measured without recursion.
constexpr size_t kMaxParamsDepth = 64;

bool nestedDeeperThan(const json& value, size_t limit) {
    std::vector<std::pair<const json*, size_t>> pending{{&value, 1}};
    while (!pending.empty()) {
        const auto [item, depth] = pending.back();
        pending.pop_back();
        if (!item->is_structured()) continue;
        if (depth > limit) return true;
        for (const json& child : *item) pending.emplace_back(&child, depth + 1);
    }
    return false;
}

}  // namespace

ModelInfo::ModelInfo(const json& entry)
    : modelType(valueOrNull(entry, "modelType").get<std::string>()),
      modelId(valueOrNull(entry, "modelId").get<std::string>()),
      modelDisplayName(valueOrNull(entry, "modelDisplayName").get<std::string>()),
      modelDescription(valueOrNull(entry, "modelDescription").get<std::string>()) {
    if (entry.is_object() && entry.contains("inGamma")) inGamma = entry["inGamma"].get<float>();
    if (entry.is_object() && entry.contains("params")) {
        const json& given = entry["params"];
        if (nestedDeeperThan(given, kMaxParamsDepth))
            ML_THROW("Params of model " + modelId + " nested deeper than " + std::to_string(kMaxParamsDepth) +
                     " levels");
        params = given;
    }
    if (params.is_object() && params.contains("availableTileSizes")) {
        for (const json& size : params["availableTileSizes"]) {
            TileSize tile;
            tile.execH = tileExtent(size, "execH", modelId);
            tile.execW = tileExtent(size, "execW", modelId);
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
