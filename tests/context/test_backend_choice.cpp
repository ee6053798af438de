// Backend discovery, the default backend, and what a render does with the backends it finds.
#include <gtest/gtest.h>

#include "PluginInstall.h"

namespace {

std::string text(const ML::Ptr<ML::StringT<char>>& s) { return ML::toStd(s); }

struct Tables {
    ML::PluginQueryFunctions q;
    ML::PluginParamFunctions p;
};

Tables publish(PluginInstall& install) {
    EXPECT_EQ(install.plugin().publishQueryTables(install.host(), install.settings(2)), 0);
    return {*install.plugin().queryFunctions(), *install.plugin().paramFunctions()};
}

TEST(BackendChoice, NoBackendPresentDefaultsToCpuAndRenderFails) {
    PluginInstall install;
    install.copyDefaultConfigs();
    Tables t = publish(install);
    EXPECT_EQ(t.q.getNumBackends(), 0);
    EXPECT_EQ(t.q.getDefaultBackendIndex(), -1);
    EXPECT_EQ(install.run(depthRender(install, 4)), 4);
    EXPECT_TRUE(install.logged("Could not load dynamic library"));
}

TEST(BackendChoice, OnlyDmlPresentBecomesDefault) {
    PluginInstall install;
    install.addBackend("ort_dml", "good");
    Tables t = publish(install);
    ASSERT_EQ(t.q.getNumBackends(), 1);
    EXPECT_EQ(text(t.q.getBackendName(0)), "ort_dml");
    EXPECT_EQ(t.q.getDefaultBackendIndex(), 0);
    EXPECT_TRUE(install.logged("[Quillon] [I] Backend available: ort_dml"));
}

TEST(BackendChoice, CudaWinsOverDmlThoughDiscoveredLater) {
    PluginInstall install;
    install.addBackend("ort_dml", "good");
    install.addBackend("ort_cuda", "good");
    install.addBackend("coreml", "good");
    Tables t = publish(install);
    ASSERT_EQ(t.q.getNumBackends(), 3);
    EXPECT_EQ(text(t.q.getBackendName(0)), "ort_dml");
    EXPECT_EQ(text(t.q.getBackendName(1)), "ort_cuda");
    EXPECT_EQ(text(t.q.getBackendName(2)), "coreml");
    EXPECT_EQ(t.q.getDefaultBackendIndex(), 1);
}

TEST(BackendChoice, UnusableBackendsAreLeftOut) {
    PluginInstall install;
    install.addBackend("ort_dml", "zero_devices");
    install.addBackend("ort_cuda", "no_shutdown");
    install.addBackend("coreml", "failing");
    install.addBackend("ort_cpu", "real");
    Tables t = publish(install);
    ASSERT_EQ(t.q.getNumBackends(), 1);
    EXPECT_EQ(text(t.q.getBackendName(0)), "ort_cpu");
    EXPECT_EQ(t.q.getDefaultBackendIndex(), 0);
    EXPECT_EQ(t.q.getNumDevices(0), 1);
    EXPECT_EQ(t.q.getDefaultDeviceIndex(0), 0);
    EXPECT_FALSE(text(t.q.getDeviceName(0, 0)).empty());
    EXPECT_NE(text(t.q.getBackendLabel(0)).find("ONNX Runtime"), std::string::npos);
}

TEST(BackendChoice, BackendWithoutDefaultDeviceReportsMinusOne) {
    PluginInstall install;
    install.addBackend("ort_cuda", "no_default");
    Tables t = publish(install);
    ASSERT_EQ(t.q.getNumBackends(), 1);
    EXPECT_EQ(t.q.getDefaultDeviceIndex(0), -1);
}

TEST(BackendChoice, SwitchingBackendDropsLoadedModels) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    install.addBackend("ort_dml", "good");

    auto first = depthRender(install, 4);
    first->setBackend("ort_cpu");
    ASSERT_EQ(install.run(first), 0);
    EXPECT_EQ(first->busyLoading(), (std::vector<bool>{true, false}));

    // The stand-in backend cannot load networks, but the switch itself has dropped every model.
    auto other = depthRender(install, 4);
    other->setBackend("ort_dml");
    EXPECT_NE(install.run(other), 0);

    auto again = depthRender(install, 4);
    again->setBackend("ort_cpu");
    ASSERT_EQ(install.run(again), 0);
    EXPECT_EQ(again->busyLoading(), (std::vector<bool>{true, false})) << "the depth model was loaded anew";
    EXPECT_TRUE(install.logged("Loading backend: ort_dml"));
}

TEST(BackendChoice, SameBackendKeepsModelsBetweenRenders) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    ASSERT_EQ(install.run(depthRender(install, 4)), 0);
    auto second = depthRender(install, 4);
    ASSERT_EQ(install.run(second), 0);
    EXPECT_TRUE(second->busyLoading().empty());
}

}  // namespace
