#pragma once
// Shared pieces of the backend tests: a private model folder with the tiny networks, a logger
// that keeps lines, and F16 helpers.
#include <gtest/gtest.h>
#include <unistd.h>

#include <Imath/half.h>

#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "OnnxBuilder.h"
#include "Plugin/ModelContext.h"
#include "Plugin/PluginLogger.h"

namespace BackendTest {

// Collects every line at verbose level.
class KeepingLogger : public ML::Logger {
public:
    ML::i32 getLogLevel() override { return 3; }
    void log(ML::Ptr<ML::StringT<char>> text) override {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(ML::toStd(text));
    }
    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return lines;
    }

private:
    std::mutex mutex;
    std::vector<std::string> lines;
};

// A fresh model folder per test (tests run as parallel processes) with:
//   add_one.onnx, nets/add_two.onnx: the cast-add network with addends 1 and 2
//   sum.onnx: two F32 [1,4] inputs added
class ModelFolder {
public:
    explicit ModelFolder(const std::string& leaf = "models") {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        root = std::filesystem::temp_directory_path() /
               ("quillon_backend_" + std::to_string(::getpid()) + "_" + info->test_suite_name() + "_" + info->name());
        std::filesystem::remove_all(root);
        path = root / leaf;
        TestNetworks::writeCastAddNetwork(path / "add_one.onnx", 1.0f);
        TestNetworks::writeCastAddNetwork(path / "nets" / "add_two.onnx", 2.0f);
        TestNetworks::writeSumNetwork(path / "sum.onnx");
    }
    ~ModelFolder() {
        std::error_code ec;
        std::filesystem::remove_all(root, ec);
    }
    std::filesystem::path root;
    std::filesystem::path path;
};

// The plug-in's loggers pointed at a KeepingLogger for the life of the object.
class LoggerScope {
public:
    LoggerScope() : plugin(3) {
        ML::g_hostLogger = &keeper;
        ML::g_pluginLogger = &plugin;
    }
    ~LoggerScope() {
        ML::g_pluginLogger = nullptr;
        ML::g_hostLogger = nullptr;
    }
    KeepingLogger keeper;
    ML::PluginLogger plugin;
};

inline std::shared_ptr<ML::ModelContext> openCpuBackend(const std::filesystem::path& dataFolder,
                                                        const std::filesystem::path& auxFolder = {}) {
    return std::make_shared<ML::ModelContext>("ort_cpu", 0, dataFolder, auxFolder);
}

inline std::vector<Imath::half> halves(const std::vector<float>& values) {
    return std::vector<Imath::half>(values.begin(), values.end());
}

inline std::vector<float> floats(const std::vector<Imath::half>& values) {
    return std::vector<float>(values.begin(), values.end());
}

// Runs a cast-add network on [1,3,h,w] and gives the output as floats.
inline std::vector<float> runCastAdd(ML::ModelContext& context, ML::BackendModel& model, const std::vector<float>& in,
                                     ML::u64 h, ML::u64 w) {
    auto x = context.createTensor({1, 3, h, w}, ML::F16);
    auto y = context.createTensor({1, 3, h, w}, ML::F16);
    std::vector<Imath::half> source = halves(in);
    x->upload(source.data());
    model.run({x}, {y});
    std::vector<Imath::half> result(in.size());
    y->download(result.data());
    return floats(result);
}

}  // namespace BackendTest
