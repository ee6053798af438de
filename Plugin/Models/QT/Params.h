#pragma once
// What the model description of a mask propagation model says: execution shapes, memory limits
// and, per submodel, whether its file belongs to the model or to the family and how its shape is
// fixed; and from that, which file each submodel is loaded from and under which cache name.
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Plugin/Models/QT/State.h"

namespace ML {

struct QT_ModelParams {
    std::string modelId;
    std::vector<std::pair<i32, i32>> execShapes;  // height, width
    i32 tMax = 0, pMax = 0, objsMax = 0;
    std::vector<std::string> submodelNames;  // members of "submodelsInfo", in file order
    nlohmann::json submodelsInfo;            // the members themselves

    // Reads "params" of one entry of the model description (the JSON library's exceptions for
    // missing or mistyped keys).
    static QT_ModelParams read(const std::string& modelId, const nlohmann::json& params);
    bool hasExecShape(i32 h, i32 w) const;
};

struct QT_SubmodelInfo {
    bool learned = false;
    bool supportsDynamicShapes = false;
    bool overrideDynamicShapes = false;
    std::vector<std::string> shapesDependOn;
    bool dependsOnOutH = false, dependsOnOutW = false, dependsOnH = false, dependsOnW = false, dependsOnO = false;

    static QT_SubmodelInfo read(const nlohmann::json& member);
};

namespace QT {

// The names of every submodel a model must list.
const std::vector<std::string>& requiredSubmodels();

// Value of a dimension name for this header and output size; "internal error ! unrecognized dim
// name: " for an unknown name.
i64 dimensionValue(const std::string& name, const QT_StateHeader& header, i32 outH, i32 outW);

struct SubmodelLoad {
    std::string file;       // relative to the model folder, without extension
    std::string cacheName;  // key among loaded networks
    std::string options;    // JSON load options, empty for none
};
SubmodelLoad submodelLoad(const std::string& name, const QT_SubmodelInfo& info, const std::string& modelId,
                          const QT_StateHeader& header, i32 outH, i32 outW);

}  // namespace QT

}  // namespace ML
