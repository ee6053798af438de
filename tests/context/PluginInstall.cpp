#include "PluginInstall.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "Host/OwnedImage.h"

namespace {
const fs::path binDir = QUILLON_BIN_DIR;
const fs::path packageDir = QUILLON_TEST_PACKAGE_DIR;
const fs::path fakeDir = fs::path(QUILLON_BIN_DIR).parent_path() / "tests" / "backend" / "fakes";
}  // namespace

PluginInstall::PluginInstall() {
    std::random_device random;
    root = fs::temp_directory_path() / ("quillon-install-" + std::to_string(random()));
    fs::create_directories(root / "lib");
    fs::create_directories(root / "config");
    fs::copy_file(binDir / "Quillon.so", root / "lib" / "Quillon.so");
}

PluginInstall::~PluginInstall() {
    library.reset();
    std::error_code ec;
    fs::remove_all(root, ec);
}

void PluginInstall::addBackend(const std::string& name, const std::string& kind) {
    const fs::path target = root / "lib" / ("MLBackend_" + name + ".so");
    if (kind == "real") {
        fs::copy_file(binDir / "MLBackend_ort_cpu.so", target);
        if (!fs::exists(root / "lib" / "libonnxruntime.so.1"))
            fs::copy_file(binDir / "libonnxruntime.so.1", root / "lib" / "libonnxruntime.so.1");
    } else {
        fs::copy_file(fakeDir / ("quillon_fake_backend_" + kind + ".so"), target);
    }
}

void PluginInstall::copyDefaultConfigs() {
    for (const auto& entry : fs::directory_iterator(packageDir / "config"))
        fs::copy_file(entry.path(), root / "config" / entry.path().filename(), fs::copy_options::overwrite_existing);
}

void PluginInstall::writeConfig(const std::string& fileName, const std::string& text) {
    std::ofstream(root / "config" / fileName) << text;
}

QHost::PluginLibrary& PluginInstall::plugin() {
    if (!library) library = std::make_unique<QHost::PluginLibrary>(root / "lib" / "Quillon.so");
    return *library;
}

std::shared_ptr<QHost::CallSettings> PluginInstall::settings(int mode, int target) {
    auto s = std::make_shared<QHost::CallSettings>(mode, target);
    s->setDataFolder((root / "config").string());
    s->setAuxFolder((packageDir / "models").string());
    s->setModelIndex(0);
    return s;
}

int PluginInstall::run(const std::shared_ptr<QHost::CallSettings>& s) { return plugin().run(host_, s); }

bool PluginInstall::logged(const std::string& text) const {
    return const_cast<QHost::Host&>(host_).logger().contains(text);
}

std::shared_ptr<QHost::CallSettings> depthRender(PluginInstall& install, int mode) {
    using namespace ML;
    auto s = install.settings(mode);
    auto input = QHost::OwnedImage::make(Rect{0, 0, 8, 8}, Image::RGB, Image::HWC, U8);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x)
            for (int c = 0; c < 3; ++c) input->at<u8>(x, y, c) = 128;
    s->setInputImage(0, input);
    s->setOutputImage(0, QHost::OwnedImage::make(Rect{0, 0, 8, 8}, Image::R, Image::HWC, F32));
    return s;
}
