#include "Configs.h"

#include <nlohmann/json.hpp>

#include "FlowStandIns.h"
#include "PackageFiles.h"
#include "PlateDetector.h"
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

// An upscaler running imported ESRGAN networks "<id>_2x" and "<id>_4x": input tiles of 128,
// overlap 8 input pixels (in output pixels, a multiple of each scale).
TargetConfig esrganUpscaler(const std::string& id, const std::string& name, const std::string& source) {
    TargetConfig c;
    c.target = 2;
    c.file = "upres_config.json";
    c.modelType = "plksr";
    c.modelId = id;
    c.displayName = name;
    c.description = "Trained super-resolution network from " + source +
                    " at x2 and x4; other factors resampled from the next larger scale.";
    c.execH = c.execW = 128;
    c.params["scales"] = nlohmann::json::array({{{"scale", 2}, {"tile_size", 128}, {"padding", 16}},
                                                {{"scale", 4}, {"tile_size", 128}, {"padding", 32}}});
    return c;
}

// The interpolating stand-in upscaler ("upres_standin_2x", "_4x"), tiled like the trained ones.
TargetConfig upresStandIn() {
    TargetConfig c = esrganUpscaler(kUpresStandInId, "Upscaling stand-in (bicubic x2, x4)", "");
    c.description = "Bicubic interpolation at x2 and x4 as a stand-in network; other factors resampled from the "
                    "next larger scale.";
    return c;
}

// A same-size enhancement network of the upscaling target, tiles of 256.
TargetConfig enhancer(const std::string& id, const std::string& name, const std::string& description) {
    TargetConfig c;
    c.target = 2;
    c.file = "upres_config.json";
    c.modelType = "esrgan";
    c.modelId = id;
    c.displayName = name;
    c.description = description;
    c.execH = c.execW = 256;
    return c;
}

// Classical optical flow, tiles of kFlowTileH x kFlowTileW.
TargetConfig flowStandIn() {
    TargetConfig c;
    c.target = 3;
    c.file = "optical_flow_config.json";
    c.modelType = "raft";
    c.modelId = kFlowStandInId;
    c.displayName = "Optical flow stand-in (classical pyramidal Lucas-Kanade)";
    c.description = "Classical stand-in network, no trained weights: coarse-to-fine Lucas-Kanade on luminance over "
                    "five pyramid levels, warping by the current flow at each step, the flow median-filtered at each level.";
    c.execH = static_cast<int>(kFlowTileH);
    c.execW = static_cast<int>(kFlowTileW);
    c.params["archId"] = "pyramidal_lk";
    return c;
}

// Flow-based frame interpolation on square tiles; the host's flow pass uses the flow stand-in.
TargetConfig retimeStandIn() {
    TargetConfig c;
    c.target = 5;
    c.file = "retiming_config.json";
    c.modelType = "rife";
    c.modelId = kRetimeStandInId;
    c.displayName = "Retiming stand-in (classical flow interpolation)";
    c.description = "Classical stand-in network, no trained weights: flow both ways by pyramidal Lucas-Kanade, both "
                    "frames warped towards the in-between time and blended, weighted by forward-backward "
                    "consistency so that occluded pixels come from the frame that shows them.";
    c.execH = c.execW = static_cast<int>(kRetimeTile);
    c.params["flowEst"] = {{"execH", kFlowTileH}, {"execW", kFlowTileW}, {"modelId", kFlowStandInId},
                           {"maxModelId", kFlowMaxId}};
    return c;
}

// The classical plate detector: bright plate-shaped rectangles on execution tiles of
// kPlateInputH x kPlateInputW.
TargetConfig plateStandIn() {
    TargetConfig c;
    c.target = 8;
    c.file = "lp_detection_config.json";
    c.modelType = "y7";
    c.modelId = kPlateStandInId;
    c.displayName = "Licence plate stand-in (classical, synthetic plates)";
    c.description = "Classical stand-in network, no trained weights: finds bright, plate-shaped rectangles "
                    "(near-white, 1.5 to 8 times as wide as tall, mostly filled) on darker backgrounds, as the "
                    "synthetic plates of tests and demonstrations; not a detector of real plates.";
    c.execH = static_cast<int>(kPlateInputH);
    c.execW = static_cast<int>(kPlateInputW);
    c.params["object_type"] = "lp";
    return c;
}

}  // namespace

const std::vector<TargetConfig>& targetConfigs() {
    static const std::vector<TargetConfig> configs = [] {
        std::vector<TargetConfig> v{
            standIn(1, "denoiser_config.json", "fdvd", "denoiser"),
            esrganUpscaler("esrgan_medium", "ESRGAN medium (x2, x4)", "@upscalerjs/esrgan-medium"),
            esrganUpscaler("esrgan_thick", "ESRGAN thick (x2, x4)", "@upscalerjs/esrgan-thick"),
            enhancer("esrgan_medium_enhance", "ESRGAN medium enhance (x1)",
                     "Same-size detail enhancement: area downscale by 2, then the trained x2 network of "
                     "@upscalerjs/esrgan-medium."),
            upresStandIn(),
            enhancer(std::string(kUpresStandInId) + "_enhance", "Enhance stand-in (sharpen x1)",
                     "Same-size mild sharpen (a fixed 3x3 kernel) as a stand-in network."),
            flowStandIn(),
            standIn(4, "mask_propagation_config.json", "qt", "mask_propagation"),
            retimeStandIn(),
            standIn(6, "face_detection_config.json", "y7", "face_detection"),
            plateStandIn(),
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
            if (c.target == 1) {
                c.displayName = "Denoiser stand-in (temporal averaging)";
                c.description = "Classical stand-in network, no trained weights: a light blur, then each frame "
                                "averaged with its neighbours, weighted by how closely they match it (motion and "
                                "noise adaptive), in two stages over five frames.";
            }
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

std::string configText(const std::vector<TargetConfig>& models) {
    nlohmann::json list = nlohmann::json::array();
    for (const TargetConfig& c : models) {
        nlohmann::json params = c.params;
        params["availableTileSizes"] = nlohmann::json::array({{{"execH", c.execH}, {"execW", c.execW}}});
        nlohmann::json model = {
            {"modelType", c.modelType},       {"modelId", c.modelId}, {"modelDisplayName", c.displayName},
            {"modelDescription", c.description}, {"params", params},
        };
        if (c.inGamma > 0.0f) model["inGamma"] = c.inGamma;
        list.push_back(std::move(model));
    }
    const nlohmann::json file = {{"availableModels", list}};
    return file.dump(2) + "\n";
}

void writeConfigs(const std::filesystem::path& configFolder, bool encrypt) {
    makeFolder(configFolder);
    const std::vector<TargetConfig>& all = targetConfigs();
    for (size_t first = 0; first < all.size();) {
        size_t end = first + 1;
        while (end < all.size() && all[end].file == all[first].file) ++end;
        const std::string text = configText(std::vector<TargetConfig>(all.begin() + first, all.begin() + end));
        writeFileAtomic(configFolder / all[first].file, text);
        if (encrypt) writeEncryptedTwin(configFolder / all[first].file, text);
        first = end;
    }
}

}  // namespace qpkg
