// Backend discovery, the default backend, and what a render does with the backends it finds.
#include <gtest/gtest.h>

#include "PluginInstall.h"

namespace {

std::string text(const ML::Ptr<ML::StringT<char>>& s) { return ML::toStd(s); }

TEST(BackendChoice, DiscoveryAndDefault) {
    const struct {
        const char* what;
        std::vector<std::pair<const char*, const char*>> backends;  // name, kind
        std::vector<std::string> listed;
        int defaultBackend;
        const char* logged;
    } cases[] = {
        {"none", {}, {}, -1, nullptr},
        {"only DirectML becomes the default", {{"ort_dml", "good"}}, {"ort_dml"}, 0,
         "[Quillon] [I] Backend available: ort_dml"},
        {"CUDA wins over DirectML though discovered later",
         {{"ort_dml", "good"}, {"ort_cuda", "good"}, {"coreml", "good"}}, {"ort_dml", "ort_cuda", "coreml"}, 1, nullptr},
        {"unusable backends are left out",
         {{"ort_dml", "zero_devices"}, {"ort_cuda", "no_shutdown"}, {"coreml", "failing"}, {"ort_cpu", "real"}},
         {"ort_cpu"}, 0, nullptr},
        {"no default device", {{"ort_cuda", "no_default"}}, {"ort_cuda"}, 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PluginInstall install;
        install.copyDefaultConfigs();
        for (const auto& [name, kind] : c.backends) install.addBackend(name, kind);
        ASSERT_EQ(install.plugin().publishQueryTables(install.host(), install.settings(2)), 0);
        const ML::PluginQueryFunctions& q = *install.plugin().queryFunctions();
        std::vector<std::string> listed;
        for (int i = 0; i < q.getNumBackends(); ++i) listed.push_back(text(q.getBackendName(i)));
        EXPECT_EQ(listed, c.listed);
        EXPECT_EQ(q.getDefaultBackendIndex(), c.defaultBackend);
        if (c.logged) {
            EXPECT_TRUE(install.logged(c.logged));
        }
        if (listed == std::vector<std::string>{"ort_cpu"}) {
            EXPECT_EQ(q.getNumDevices(0), 1);
            EXPECT_EQ(q.getDefaultDeviceIndex(0), 0);
            EXPECT_FALSE(text(q.getDeviceName(0, 0)).empty());
            EXPECT_NE(text(q.getBackendLabel(0)).find("ONNX Runtime"), std::string::npos);
        }
        if (listed == std::vector<std::string>{"ort_cuda"}) {
            EXPECT_EQ(q.getDefaultDeviceIndex(0), -1);
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

}  // namespace
