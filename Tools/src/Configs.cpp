#include "Configs.h"

#include <nlohmann/json.hpp>

#include "PackageFiles.h"
#include "StandIns.h"

namespace qpkg {

namespace {

TargetConfig standIn(int target, const char* file, const char* modelType, const char* family) {
    TargetConfig c;
    c.target = target;
    c.file = file;
    c.modelType = modelType;
    c.modelId = std::string(family) + "_standin";
    c.displayName = std::string("Stand-in (") + modelType + ")";
    c.description = "Stand-in model of the default package, for tests and demonstrations.";
    c.execH = 256;
    c.execW = 256;
    return c;
}

}  // namespace

const std::vector<TargetConfig>& targetConfigs() {
    static const std::vector<TargetConfig> configs = [] {
        std::vector<TargetConfig> v{
            standIn(1, "denoiser_config.json", "fdvd", "denoiser"),
            standIn(2, "upres_config.json", "plksr", "upres"),
            standIn(3, "optical_flow_config.json", "raft", "optical_flow"),
            standIn(4, "mask_propagation_config.json", "qt", "mask_propagation"),
            standIn(5, "retiming_config.json", "rife", "retiming"),
            standIn(6, "face_detection_config.json", "y7", "face_detection"),
            standIn(8, "lp_detection_config.json", "y7", "lp_detection"),
            standIn(7, "interactive_segmentation_config.json", "sam", "interactive_segmentation"),
            standIn(9, "depth_config.json", "da2", "depth"),
            standIn(10, "matting_config.json", "tgn", "matting"),
            standIn(11, "pose_estimation_config.json", "rtmo", "pose_estimation"),
            standIn(13, "point_tracking_config.json", "cotracker", "point_tracking"),
            standIn(14, "hdr_config.json", "nv_hdr", "hdr"),
            standIn(12, "photo_restoration_config.json", "photo_restoration", "photo_restoration"),
            standIn(15, "3d_heads_config.json", "3d_heads", "3d_heads"),
            standIn(16, "deinterlace_config.json", "de", "deinterlace"),
        };
        for (TargetConfig& c : v) {
            if (c.target != 9) continue;
            c.modelId = kDepthStandInId;
            c.displayName = "Depth stand-in";
            c.description = "Depth from luminance (1 - Rec. 709 luma) with a jet colour ramp; a stand-in network.";
            c.execH = kDepthStandInTile;
            c.execW = kDepthStandInTile;
        }
        return v;
    }();
    return configs;
}

std::string configText(const TargetConfig& c) {
    nlohmann::json model = {
        {"modelType", c.modelType},
        {"modelId", c.modelId},
        {"modelDisplayName", c.displayName},
        {"modelDescription", c.description},
        {"params", {{"availableTileSizes", nlohmann::json::array({{{"execH", c.execH}, {"execW", c.execW}}})}}},
    };
    if (c.inGamma > 0.0f) model["inGamma"] = c.inGamma;
    const nlohmann::json file = {{"availableModels", nlohmann::json::array({model})}};
    return file.dump(2) + "\n";
}

void writeConfigs(const std::filesystem::path& configFolder, bool encrypt) {
    makeFolder(configFolder);
    for (const TargetConfig& c : targetConfigs()) {
        const std::string text = configText(c);
        writeFileAtomic(configFolder / c.file, text);
        if (encrypt) writeEncryptedTwin(configFolder / c.file, text);
    }
}

}  // namespace qpkg
