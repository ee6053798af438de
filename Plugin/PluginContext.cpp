#include "Plugin/PluginContext.h"

#include <nlohmann/json.hpp>

#include <stdexcept>

#include "Plugin/BackendCalls.h"
#include "Plugin/DLL.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/ModelContext.h"
#include "Plugin/ModelFamilies.h"
#include "Plugin/PlatformUtil.h"
#include "Plugin/PluginLogger.h"
#include "Plugin/PluginMain.h"
#include "Util/ML_FileUtil.h"

namespace ML {

const std::vector<std::string>& PluginContext::knownBackends() {
    static const std::vector<std::string> names{"ort_dml", "ort_cuda", "ort_cpu", "coreml"};
    return names;
}

const std::vector<std::pair<int, std::string>>& PluginContext::targetFiles() {
    static const std::vector<std::pair<int, std::string>> files{
        {1, "denoiser_config.json"},
        {2, "upres_config.json"},
        {3, "optical_flow_config.json"},
        {4, "mask_propagation_config.json"},
        {5, "retiming_config.json"},
        {6, "face_detection_config.json"},
        {8, "lp_detection_config.json"},
        {7, "interactive_segmentation_config.json"},
        {9, "depth_config.json"},
        {10, "matting_config.json"},
        {11, "pose_estimation_config.json"},
        {13, "point_tracking_config.json"},
        {14, "hdr_config.json"},
        {12, "photo_restoration_config.json"},
        {15, "3d_heads_config.json"},
        {16, "deinterlace_config.json"},
    };
    return files;
}

PluginContext::PluginContext(std::filesystem::path data, std::filesystem::path aux) {
    backends.max_load_factor(1.0f);
    modelsByTarget.max_load_factor(1.0f);
    loadedModels.max_load_factor(1.0f);
    dataFolder = std::move(data);
    auxFolder = std::move(aux);
    discoverBackends();
    for (const std::string& name : backendNames) logInfo("Backend available: " + name);
    logInfo("Loading available models");
    for (const auto& [target, fileName] : targetFiles()) readTargetConfig(target, fileName);
    registerModels();
}

PluginContext::~PluginContext() = default;

void PluginContext::discoverBackends() {
    const std::filesystem::path folder = pluginLibraryFolder();
    for (const std::string& name : knownBackends()) {
        try {
            const std::filesystem::path path = folder / backendLibraryFileName(name);
            if (!fileExists(path)) continue;
            DLL<Backend::ApiCall> dll(path);
            Backend::GetAvailableDevicesCall query(dll);
            if (query.devices.empty()) continue;
            BackendInfo info;
            info.devices = query.devices;
            info.defaultDevice = query.defaultDevice;
            info.label = query.label;
            info.detail = query.detail;
            backendNames.push_back(name);
            backends[name] = std::move(info);
        } catch (...) {
            // A backend that cannot be loaded or queried is simply not usable.
        }
    }
    if (backends.count("ort_cuda"))
        defaultBackendName = "ort_cuda";
    else if (backends.count("ort_dml"))
        defaultBackendName = "ort_dml";
    else
        defaultBackendName = "ort_cpu";
}

void PluginContext::readTargetConfig(int target, const std::string& fileName) {
    const std::filesystem::path path = dataFolder / fileName;
    std::string text;
    try {
        text = readFileOrEncrypted(path);
    } catch (...) {
        logInfo("Could not read target configuration file " + path.string() + " - target will be unavailable");
        return;
    }
    nlohmann::json config;
    try {
        config = nlohmann::json::parse(text);
    } catch (const std::exception& e) {
        logWarning("Failed to parse target configuration file " + path.string() + " . error: " + e.what() +
                   " - target will be unavailable");
        return;
    }
    // Entries are not guarded: a bad one ends the construction.
    std::vector<ModelInfo>& models = modelsByTarget[target];
    for (const nlohmann::json& entry : config.at("availableModels")) models.emplace_back(entry);
}

template <class T>
void PluginContext::registerModel(const std::string& type) {
    modelFactories[type] = [](std::shared_ptr<ModelContext> context,
                              std::shared_ptr<ModelCommon> common) -> std::unique_ptr<ModelBase> {
        return std::make_unique<T>(std::move(context), std::move(common));
    };
}

void PluginContext::registerModels() {
    registerModel<FastDVDNet_Context>("fdvd");
    registerModel<UnavailableModel>("bvsrpp");
    registerModel<UnavailableModel>("fdvd_aligned");
    registerModel<RAFT::Context>("raft");
    registerModel<UnavailableModel>("memfof");
    registerModel<QT_Context>("qt");
    registerModel<RIFE::Context>("rife");
    registerModel<YOLO7::Context>("y7");
    registerModel<SAM::Context>("sam");
    registerModel<DA2::Context>("da2");
    registerModel<UnavailableModel>("tgn");
    registerModel<PLKSR::Context>("plksr");
    registerModel<UnavailableModel>("nv_vsr");
    registerModel<UnavailableModel>("nv_hdr");
    registerModel<UnavailableModel>("rtmo");
    registerModel<RRDBNet::Context>("esrgan");
    registerModel<UnavailableModel>("cotracker");
    registerModel<UnavailableModel>("photo_restoration");
    registerModel<UnavailableModel>("3d_heads");
    registerModel<UnavailableModel>("de");
}

const std::vector<ModelInfo>& PluginContext::modelsOf(int target) const {
    static const std::vector<ModelInfo> none;
    auto found = modelsByTarget.find(target);
    return found == modelsByTarget.end() ? none : found->second;
}

size_t PluginContext::loadedModelCount() {
    std::lock_guard<std::mutex> lock(contextMutex);
    return loadedModels.size();
}

void PluginContext::render(Host* host, u64 call, bool prepareOnly) {
    const int modelIndex = host->getIntParam(call, 3, 0);
    const int target = host->getTarget(call);
    const std::vector<ModelInfo>& models = modelsOf(target);
    const int count = static_cast<int>(models.size());
    if (count == 0) ML_THROW("No available models for target. Model info likely not being loaded correctly!");
    if (modelIndex < 0 || modelIndex >= count) ML_THROW("Model idx out of range!");
    const ModelInfo& info = models[modelIndex];
    const std::string type = info.modelType;

    std::string backend = toStd(host->getBackendName(call));
    if (backend.empty()) backend = defaultBackendName;
    u32 device = host->getDeviceId(call);
    if (device == DEFAULT_DEVICE) {
        auto found = backends.find(backend);
        device = static_cast<u32>(found == backends.end() ? -1 : found->second.defaultDevice);
    }

    auto factory = modelFactories.find(type);
    if (factory == modelFactories.end()) ML_THROW("unknown model type: " + type);

    std::shared_ptr<ModelBase> model;
    {
        std::lock_guard<std::mutex> lock(contextMutex);
        if (modelContext && (modelContext->getBackendName() != backend || modelContext->getDeviceId() != device)) {
            loadedModels.clear();
            modelCommon.reset();
            modelContext.reset();
        }
        if (!modelContext) modelContext = std::make_shared<ModelContext>(backend, device, dataFolder, auxFolder);
        if (!modelCommon) modelCommon = std::make_shared<ModelCommon>(modelContext);
        auto loaded = loadedModels.find(type);
        if (loaded == loadedModels.end())
            loaded = loadedModels.emplace(type, factory->second(modelContext, modelCommon)).first;
        model = loaded->second;
    }
    if (host->isCancelled(call)) ML_THROW_CANCEL();
    model->render(host, call, prepareOnly, info, target);
}

void PluginContext::unload(Host* host, u64 call) {
    const int target = host->getTarget(call);
    if (target == -1) {
        logWarning("Returned target -1. Unloading all models for all targets!");
        std::lock_guard<std::mutex> lock(contextMutex);
        loadedModels.clear();
        return;
    }
    const std::vector<ModelInfo>& models = modelsOf(target);
    const int count = static_cast<int>(models.size());
    if (count == 0) ML_THROW("No available models for target. Model info likely not being loaded correctly!");
    const int modelIndex = host->getIntParam(call, 3, 0);
    int first = modelIndex;
    int last = modelIndex;
    if (modelIndex == -1) {
        logWarning("Returned model idx -1. Unloading all models for target!");
        first = 0;
        last = count - 1;
    } else if (modelIndex < 0 || modelIndex >= count) {
        ML_THROW("Model idx out of range: " + std::to_string(modelIndex));
    }
    std::lock_guard<std::mutex> lock(contextMutex);
    for (int index = first; index <= last; ++index) {
        const std::string& type = models[index].modelType;
        auto loaded = loadedModels.find(type);
        if (loaded != loadedModels.end()) {
            logWarning("Unloading model: " + type);
            loadedModels.erase(loaded);
        }
    }
}

// ---- Query functions, called by the host outside mlMain -------------------------------------

namespace {
PluginContext* context() { return g_pluginContext; }
}  // namespace

int PluginContext::getNumBackends() { return context() ? static_cast<int>(context()->backends.size()) : 0; }

Ptr<StringT<char>> PluginContext::getBackendName(int i) { return makeString(context()->backendNames.at(i)); }

Ptr<StringT<char>> PluginContext::getBackendDetail(int i) {
    return makeString(context()->backends.at(context()->backendNames.at(i)).detail);
}

Ptr<StringT<char>> PluginContext::getBackendLabel(int i) {
    return makeString(context()->backends.at(context()->backendNames.at(i)).label);
}

int PluginContext::getNumDevices(int i) {
    return static_cast<int>(context()->backends.at(context()->backendNames.at(i)).devices.size());
}

Ptr<StringT<char>> PluginContext::getDeviceName(int i, int d) {
    return makeString(context()->backends.at(context()->backendNames.at(i)).devices.at(d));
}

int PluginContext::getDefaultBackendIndex() {
    if (!context()) return -1;
    const auto& names = context()->backendNames;
    for (size_t i = 0; i < names.size(); ++i)
        if (names[i] == context()->defaultBackendName) return static_cast<int>(i);
    return -1;
}

int PluginContext::getDefaultDeviceIndex(int i) {
    if (!context() || i < 0 || i >= static_cast<int>(context()->backendNames.size())) return -1;
    auto found = context()->backends.find(context()->backendNames[i]);
    return found == context()->backends.end() ? -1 : found->second.defaultDevice;
}

int PluginContext::getIntPluginParam(int target, int paramId, int modelIndex) {
    static const std::vector<ModelInfo> none;
    const std::vector<ModelInfo>& models = context() ? context()->modelsOf(target) : none;
    switch (paramId) {
        case 100: return static_cast<int>(models.size());
        case 104:
        case 105: {
            if (modelIndex < 0 || modelIndex >= static_cast<int>(models.size())) return -1;
            try {
                const TileSize& size = models[modelIndex].getOnlyTileSize();
                return paramId == 104 ? size.execW : size.execH;
            } catch (const Exception&) {
                return -1;
            }
        }
        default: throw std::runtime_error("unknown int plugin param: " + std::to_string(paramId));
    }
}

Ptr<StringT<char>> PluginContext::getStringPluginParam(int target, int paramId, int modelIndex) {
    static const std::vector<ModelInfo> none;
    const std::vector<ModelInfo>& models = context() ? context()->modelsOf(target) : none;
    const bool inRange = modelIndex >= 0 && modelIndex < static_cast<int>(models.size());
    switch (paramId) {
        case 101: return makeString(inRange ? models[modelIndex].modelDisplayName : "");
        case 102: return makeString(inRange ? models[modelIndex].modelId : "");
        case 103: return makeString(inRange ? models[modelIndex].modelDescription : "");
        default: throw std::runtime_error("unknown string plugin param: " + std::to_string(paramId));
    }
}

}  // namespace ML
