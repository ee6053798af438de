// Configuration files, model selection, model types, unload and cancellation.
#include <gtest/gtest.h>

#include "PluginInstall.h"

namespace {

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
    for (int target = 1; target <= 16; ++target) EXPECT_EQ(p.getIntPluginParam(target, 100, 0), 1) << target;
    // target, query, model index, answer
    for (const auto& [target, query, index, answer] : {std::tuple{42, 100, 0, 0}, {9, 104, 0, 256}, {9, 105, 0, 256},
                                                       {9, 104, 5, -1}})
        EXPECT_EQ(p.getIntPluginParam(target, query, index), answer) << target << " " << query << " " << index;
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(9, 102, 0)), "depth_standin");
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

TEST_F(Targets, TwoTileSizesGiveNoSingleSize) {
    install.writeConfig("depth_config.json", twoDepthModels);
    const auto& p = params();
    EXPECT_EQ(p.getIntPluginParam(9, 100, 0), 2);
    EXPECT_EQ(p.getIntPluginParam(9, 104, 1), -1);
    EXPECT_EQ(ML::toStd(p.getStringPluginParam(9, 103, 1)), "second");
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
    EXPECT_EQ(install.run(install.settings(4, 1)), 4);
    EXPECT_TRUE(install.logged("Model type \"fdvd\" of target 1 is not available in this build"));

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

TEST_F(Targets, UnloadForms) {
    install.writeConfig("depth_config.json", twoDepthModels);
    auto unload = install.settings(5);
    EXPECT_EQ(install.run(unload), 0);  // the first call may be an unload
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

}  // namespace
