#pragma once
// A private installation of the plug-in for one test: a copy of Quillon.so in its own folder
// with the backends the test chooses beside it, and a configuration folder of its own. Each copy
// is loaded separately, so it has fresh process-wide state (logger level, context).
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Host/PluginLibrary.h"

namespace fs = std::filesystem;

class PluginInstall {
public:
    PluginInstall() : root(fs::temp_directory_path() / ("quillon-install-" + std::to_string(std::random_device{}()))) {
        fs::create_directories(root / "lib");
        fs::create_directories(root / "config");
        fs::copy_file(binDir / "Quillon.so", root / "lib" / "Quillon.so");
    }
    ~PluginInstall() {
        library.reset();
        std::error_code ec;
        fs::remove_all(root, ec);
    }

    // Copies a backend library in as MLBackend_<name>.so. "real" is our ONNX Runtime backend;
    // the others are the stand-ins built by the backend tests (good, zero_devices, ...).
    void addBackend(const std::string& name, const std::string& kind) {
        const fs::path target = root / "lib" / ("MLBackend_" + name + ".so");
        if (kind != "real") {
            fs::copy_file(binDir.parent_path() / "tests" / "backend" / "fakes" / ("quillon_fake_backend_" + kind + ".so"),
                          target);
            return;
        }
        fs::copy_file(binDir / "MLBackend_ort_cpu.so", target);
        fs::copy_file(binDir / "libonnxruntime.so.1", root / "lib" / "libonnxruntime.so.1",
                      fs::copy_options::skip_existing);
    }
    // Configuration files: copies of the default package's, or written by the test.
    void copyDefaultConfigs() {
        for (const auto& entry : fs::directory_iterator(packageDir / "config"))
            fs::copy_file(entry.path(), configFolder() / entry.path().filename(), fs::copy_options::overwrite_existing);
    }
    void writeConfig(const std::string& fileName, const std::string& text) { std::ofstream(configFolder() / fileName) << text; }

    // Loads the copy (once). Until then backends and configs can be changed.
    QHost::PluginLibrary& plugin() {
        if (!library) library = std::make_unique<QHost::PluginLibrary>(root / "lib" / "Quillon.so");
        return *library;
    }
    QHost::Host& host() { return host_; }

    // Settings for a call on this installation: folders set, the given target (depth), model 0.
    std::shared_ptr<QHost::CallSettings> settings(int mode, int target = 9) {
        auto s = std::make_shared<QHost::CallSettings>(mode, target);
        s->setDataFolder(configFolder().string());
        s->setAuxFolder((packageDir / "models").string());
        s->setModelIndex(0);
        return s;
    }
    int run(const std::shared_ptr<QHost::CallSettings>& settings) { return plugin().run(host_, settings); }
    bool logged(const std::string& text) { return host_.logger().contains(text); }
    fs::path configFolder() const { return root / "config"; }

private:
    const fs::path binDir = QUILLON_BIN_DIR;
    const fs::path packageDir = QUILLON_TEST_PACKAGE_DIR;
    fs::path root;
    std::unique_ptr<QHost::PluginLibrary> library;
    QHost::Host host_;
};

// A depth render of an 8x8 grey image into a new image.
inline std::shared_ptr<QHost::CallSettings> depthRender(PluginInstall& install, int mode) {
    auto s = install.settings(mode);
    auto input = QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::RGB, ML::Image::HWC, ML::U8);
    std::fill(input->storage(), input->storage() + input->byteSize(), std::byte{128});
    s->setInputImage(0, input);
    s->setOutputImage(0, QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::R, ML::Image::HWC, ML::F32));
    return s;
}
