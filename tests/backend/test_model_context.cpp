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
}  // namespace

TEST(OrtBackendDiscovery, ReportsTheProcessorAsItsOnlyDevice) {
    BackendLibrary dll(cpuBackendPath());
    Backend::GetAvailableDevicesCall call(dll);
    ASSERT_EQ(call.devices.size(), 1u);
    EXPECT_FALSE(call.devices[0].empty());
    EXPECT_EQ(call.defaultDevice, 0);
    EXPECT_NE(call.label.find("ONNX Runtime 1."), std::string::npos) << call.label;
    EXPECT_NE(call.detail.find("threads"), std::string::npos) << call.detail;
}

TEST(OrtBackendContext, LogsTheLoadAndAnswersInstanceQueries) {
    ModelFolder models;
    LoggerScope logs;
    auto context = openCpuBackend(models.path);
    const auto lines = logs.keeper.snapshot();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "[Quillon] [I] Loading backend: ort_cpu, device id: 0");
    EXPECT_EQ(context->getBackendName(), "ort_cpu");
    EXPECT_EQ(context->getDeviceId(), 0u);
    EXPECT_EQ(context->getPrecisionDataType(), F16);
    EXPECT_FALSE(context->supportsRefit());
    const std::string version = context->getVersion();
    ASSERT_NE(version.find('.'), std::string::npos);
    EXPECT_GT(std::stoi(version.substr(0, version.find('.'))), 0);
}

TEST(OrtBackendContext, ModelFolderIsTheAuxFolderWhenGivenElseTheDataFolder) {
    ModelFolder models;
    EXPECT_EQ(openCpuBackend(models.path)->getModelFolder(), models.path);
    EXPECT_EQ(openCpuBackend("/no/data", models.path)->getModelFolder(), models.path);
    // Networks come from the aux folder too.
    auto context = openCpuBackend("/no/data", models.path);
    EXPECT_NO_THROW(context->loadModel("add_one"));
}

TEST(OrtBackendContext, NonAsciiModelFolderWorks) {
    ModelFolder models("Mod\xc3\xa8les \xe6\x97\xa5");
    auto context = openCpuBackend(models.path);
    EXPECT_EQ(context->getModelFolder(), models.path);
    auto model = context->loadModel("add_one");
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(12, 1.0f), 2, 2), std::vector<float>(12, 2.0f));
}

TEST(OrtBackendContext, UnknownDeviceFailsConstruction) {
    ModelFolder models;
    try {
        ModelContext context("ort_cpu", 3, models.path, {});
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.source(), Exception::BACKEND);
        EXPECT_NE(std::string(e.what()).find("Device id 3"), std::string::npos) << e.what();
    }
}

TEST(OrtBackendContext, UnknownBackendNameFailsToLoad) {
    ModelFolder models;
    EXPECT_THROW(ModelContext("no_such_backend", 0, models.path, {}), std::runtime_error);
}

TEST(OrtBackendContext, LibraryRunsAgainAfterShutdown) {
    ModelFolder models;
    for (int round = 0; round < 3; ++round) {
        {
            // Discovery loads and unloads the library on its own.
            BackendLibrary dll(cpuBackendPath());
            Backend::GetAvailableDevicesCall call(dll);
            EXPECT_EQ(call.devices.size(), 1u);
        }
        auto context = openCpuBackend(models.path);
        auto model = context->loadModel("add_one");
        EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(3, 0.5f), 1, 1), std::vector<float>(3, 1.5f))
            << "round " << round;
    }
}

TEST(OrtBackendContext, EnvironmentIsMadeAgainAfterShutdownWithoutUnloading) {
    // With a handle of its own holding the library in memory, each context's end shuts the
    // backend down without unloading it; the next context starts it again.
    ModelFolder models;
    BackendLibrary keep(cpuBackendPath());
    for (int round = 0; round < 3; ++round) {
        auto context = openCpuBackend(models.path);
        auto model = context->loadModel("nets/add_two");
        EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(3, 0.0f), 1, 1), std::vector<float>(3, 2.0f))
            << "round " << round;
    }
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
