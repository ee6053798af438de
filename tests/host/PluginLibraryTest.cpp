#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "Host/BufferText.h"
#include "Host/OwnedImage.h"
#include "Host/PluginLibrary.h"

using QHost::CallSettings;
using QHost::PluginLibrary;
using QHost::PluginLoadError;

namespace {

std::string loadError(const std::filesystem::path& path) {
    try {
        PluginLibrary library(path);
    } catch (const PluginLoadError& e) {
        return e.what();
    }
    return {};
}

std::shared_ptr<CallSettings> frameSettings(ML::u32 frame) {
    auto settings = std::make_shared<CallSettings>();
    settings->setFrame(frame);
    settings->setRoi(frame, {1, 1, 3, 3});
    settings->setInputImage(frame, QHost::OwnedImage::make({0, 0, 4, 4}, ML::Image::RGB, ML::Image::HWC, ML::U8));
    settings->setOutputImage(frame, QHost::OwnedImage::make({0, 0, 4, 4}, ML::Image::RGB, ML::Image::HWC, ML::U8));
    return settings;
}

}  // namespace

TEST(PluginLibrary, ReportsMissingFilesLoaderErrorsAndMissingExports) {
    const std::string missing = loadError("/nonexistent/folder/plugin.so");
    EXPECT_NE(missing.find("not found"), std::string::npos) << missing;
    EXPECT_NE(missing.find("/nonexistent/folder/plugin.so"), std::string::npos);

    const auto notLibrary = std::filesystem::temp_directory_path() / "qhost_not_a_library.so";
    std::ofstream(notLibrary) << "plain text";
    const std::string refused = loadError(notLibrary);
    EXPECT_NE(refused.find("Could not load plug-in library"), std::string::npos) << refused;
    std::filesystem::remove(notLibrary);

    const std::string noShutdown = loadError(FAKE_PLUGIN_NO_SHUTDOWN);
    EXPECT_NE(noShutdown.find("does not export mlShutdown"), std::string::npos) << noShutdown;
}

TEST(PluginLibrary, ForwardsCallsAndShutsDownWhenDestroyed) {
    QHost::Host host;
    {
        PluginLibrary plugin(FAKE_PLUGIN);
        EXPECT_EQ(plugin.run(host, std::make_shared<CallSettings>(), 1), 0);
        EXPECT_TRUE(host.logger().contains("fake: init"));
        EXPECT_EQ(plugin.run(host, std::make_shared<CallSettings>(), 9), ML::STATUS_OTHER);

        EXPECT_EQ(plugin.queryFunctions(), nullptr);
        ASSERT_EQ(plugin.publishQueryTables(host, std::make_shared<CallSettings>()), 0);
        ASSERT_NE(plugin.queryFunctions(), nullptr);
        EXPECT_EQ(ML::toStd(plugin.queryFunctions()->getBackendName(1)), "fake1");
        EXPECT_EQ(plugin.queryFunctions()->getNumDevices(2), 3);
        EXPECT_EQ(plugin.paramFunctions()->getIntPluginParam(1, 2, 3), 123);
        EXPECT_FALSE(host.logger().contains("fake: shutdown"));
    }
    EXPECT_TRUE(host.logger().contains("fake: shutdown"));
    EXPECT_TRUE(host.misuse().empty());
}

TEST(PluginLibrary, PrepareAsksForTheRegionAndRenderUsesCacheAndOutputs) {
    QHost::Host host;
    PluginLibrary plugin(FAKE_PLUGIN);

    auto settings = frameSettings(6);
    ASSERT_EQ(plugin.run(host, settings, 3), 0);
    const auto inputs = settings->inputImageRequests();
    ASSERT_EQ(inputs.size(), 1u);
    ASSERT_TRUE(inputs[0].wanted);
    EXPECT_EQ(*inputs[0].wanted, (ML::Rect{1, 1, 3, 3}));
    EXPECT_TRUE(settings->cacheRequests().empty());

    ASSERT_EQ(plugin.run(host, settings, 4), 0);
    EXPECT_EQ(QHost::bufferText(settings->outputBuffer(6, {7, -1})), "frame 6");
    EXPECT_TRUE(host.cache().contains("fake:6"));
    EXPECT_EQ(settings->progress(), std::vector<float>{1.0f});

    auto cancelled = frameSettings(7);
    cancelled->cancelAfterPolls(0);
    EXPECT_EQ(plugin.run(host, cancelled, 4), ML::STATUS_CANCELLED);
    EXPECT_FALSE(host.cache().contains("fake:7"));

    auto refused = frameSettings(8);
    refused->failOperation(QHost::HostOperation::OUTPUT_IMAGE, ML::STATUS_HOST, "no output");
    EXPECT_EQ(plugin.run(host, refused, 3), ML::STATUS_HOST);
}

TEST(PluginLibrary, ServesSeveralCallsFromSeveralThreads) {
    // Neighbouring frames share cache keys; the budget holds only ten of them.
    QHost::Host host(std::make_shared<QHost::ComputeCache>(40));
    PluginLibrary plugin(FAKE_PLUGIN);
    std::atomic<int> bad{0}, ready{0};
    std::vector<std::thread> pool;
    for (ML::u32 t = 0; t < 4; ++t)
        pool.emplace_back([&, t] {
            for (++ready; ready < 4;) std::this_thread::yield();
            for (ML::u32 frame = t; frame < 400; frame += 4) {
                auto settings = frameSettings(frame);
                if (plugin.run(host, settings, 4) != 0 || settings->progress() != std::vector<float>{1.0f} ||
                    QHost::bufferText(settings->outputBuffer(frame, {7, -1})) != "frame " + std::to_string(frame))
                    ++bad;
            }
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(host.activeCalls(), 0u);
    EXPECT_LE(host.cache().bytes(), 40u);
    EXPECT_TRUE(host.misuse().empty());
}
