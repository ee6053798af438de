// The entry points: result codes, the logger and its levels, initialisation and shutdown.
#include <gtest/gtest.h>

#include <regex>

#include "Host/CollectingLogger.h"
#include "PluginInstall.h"

namespace {

TEST(EntryPoints, NoHostOrNoLoggerFailsWithoutCrash) {
    PluginInstall install;
    EXPECT_EQ(install.plugin().main(nullptr, 0), 4);
    install.host().setLogger(nullptr);
    EXPECT_EQ(install.run(install.settings(1)), 4);
    install.host().useOwnLogger();
    EXPECT_EQ(install.run(install.settings(1)), 0);
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

// A host that cancels gets result 1 without an error line; a failing host gets result 2.
TEST(EntryPoints, HostCancellationAndFailureResults) {
    const struct {
        QHost::HostOperation operation;
        int result;
        const char* message;
        const char* logged;  // null: no error line at all
    } cases[] = {
        {QHost::HostOperation::OUTPUT_IMAGE, 1, "", nullptr},
        {QHost::HostOperation::INPUT_IMAGE, 2, "disk gone", "[Quillon] [E] PLUGIN/HOST: disk gone"},
    };
    for (const auto& c : cases) {
        PluginInstall install;
        install.copyDefaultConfigs();
        install.addBackend("ort_cpu", "real");
        auto s = depthRender(install, 4);
        s->failOperation(c.operation, c.result, c.message);
        EXPECT_EQ(install.run(s), c.result);
        if (c.logged) {
            EXPECT_TRUE(install.logged(c.logged));
        } else {
            EXPECT_TRUE(install.host().logger().linesWith("[Quillon] [E]").empty());
        }
    }
}

}  // namespace
