#pragma once
// Shared pieces of the backend tests: a private model folder with the tiny networks, a logger
// that keeps lines, F16 helpers and the exception a call raises.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <memory>
#include <string>
#include <vector>

#include "OnnxBuilder.h"
#include "Plugin/ModelContext.h"
#include "Plugin/PluginLogger.h"
#include "util/TempDir.h"

namespace BackendTest {

// A fresh model folder with:
//   add_one.onnx, nets/add_two.onnx: the cast-add network with addends 1 and 2
//   sum.onnx: two F32 [1,4] inputs added
class ModelFolder {
public:
    explicit ModelFolder(const std::string& leaf = "models") : path(dir / leaf) {
        TestNetworks::writeCastAddNetwork(path / "add_one.onnx", 1.0f);
        TestNetworks::writeCastAddNetwork(path / "nets" / "add_two.onnx", 2.0f);
        TestNetworks::writeSumNetwork(path / "sum.onnx");
    }
    TempDir dir;
    std::filesystem::path path;
};

// Points the plug-in's loggers at one that keeps every line, for the life of the object.
class LoggerScope : public ML::Logger {
public:
    LoggerScope() : plugin(3) {
        ML::g_hostLogger = this;
        ML::g_pluginLogger = &plugin;
    }
    ~LoggerScope() override {
        ML::g_pluginLogger = nullptr;
        ML::g_hostLogger = nullptr;
    }
    ML::i32 getLogLevel() override { return 3; }
    void log(ML::Ptr<ML::StringT<char>> text) override { lines.push_back(ML::toStd(text)); }
    std::vector<std::string> lines;  // the tests log from one thread
    ML::PluginLogger plugin;
};

inline std::shared_ptr<ML::ModelContext> openCpuBackend(const std::filesystem::path& dataFolder,
                                                        const std::filesystem::path& auxFolder = {}) {
    return std::make_shared<ML::ModelContext>("ort_cpu", 0, dataFolder, auxFolder);
}

inline std::vector<Imath::half> halves(const std::vector<float>& values) {
    return std::vector<Imath::half>(values.begin(), values.end());
}

// Runs a cast-add network on [1,3,h,w] and gives the output as floats.
inline std::vector<float> runCastAdd(ML::ModelContext& context, ML::BackendModel& model, const std::vector<float>& in,
                                     ML::u64 h, ML::u64 w) {
    auto x = context.createTensor({1, 3, h, w}, ML::F16);
    auto y = context.createTensor({1, 3, h, w}, ML::F16);
    const std::vector<Imath::half> source = halves(in);
    x->upload(source.data());
    model.run({x}, {y});
    std::vector<Imath::half> result(in.size());
    y->download(result.data());
    return std::vector<float>(result.begin(), result.end());
}

// The ML::Exception the body raises (a failure of the test when there is none).
template <class F>
ML::Exception exceptionOf(F&& body) {
    try {
        body();
    } catch (const ML::Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no ML::Exception";
    return ML::Exception(ML::Exception::PLUGIN, ML::Exception::INTERNAL, "none");
}

inline bool contains(const ML::Exception& e, const std::string& part) {
    return std::string(e.what()).find(part) != std::string::npos;
}

// The text of the std::exception the body raises.
template <class F>
std::string errorText(F&& body) {
    try {
        body();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(no exception)";
}

}  // namespace BackendTest
