#pragma once
// One entry of a target configuration file: a model the user can choose for the target.
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ML/Types.h"

namespace ML {

// Execution size of a network: height first, then width.
struct TileSize {
    i32 execH = 0;
    i32 execW = 0;
};

struct ModelInfo {
    std::string modelType;         // selects the model class
    std::string modelId;           // file name of the model and key of its loaded state
    std::string modelDisplayName;  // given to the host
    std::string modelDescription;  // given to the host
    float inGamma = -1.0f;         // -1: no gamma stated, input is taken as it is
    nlohmann::json params;         // family-specific settings, null when absent
    std::vector<TileSize> availableTileSizes;  // from params["availableTileSizes"], in file order

    ModelInfo() = default;
    // Parses one element of "availableModels". Missing or mistyped required keys raise the
    // JSON library's type error; a tile extent below 1 or beyond i32, or params nested deeper
    // than 64 levels of arrays and objects, PLUGIN/INTERNAL.
    explicit ModelInfo(const nlohmann::json& entry);

    // The one tile size of a fixed-size model; PLUGIN/INTERNAL when there is none or several.
    const TileSize& getOnlyTileSize() const;
};

}  // namespace ML
