#pragma once
// The one long-lived object of the plug-in: usable backends, the models of every target, and
// the live backend connection with its model objects.
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ML/Host.h"
#include "Plugin/ModelBase.h"
#include "Plugin/ModelInfo.h"

namespace ML {

class ModelContext;
class ModelCommon;

struct BackendInfo {
    std::vector<std::string> devices;
    i32 defaultDevice = -1;
    std::string label;
    std::string detail;
};

class PluginContext {
public:
    PluginContext(std::filesystem::path dataFolder, std::filesystem::path auxFolder);
    ~PluginContext();
    PluginContext(const PluginContext&) = delete;
    PluginContext& operator=(const PluginContext&) = delete;

    void render(Host* host, u64 call, bool prepareOnly);
    void unload(Host* host, u64 call);

    // Query functions handed to the host; they work on g_pluginContext.
    static int getNumBackends();
    static Ptr<StringT<char>> getBackendName(int backendIndex);
    static Ptr<StringT<char>> getBackendDetail(int backendIndex);
    static int getNumDevices(int backendIndex);
    static Ptr<StringT<char>> getDeviceName(int backendIndex, int deviceIndex);
    static Ptr<StringT<char>> getBackendLabel(int backendIndex);
    static int getDefaultBackendIndex();
    static int getDefaultDeviceIndex(int backendIndex);
    static int getIntPluginParam(int target, int paramId, int modelIndex);
    static Ptr<StringT<char>> getStringPluginParam(int target, int paramId, int modelIndex);

    // The backend names tried by discovery, in order.
    static const std::vector<std::string>& knownBackends();
    // Target numbers and their configuration files, in reading order.
    static const std::vector<std::pair<int, std::string>>& targetFiles();

    const std::vector<ModelInfo>& modelsOf(int target) const;
    const std::vector<std::string>& getBackendNames() const { return backendNames; }
    const std::string& getDefaultBackendName() const { return defaultBackendName; }
    size_t loadedModelCount();

private:
    void discoverBackends();
    void readTargetConfig(int target, const std::string& fileName);
    template <class T>
    void registerModel(const std::string& type);
    void registerModels();

    std::vector<std::string> backendNames;
    std::unordered_map<std::string, BackendInfo> backends;
    std::string defaultBackendName;
    std::filesystem::path dataFolder;
    std::filesystem::path auxFolder;
    std::unordered_map<int, std::vector<ModelInfo>> modelsByTarget;
    std::mutex contextMutex;
    std::shared_ptr<ModelContext> modelContext;
    std::shared_ptr<ModelCommon> modelCommon;
    // Shared, so that a render in flight keeps its model when another call drops the map.
    std::unordered_map<std::string, std::shared_ptr<ModelBase>> loadedModels;
    std::unordered_map<std::string, ModelFactory> modelFactories;
};

}  // namespace ML
