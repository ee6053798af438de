#pragma once
// A private installation of the plug-in for one test: a copy of Quillon.so in its own folder
// with the backends the test chooses beside it, and a configuration folder of its own. Each copy
// is loaded separately, so it has fresh process-wide state (logger level, context).
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/PluginLibrary.h"

namespace fs = std::filesystem;

class PluginInstall {
public:
    PluginInstall();
    ~PluginInstall();

    // Copies a backend library in as MLBackend_<name>.so. "real" is our ONNX Runtime backend;
    // the others are the stand-ins built by the backend tests (good, zero_devices, ...).
    void addBackend(const std::string& name, const std::string& kind);
    // Configuration files: copies of the default package's, or written by the test.
    void copyDefaultConfigs();
    void writeConfig(const std::string& fileName, const std::string& text);

    // Loads the copy (once). Until then backends and configs can be changed.
    QHost::PluginLibrary& plugin();
    QHost::Host& host() { return host_; }

    // Settings for a call on this installation: folders set, depth target, model 0.
    std::shared_ptr<QHost::CallSettings> settings(int mode, int target = 9);
    int run(const std::shared_ptr<QHost::CallSettings>& settings);
    bool logged(const std::string& text) const;

    fs::path configFolder() const { return root / "config"; }

private:
    fs::path root;
    std::unique_ptr<QHost::PluginLibrary> library;
    QHost::Host host_;
};

// A depth render of an 8x8 grey image into new images; returns the call's settings.
std::shared_ptr<QHost::CallSettings> depthRender(PluginInstall& install, int mode);
