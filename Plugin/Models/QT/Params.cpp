#include "Plugin/Models/QT/Params.h"

#include <algorithm>

#include "ML/Exception.h"

namespace ML {

QT_ModelParams QT_ModelParams::read(const std::string& modelId, const nlohmann::json& params) {
    QT_ModelParams p;
    p.modelId = modelId;
    for (const nlohmann::json& shape : params.at("execShapes"))
        p.execShapes.emplace_back(shape.at(0).get<i32>(), shape.at(1).get<i32>());
    p.tMax = params.at("tMax").get<i32>();
    p.pMax = params.at("pMax").get<i32>();
    p.objsMax = params.at("objsMax").get<i32>();
    p.submodelsInfo = params.at("submodelsInfo");
    for (const auto& [name, member] : p.submodelsInfo.items()) p.submodelNames.push_back(name);
    return p;
}

bool QT_ModelParams::hasExecShape(i32 h, i32 w) const {
    return std::find(execShapes.begin(), execShapes.end(), std::make_pair(h, w)) != execShapes.end();
}

QT_SubmodelInfo QT_SubmodelInfo::read(const nlohmann::json& member) {
    QT_SubmodelInfo s;
    s.learned = member.at("learned").get<bool>();
    s.supportsDynamicShapes = member.at("model_supports_dynamic_shapes").get<bool>();
    if (s.supportsDynamicShapes) s.overrideDynamicShapes = member.at("override_dynamic_shapes").get<bool>();
    s.shapesDependOn = member.at("shapes_depend_on").get<std::vector<std::string>>();
    const auto any = [&](std::initializer_list<const char*> names) {
        return std::any_of(names.begin(), names.end(), [&](const char* n) {
            return std::find(s.shapesDependOn.begin(), s.shapesDependOn.end(), n) != s.shapesDependOn.end();
        });
    };
    s.dependsOnOutH = any({"h_out", "o_h_out_w_out"});
    s.dependsOnOutW = any({"w_out", "o_h_out_w_out"});
    s.dependsOnH = any({"h", "h4", "h8", "h16", "th16w16"});
    s.dependsOnW = any({"w", "w4", "w8", "w16", "th16w16"});
    s.dependsOnO = any({"o", "o_h_out_w_out"});
    return s;
}

namespace QT {

const std::vector<std::string>& requiredSubmodels() {
    static const std::vector<std::string> names{"get_pos_enc",  "qe",           "me",          "mo",
                                                "get_mask_others", "get_readout", "f",          "ot",
                                                "md",           "get_masks",    "get_masks_aa", "rle_encoder",
                                                "rle_decoder",  "mask_colorizer"};
    return names;
}

i64 dimensionValue(const std::string& name, const QT_StateHeader& header, i32 outH, i32 outW) {
    if (name == "h_out") return outH;
    if (name == "w_out") return outW;
    if (name == "h") return header.h;
    if (name == "h4") return header.h / 4;
    if (name == "h8") return header.h / 8;
    if (name == "h16") return header.h / 16;
    if (name == "w") return header.w;
    if (name == "w4") return header.w / 4;
    if (name == "w8") return header.w / 8;
    if (name == "w16") return header.w / 16;
    if (name == "o") return header.o;
    if (name == "t") return header.t;
    if (name == "th16w16") return static_cast<i64>(header.h / 16) * (header.w / 16) * header.t;
    if (name == "o_h_out_w_out") return static_cast<i64>(header.o) * outH * outW;
    ML_THROW("internal error ! unrecognized dim name: " + name);
}

SubmodelLoad submodelLoad(const std::string& name, const QT_SubmodelInfo& info, const std::string& modelId,
                          const QT_StateHeader& header, i32 outH, i32 outW) {
    SubmodelLoad load;
    load.file = "qt/" + (info.learned ? modelId : std::string("qt")) + "_" + name;
    std::string dims;
    const auto add = [&](bool flag, i64 value) {
        if (!flag) return;
        if (!dims.empty()) dims += "x";
        dims += std::to_string(value);
    };
    add(info.dependsOnOutH, outH);
    add(info.dependsOnOutW, outW);
    add(info.dependsOnH, header.h);
    add(info.dependsOnW, header.w);
    add(info.dependsOnO, header.o);
    load.cacheName = name;
    if (!info.supportsDynamicShapes) {
        load.file += "_" + dims;
        load.cacheName += "_" + dims;
    } else if (info.overrideDynamicShapes) {
        nlohmann::json overrides = nlohmann::json::object();
        for (const std::string& n : info.shapesDependOn) overrides[n] = dimensionValue(n, header, outH, outW);
        load.options = nlohmann::json{{"free_dim_overrides", overrides}}.dump();
        load.cacheName += "_" + dims;
    }
    return load;
}

}  // namespace QT

}  // namespace ML
