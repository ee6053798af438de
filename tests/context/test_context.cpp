// The plug-in's context through its entry points, each test on a private installation: result
// codes, the logger and its levels, initialisation and shutdown, backend discovery and choice,
// configuration files, model selection, unload and cancellation.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <regex>
#include <string>

#include "Host/CallSettings.h"
#include "Host/CollectingLogger.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Host/PluginLibrary.h"

namespace {

namespace fs = std::filesystem;
const fs::path binDir = QUILLON_BIN_DIR;
const fs::path packageDir = QUILLON_TEST_PACKAGE_DIR;
using Settings = std::shared_ptr<QHost::CallSettings>;

// Settings for a call with the given configuration folder: the package's models, model 0.
Settings callSettings(const fs::path& config, int mode, int target) {
    auto s = std::make_shared<QHost::CallSettings>(mode, target);
    s->setDataFolder(config.string());
    s->setAuxFolder((packageDir / "models").string());
    s->setModelIndex(0);
    return s;
}

// The settings with an 8x8 grey image to render depth of into a new image.
Settings withImages(Settings s) {
    auto input = QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::RGB, ML::Image::HWC, ML::U8);
    std::fill(input->storage(), input->storage() + input->byteSize(), std::byte{128});
    s->setInputImage(0, input);
    s->setOutputImage(0, QHost::OwnedImage::make(ML::Rect{0, 0, 8, 8}, ML::Image::R, ML::Image::HWC, ML::F32));
    return s;
}

// A private installation of the plug-in for one test: a copy of Quillon.so in its own folder
// with the backends the test chooses beside it, and a configuration folder of its own. Each copy
// is loaded separately, so it has fresh process-wide state (logger level, context).
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
    void writeConfig(const std::string& name, const std::string& text) { std::ofstream(configFolder() / name) << text; }

    // Loads the copy (once). Until then backends and configs can be changed.
    QHost::PluginLibrary& plugin() {
        if (!library) library = std::make_unique<QHost::PluginLibrary>(root / "lib" / "Quillon.so");
        return *library;
    }
    QHost::Host& host() { return host_; }
    Settings settings(int mode, int target = 9) { return callSettings(configFolder(), mode, target); }
    int run(const Settings& settings) { return plugin().run(host_, settings); }
    bool logged(const std::string& text) { return host_.logger().contains(text); }
    fs::path configFolder() const { return root / "config"; }

private:
    fs::path root;
    std::unique_ptr<QHost::PluginLibrary> library;
    QHost::Host host_;
};

Settings depthRender(PluginInstall& install, int mode) { return withImages(install.settings(mode)); }

// No host or no logger fails without a crash; a host that cancels while handing out the output
// gets result 1, and no error line.
TEST(EntryPoints, HostProblems) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    EXPECT_EQ(install.plugin().main(nullptr, 0), 4);
    install.host().setLogger(nullptr);
    EXPECT_EQ(install.run(install.settings(1)), 4);
    install.host().useOwnLogger();
    EXPECT_EQ(install.run(install.settings(1)), 0);
    auto s = depthRender(install, 4);
    s->failOperation(QHost::HostOperation::OUTPUT_IMAGE, 1, "");
    EXPECT_EQ(install.run(s), 1);
    EXPECT_TRUE(install.host().logger().linesWith("[Quillon] [E]").empty());
}

TEST(EntryPoints, UnknownModesAreRefusedAndStateKept) {
    PluginInstall install;
    install.copyDefaultConfigs();
    ASSERT_EQ(install.run(install.settings(1)), 0);
    for (int mode : {0, 6}) EXPECT_EQ(install.run(install.settings(mode)), 4) << mode;
    const auto& logger = install.host().logger();
    EXPECT_EQ(logger.linesWith("Unknown call mode provided by host").size(), 2u);
    // Error lines carry source, code and source location.
    EXPECT_EQ(logger.linesWith("[Quillon] [E] PLUGIN/INTERNAL: Plugin/PluginMain:").size(), 2u);
    const auto builds = logger.linesWith("Initializing.. Build ID: ");
    ASSERT_EQ(builds.size(), 1u);
    EXPECT_TRUE(std::regex_search(builds[0], std::regex(R"(\[Quillon\] \[I\] Initializing\.\. Build ID: \d{8}_\w+_\d+$)")))
        << builds[0];

    // Shutdown, twice; the next call builds a new context.
    EXPECT_EQ(install.plugin().shutdown(), 0);
    EXPECT_EQ(install.plugin().shutdown(), 0);
    ASSERT_EQ(install.run(install.settings(2)), 0);
    EXPECT_EQ(logger.linesWith("Initializing.. Build ID: ").size(), 2u);
}

TEST(EntryPoints, LoggerLevelIsReadOnceAndFiltersLines) {
    PluginInstall install;
    install.copyDefaultConfigs();
    QHost::CollectingLogger warningsOnly(1);
    install.host().setLogger(&warningsOnly);
    install.writeConfig("upres_config.json", "{");  // a warning line while the context is built
    ASSERT_EQ(install.run(install.settings(1)), 0);
    EXPECT_FALSE(warningsOnly.contains("[I]"));
    EXPECT_TRUE(warningsOnly.contains("[Quillon] [W] Failed to parse target configuration file"));

    // Mode 1 with another logger: lines go there, still at the level read at first.
    QHost::CollectingLogger verbose(3);
    install.host().setLogger(&verbose);
    ASSERT_EQ(install.run(install.settings(1)), 0);
    EXPECT_EQ(install.run(install.settings(7)), 4);
    EXPECT_TRUE(verbose.contains("[Quillon] [E]"));
    EXPECT_FALSE(warningsOnly.contains("[Quillon] [E]"));
    EXPECT_EQ(install.run(install.settings(5, -1)), 0);
    EXPECT_TRUE(verbose.contains("[Quillon] [W] Returned target -1"));
    install.host().useOwnLogger();
}

std::string text(const ML::Ptr<ML::StringT<char>>& s) { return ML::toStd(s); }

TEST(BackendChoice, DiscoveryAndDefault) {
    // Only DirectML becomes the default; CUDA wins over DirectML though discovered later; unusable
    // backends are left out.
    const struct {
        std::vector<std::pair<const char*, const char*>> backends;  // name, kind
        std::vector<std::string> listed;
        int defaultBackend;
    } cases[] = {
        {{}, {}, -1},
        {{{"ort_dml", "good"}}, {"ort_dml"}, 0},
        {{{"ort_dml", "good"}, {"ort_cuda", "good"}, {"coreml", "good"}}, {"ort_dml", "ort_cuda", "coreml"}, 1},
        {{{"ort_dml", "zero_devices"}, {"ort_cuda", "no_shutdown"}, {"coreml", "failing"}, {"ort_cpu", "real"}},
         {"ort_cpu"}, 0},
        {{{"ort_cuda", "no_default"}}, {"ort_cuda"}, 0},
    };
    for (const auto& c : cases) {
        PluginInstall install;
        install.copyDefaultConfigs();
        for (const auto& [name, kind] : c.backends) install.addBackend(name, kind);
        ASSERT_EQ(install.plugin().publishQueryTables(install.host(), install.settings(2)), 0);
        const ML::PluginQueryFunctions& q = *install.plugin().queryFunctions();
        std::vector<std::string> listed;
        for (int i = 0; i < q.getNumBackends(); ++i) listed.push_back(text(q.getBackendName(i)));
        EXPECT_EQ(listed, c.listed);
        EXPECT_EQ(q.getDefaultBackendIndex(), c.defaultBackend);
        for (const std::string& name : listed) EXPECT_TRUE(install.logged("[Quillon] [I] Backend available: " + name));
        if (listed == std::vector<std::string>{"ort_cpu"}) {
            EXPECT_EQ(q.getNumDevices(0), 1);
            EXPECT_EQ(q.getDefaultDeviceIndex(0), 0);
            EXPECT_FALSE(text(q.getDeviceName(0, 0)).empty());
            EXPECT_NE(text(q.getBackendLabel(0)).find("ONNX Runtime"), std::string::npos);
        }
        if (listed == std::vector<std::string>{"ort_cuda"}) {
            EXPECT_EQ(q.getDefaultDeviceIndex(0), -1);  // a backend without a default device
        }
        if (listed.empty()) {
            EXPECT_EQ(install.run(depthRender(install, 4)), 4);
            EXPECT_TRUE(install.logged("Could not load dynamic library"));
        }
    }
}

// Models stay loaded between renders on one backend; switching backends drops them.
TEST(BackendChoice, ModelsAreKeptPerBackend) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    install.addBackend("ort_dml", "good");
    const struct {
        const char* backend;
        int result;
        std::vector<bool> busyLoading;
    } renders[] = {
        {"ort_cpu", 0, {true, false}},
        {"ort_cpu", 0, {}},
        {"ort_dml", 3, {}},  // the stand-in cannot load networks, but the switch dropped every model
        {"ort_cpu", 0, {true, false}},
    };
    for (const auto& r : renders) {
        auto settings = depthRender(install, 4);
        settings->setBackend(r.backend);
        EXPECT_EQ(install.run(settings), r.result) << r.backend;
        if (r.result == 0) {
            EXPECT_EQ(settings->busyLoading(), r.busyLoading) << r.backend;
        }
    }
    EXPECT_TRUE(install.logged("Loading backend: ort_dml"));
}

const char* twoDepthModels = R"({"availableModels":[
 {"modelType":"da2","modelId":"depth_standin","modelDisplayName":"A","modelDescription":"first",
  "params":{"availableTileSizes":[{"execH":256,"execW":256}]}},
 {"modelType":"da2","modelId":"depth_standin","modelDisplayName":"B","modelDescription":"second",
  "params":{"availableTileSizes":[{"execH":256,"execW":256},{"execH":128,"execW":64}]}}]})";

class Targets : public ::testing::Test {
protected:
    void SetUp() override {
        install.copyDefaultConfigs();
        install.addBackend("ort_cpu", "real");
    }
    const ML::PluginParamFunctions& params() {
        EXPECT_EQ(install.plugin().publishQueryTables(install.host(), install.settings(2)), 0);
        return *install.plugin().paramFunctions();
    }
    PluginInstall install;
};

TEST_F(Targets, EveryTargetHasItsModelsAndQueries) {
    const auto& p = params();
    // Upscaling offers five models (two of them stand-ins), every other target one.
    for (int target = 1; target <= 16; ++target)
        EXPECT_EQ(p.getIntPluginParam(target, 100, 0), target == 2 ? 5 : 1) << target;
    // target, query, model index, answer
    for (const auto& [target, query, index, answer] : {std::tuple{42, 100, 0, 0}, {9, 104, 0, 256}, {9, 105, 0, 256},
                                                       {9, 104, 5, -1}, {2, 104, 2, 256},
                                                       {2, 104, 3, 128}, {2, 104, 4, 256}, {2, 104, 5, -1}})
        EXPECT_EQ(p.getIntPluginParam(target, query, index), answer) << target << " " << query << " " << index;
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(9, 102, 0)), "depth_standin");
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(2, 102, 1)), "esrgan_thick");
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(2, 102, 3)), "upres_standin");
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(2, 102, 4)), "upres_standin_enhance");
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(9, 101, 7)), "");
    EXPECT_EQ(p.end, nullptr);
    try {
        p.getIntPluginParam(9, 99, 0);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "unknown int plugin param: 99");
    }
    EXPECT_THROW(p.getStringPluginParam(9, 100, 0), std::runtime_error);
}

TEST_F(Targets, MissingOrMalformedConfigMakesOnlyThatTargetUnavailable) {
    fs::remove(install.configFolder() / "depth_config.json");
    install.writeConfig("upres_config.json", "{ not json");
    const auto& p = params();
    EXPECT_EQ(p.getIntPluginParam(9, 100, 0), 0);
    EXPECT_EQ(p.getIntPluginParam(2, 100, 0), 0);
    EXPECT_EQ(p.getIntPluginParam(1, 100, 0), 1);
    for (const char* line : {"[Quillon] [I] Could not read target configuration file",
                             "depth_config.json - target will be unavailable", "parse error"})
        EXPECT_TRUE(install.logged(line)) << line;
    EXPECT_EQ(install.host().logger().linesWith("[Quillon] [W] Failed to parse target configuration file").size(), 1u);
    EXPECT_EQ(install.run(depthRender(install, 4)), 4);
    EXPECT_TRUE(install.logged("No available models for target. Model info likely not being loaded correctly!"));
}

TEST_F(Targets, BadEntryFailsEveryCallUntilFixed) {
    install.writeConfig("depth_config.json", R"({"availableModels":[{"modelType":"da2","modelId":5,
        "modelDisplayName":"x","modelDescription":"y"}]})");
    EXPECT_EQ(install.run(install.settings(1)), 4);
    EXPECT_TRUE(install.logged("type must be string, but is number"));
    install.copyDefaultConfigs();
    EXPECT_EQ(install.run(install.settings(1)), 0) << "no context was kept, so the next call builds it again";
}

TEST_F(Targets, EncryptedTwinIsRead) {
    // Only an encrypted twin, written by the package tool with the plug-in's writer and key.
    const fs::path encrypted = install.configFolder().parent_path() / "enc";
    const std::string cmd = std::string(QUILLON_BIN_DIR) + "/quillon-pkg config " + encrypted.string() +
                            " --encrypt > /dev/null";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    fs::remove(install.configFolder() / "depth_config.json");
    fs::copy_file(encrypted / "depth_config.bin", install.configFolder() / "depth_config.bin");
    EXPECT_EQ(params().getIntPluginParam(9, 100, 0), 1);
}

TEST_F(Targets, ModelIndexTypeAndFamilyErrors) {
    auto s = depthRender(install, 4);
    s->setModelIndex(1);
    EXPECT_EQ(install.run(s), 4);
    EXPECT_TRUE(install.logged("Model idx out of range!"));
    EXPECT_EQ(install.run(install.settings(4, 10)), 4);
    EXPECT_TRUE(install.logged("Model type \"tgn\" of target 10 is not available in this build"));
    PluginInstall fresh;
    fresh.copyDefaultConfigs();
    fresh.writeConfig("matting_config.json", R"({"availableModels":[{"modelType":"nonesuch","modelId":"m",
        "modelDisplayName":"x","modelDescription":"y"}]})");
    fresh.addBackend("ort_cpu", "real");
    EXPECT_EQ(fresh.run(depthRender(fresh, 4)), 0);
    EXPECT_EQ(fresh.run(fresh.settings(4, 10)), 4);
    EXPECT_TRUE(fresh.logged("unknown model type: nonesuch"));
}

TEST_F(Targets, CancelledBeforeRenderAsksNothingAndLogsNoError) {
    auto s = depthRender(install, 4);
    s->cancel();
    EXPECT_EQ(install.run(s), 1);
    EXPECT_TRUE(s->inputImageRequests().empty());
    EXPECT_TRUE(install.host().logger().linesWith("[Quillon] [E]").empty());
}

TEST_F(Targets, TwoModelsOfOneTypeAndTheFormsOfUnload) {
    install.writeConfig("depth_config.json", twoDepthModels);
    auto unload = install.settings(5);
    EXPECT_EQ(install.run(unload), 0);  // the first call may be an unload
    const auto& p = params();
    EXPECT_EQ(p.getIntPluginParam(9, 100, 0), 2);
    EXPECT_EQ(p.getIntPluginParam(9, 104, 1), -1);  // two tile sizes give no single size
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(9, 103, 1)), "second");
    ASSERT_EQ(install.run(depthRender(install, 4)), 0);

    // One index of a shared type removes the object that both entries use.
    unload->setModelIndex(1);
    EXPECT_EQ(install.run(unload), 0);
    EXPECT_TRUE(install.logged("[Quillon] [W] Unloading model: da2"));
    auto render = depthRender(install, 4);
    ASSERT_EQ(install.run(render), 0);
    EXPECT_EQ(render->busyLoading(), (std::vector<bool>{true, false}));
    const struct {
        int target, index, result;
        const char* logged;
    } forms[] = {
        {9, -1, 0, "Returned model idx -1. Unloading all models for target!"},
        {9, 2, 4, "Model idx out of range: 2"},
        {-1, 0, 0, "Returned target -1. Unloading all models for all targets!"},
        {42, 0, 4, "[Quillon] [E]"},
    };
    for (const auto& f : forms) {
        auto s = install.settings(5, f.target);
        s->setModelIndex(f.index);
        EXPECT_EQ(install.run(s), f.result) << f.target << " " << f.index;
        EXPECT_TRUE(install.logged(f.logged)) << f.logged;
    }
}

// Loads the plug-in, renders depth of a small image, then leaves without mlShutdown.
[[noreturn]] void renderAndLeave(bool unload) {
    void* library = dlopen((binDir / "Quillon.so").c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) std::_Exit(10);
    auto mainEntry = reinterpret_cast<ML::MainFunction>(dlsym(library, "mlMain"));
    if (!mainEntry) std::_Exit(11);
    QHost::Host host;
    host.logger().setLogLevel(3);  // verbose: the backend logs its loads through the plug-in's logger
    if (host.run(mainEntry, withImages(callSettings(packageDir / "config", 4, 9))) != 0) std::_Exit(12);
    if (unload && dlclose(library) != 0) std::_Exit(13);
    std::exit(0);
}

// A host that never calls mlShutdown: unloading the library, or ending the process, with a
// rendered context still held must end cleanly (no crash, no use of freed loggers, and under
// AddressSanitizer no leak report: the exit code stays 0).
TEST(TeardownWithoutShutdown, UnloadOrExitEndsCleanly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (bool unload : {true, false}) {
        SCOPED_TRACE(unload ? "dlclose, then exit" : "exit with the library loaded");
        EXPECT_EXIT(renderAndLeave(unload), ::testing::ExitedWithCode(0), "");
    }
}

}  // namespace
