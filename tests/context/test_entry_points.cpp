// The entry points: result codes, the logger and its levels, initialisation and shutdown.
#include <gtest/gtest.h>

#include <regex>

#include "Host/CollectingLogger.h"
#include "PluginInstall.h"

namespace {

TEST(EntryPoints, NullHostIsAFailureWithoutCrash) {
    PluginInstall install;
    EXPECT_EQ(install.plugin().main(nullptr, 0), 4);
}

TEST(EntryPoints, HostWithoutLoggerFails) {
    PluginInstall install;
    install.host().setLogger(nullptr);
    EXPECT_EQ(install.run(install.settings(1)), 4);
    install.host().useOwnLogger();
    EXPECT_EQ(install.run(install.settings(1)), 0);
}

TEST(EntryPoints, UnknownModesAreRefusedAndStateKept) {
    PluginInstall install;
    install.copyDefaultConfigs();
    ASSERT_EQ(install.run(install.settings(1)), 0);
    for (int mode : {0, 6}) {
        EXPECT_EQ(install.run(install.settings(mode)), 4);
    }
    EXPECT_EQ(install.host().logger().linesWith("Unknown call mode provided by host").size(), 2u);
    EXPECT_EQ(install.host().logger().linesWith("Initializing.. Build ID: ").size(), 1u);
    const auto errors = install.host().logger().linesWith("[Quillon] [E] PLUGIN/INTERNAL: Plugin/PluginMain:");
    EXPECT_EQ(errors.size(), 2u) << "error lines carry source, code and source location";
}

TEST(EntryPoints, BuildIdHasDateRevisionAndNumber) {
    PluginInstall install;
    ASSERT_EQ(install.run(install.settings(1)), 0);
    const auto lines = install.host().logger().linesWith("Initializing.. Build ID: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(std::regex_search(lines[0], std::regex(R"(\[Quillon\] \[I\] Initializing\.\. Build ID: \d{8}_\w+_\d+$)")))
        << lines[0];
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
    auto unload = install.settings(5, -1);
    EXPECT_EQ(install.run(unload), 0);
    EXPECT_TRUE(verbose.contains("[Quillon] [W] Returned target -1"));
    install.host().useOwnLogger();
}

TEST(EntryPoints, ShutdownTwiceThenMainBuildsANewContext) {
    PluginInstall install;
    ASSERT_EQ(install.run(install.settings(1)), 0);
    EXPECT_EQ(install.plugin().shutdown(), 0);
    EXPECT_EQ(install.plugin().shutdown(), 0);
    ASSERT_EQ(install.run(install.settings(2)), 0);
    EXPECT_EQ(install.host().logger().linesWith("Initializing.. Build ID: ").size(), 2u);
}

TEST(EntryPoints, HostCancellationResultIsOneWithoutLogLine) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    auto s = depthRender(install, 4);
    s->failOperation(QHost::HostOperation::OUTPUT_IMAGE, 1, "");
    EXPECT_EQ(install.run(s), 1);
    EXPECT_TRUE(install.host().logger().linesWith("[Quillon] [E]").empty());
}

TEST(EntryPoints, HostSideFailureIsResultTwo) {
    PluginInstall install;
    install.copyDefaultConfigs();
    install.addBackend("ort_cpu", "real");
    auto s = depthRender(install, 4);
    s->failOperation(QHost::HostOperation::INPUT_IMAGE, 2, "disk gone");
    EXPECT_EQ(install.run(s), 2);
    EXPECT_TRUE(install.logged("[Quillon] [E] PLUGIN/HOST: disk gone"));
}

}  // namespace
