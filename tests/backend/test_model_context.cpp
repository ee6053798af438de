// ModelContext with the real ONNX Runtime backend: discovery, initialisation, instance queries
// and the library's life cycle.
#include <gtest/gtest.h>

#include "BackendTestUtil.h"
#include "Plugin/BackendCalls.h"
#include "Plugin/PlatformUtil.h"

using namespace ML;
using namespace BackendTest;

namespace {
std::filesystem::path cpuBackendPath() { return pluginLibraryFolder() / backendLibraryFileName("ort_cpu"); }

// Loads, runs and drops nets/add_two in a fresh context.
void expectAddTwoRuns(const std::filesystem::path& folder, const std::string& round) {
    auto context = openCpuBackend(folder);
    auto model = context->loadModel("nets/add_two");
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(3, 0.5f), 1, 1), std::vector<float>(3, 2.5f)) << round;
}
}  // namespace

TEST(OrtBackendContext, ReportsItsDeviceLogsTheLoadAndAnswersInstanceQueries) {
    {
        BackendLibrary dll(cpuBackendPath());
        Backend::GetAvailableDevicesCall call(dll);
        EXPECT_EQ(call.devices.size(), 1u);
        EXPECT_EQ(call.defaultDevice, 0);
        EXPECT_NE(call.label.find("ONNX Runtime 1."), std::string::npos) << call.label;
        EXPECT_NE(call.detail.find("threads"), std::string::npos) << call.detail;
    }
    ModelFolder models;
    LoggerScope logs;
    auto context = openCpuBackend(models.path);
    ASSERT_FALSE(logs.lines.empty());
    EXPECT_EQ(logs.lines.front(), "[Quillon] [I] Loading backend: ort_cpu, device id: 0");
    EXPECT_EQ(context->getPrecisionDataType(), F16);
    EXPECT_FALSE(context->supportsRefit());
    EXPECT_GT(std::stoi(context->getVersion()), 0) << context->getVersion();  // major.minor.patch
}

TEST(OrtBackendContext, NetworksComeFromTheAuxFolderWhenGivenElseTheDataFolder) {
    ModelFolder models("Mod\xc3\xa8les \xe6\x97\xa5");  // not ASCII
    EXPECT_EQ(openCpuBackend(models.path)->getModelFolder(), models.path);
    auto context = openCpuBackend("/no/data", models.path);
    auto model = context->loadModel("add_one");
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(12, 1.0f), 2, 2), std::vector<float>(12, 2.0f));
}

TEST(OrtBackendContext, UnknownDeviceOrBackendFailsConstruction) {
    ModelFolder models;
    const Exception e = exceptionOf([&] { ModelContext context("ort_cpu", 3, models.path, {}); });
    EXPECT_EQ(e.source(), Exception::BACKEND);
    EXPECT_TRUE(contains(e, "Device id 3")) << e.what();
    EXPECT_THROW(ModelContext("no_such_backend", 0, models.path, {}), std::runtime_error);
}

TEST(OrtBackendContext, LibraryRunsAgainAfterShutdownWithOrWithoutUnloading) {
    ModelFolder models;
    for (int round = 0; round < 3; ++round) {
        {
            // Discovery loads and unloads the library on its own.
            BackendLibrary dll(cpuBackendPath());
            EXPECT_EQ(Backend::GetAvailableDevicesCall(dll).devices.size(), 1u);
        }
        expectAddTwoRuns(models.path, "unloaded, round " + std::to_string(round));
    }
    // With a handle of its own holding the library in memory, each context's end shuts the
    // backend down without unloading it; the next context starts it again.
    BackendLibrary keep(cpuBackendPath());
    for (int round = 0; round < 3; ++round) expectAddTwoRuns(models.path, "kept, round " + std::to_string(round));
}

TEST(OrtBackendContext, TwoContextsShareTheEnvironment) {
    ModelFolder models;
    auto first = openCpuBackend(models.path);
    auto second = openCpuBackend(models.path);
    auto a = first->loadModel("add_one");
    auto b = second->loadModel("nets/add_two");
    EXPECT_EQ(runCastAdd(*first, *a, std::vector<float>(3, 1.0f), 1, 1), std::vector<float>(3, 2.0f));
    a.reset();
    first.reset();  // shuts the library down once; the other context's objects stay valid
    EXPECT_EQ(runCastAdd(*second, *b, std::vector<float>(3, 1.0f), 1, 1), std::vector<float>(3, 3.0f));
}
