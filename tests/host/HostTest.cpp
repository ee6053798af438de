#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "Host/BufferText.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"

using QHost::CallSettings;
using QHost::HostOperation;
using QHost::OwnedImage;
using QHost::ResourceKey;

namespace {

ML::Ptr<ML::Image> image(const ML::Rect& rect) {
    return OwnedImage::make(rect, ML::Image::RGBA, ML::Image::HWC, ML::F32);
}

// Registers settings with the host for the length of one test block.
struct ScopedCall {
    ScopedCall(QHost::Host& host, std::shared_ptr<CallSettings> settings)
        : host(host), settings(std::move(settings)), call(host.beginCall(this->settings)) {}
    ~ScopedCall() { host.endCall(call); }
    QHost::Host& host;
    std::shared_ptr<CallSettings> settings;
    ML::u64 call;
};

}  // namespace

TEST(Host, AnswersDefaultsAndNotesParametersWithoutValue) {
    QHost::Host host;
    ScopedCall c(host, std::make_shared<CallSettings>());
    EXPECT_EQ(host.getCallMode(c.call), 4);
    EXPECT_EQ(host.getTarget(c.call), 0);
    EXPECT_EQ(host.getFrame(c.call), 0u);
    EXPECT_EQ(host.getDeviceId(c.call), 0xFFFFFFFFu);
    EXPECT_EQ(ML::toStd(host.getBackendName(c.call)), "");
    EXPECT_EQ(host.getIntParam(c.call, 3, 0), 0);
    EXPECT_EQ(host.getFloatParam(c.call, 4, 0), 0.0f);
    ASSERT_TRUE(host.getStringParam(c.call, 1, 0));
    EXPECT_EQ(ML::toStd(host.getStringParam(c.call, 1, 0)), "");
    EXPECT_EQ(host.getLogger(), &host.logger());
    const auto defaulted = c.settings->defaultedParams();
    ASSERT_EQ(defaulted.size(), 3u);
    EXPECT_EQ(defaulted[0].kind, QHost::DefaultedParam::INT);
    EXPECT_EQ(defaulted[1].id, 4);
    EXPECT_EQ(defaulted[2].kind, QHost::DefaultedParam::STRING);
    EXPECT_TRUE(host.misuse().empty());
}

TEST(Host, AnswersParametersByIdAndIndex) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>(3, 7);
    settings->setFrame(12);
    settings->setBackend("ort_cpu");
    settings->setDeviceId(0xFFFFFFFE);
    settings->setModelIndex(2);
    settings->setDataFolder("/models/config");
    settings->setAuxFolder("/models/aux");
    settings->setIntParam(302, 0, 5);
    settings->setIntParam(302, 1, 9);
    settings->setFloatParam(500, 0, 0.25f);
    ScopedCall c(host, settings);
    EXPECT_EQ(host.getCallMode(c.call), 3);
    EXPECT_EQ(host.getTarget(c.call), 7);
    EXPECT_EQ(host.getFrame(c.call), 12u);
    EXPECT_EQ(ML::toStd(host.getBackendName(c.call)), "ort_cpu");
    EXPECT_EQ(host.getDeviceId(c.call), 0xFFFFFFFEu);
    EXPECT_EQ(host.getIntParam(c.call, 3, 0), 2);
    EXPECT_EQ(host.getIntParam(c.call, 302, 0), 5);
    EXPECT_EQ(host.getIntParam(c.call, 302, 1), 9);
    EXPECT_EQ(host.getIntParam(c.call, 302, 2), 0);
    EXPECT_EQ(host.getFloatParam(c.call, 500, 0), 0.25f);
    EXPECT_EQ(host.getFloatParam(c.call, 500, 1), 0.0f);
    EXPECT_EQ(ML::toStd(host.getStringParam(c.call, 1, 0)), "/models/config");
    EXPECT_EQ(ML::toStd(host.getStringParam(c.call, 2, 0)), "/models/aux");
}

TEST(Host, FindsImagesAndBuffersByFrameIdAndIndex) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    const auto main3 = image({0, 0, 8, 8});
    const auto main4 = image({0, 0, 8, 8});
    const auto layer = image({0, 0, 4, 4});
    settings->setInputImage(3, main3);
    settings->setInputImage(4, main4);
    settings->setOutputImage(3, layer, {1, -1});
    settings->setInputBuffer(3, QHost::makeBuffer("[1,2]", true), {900, 2});
    ScopedCall c(host, settings);

    const ML::Rect wanted{1, 2, 5, 6};
    auto in3 = host.getInputImage(c.call, 3, &wanted, {0, -1});
    EXPECT_EQ(in3.status, 0);
    EXPECT_EQ(in3.value.get(), main3.get());
    EXPECT_EQ(host.getInputImage(c.call, 4, nullptr, {0, -1}).value.get(), main4.get());
    auto absent = host.getInputImage(c.call, 3, nullptr, {0, 0});
    EXPECT_EQ(absent.status, 0);
    EXPECT_FALSE(absent.value);
    EXPECT_EQ(host.getOutputImage(c.call, 3, {1, -1}).value.get(), layer.get());
    EXPECT_FALSE(host.getOutputImage(c.call, 3, {0, -1}).value);
    EXPECT_EQ(QHost::bufferText(host.getInputBuffer(c.call, 3, {900, 2}).value), "[1,2]");
    EXPECT_FALSE(host.getInputBuffer(c.call, 3, {900, 1}).value);

    const auto requests = c.settings->inputImageRequests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].key, ResourceKey(3, 0, -1));
    ASSERT_TRUE(requests[0].wanted);
    EXPECT_EQ(*requests[0].wanted, wanted);
    EXPECT_TRUE(requests[0].provided);
    EXPECT_FALSE(requests[1].wanted);
    EXPECT_EQ(requests[2].key, ResourceKey(3, 0, 0));
    EXPECT_FALSE(requests[2].provided);
    const auto outputs = c.settings->outputImageRequests();
    ASSERT_EQ(outputs.size(), 2u);
    EXPECT_TRUE(outputs[0].provided);
    EXPECT_FALSE(outputs[1].provided);
}

TEST(Host, CreatesOutputBuffersOnRequest) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    ScopedCall c(host, settings);
    auto first = host.getOutputBuffer(c.call, 2, {234, -1});
    ASSERT_EQ(first.status, 0);
    ASSERT_TRUE(first.value);
    EXPECT_EQ(first.value->getSize(), 0u);
    first.value->resize(3);
    std::memcpy(first.value->getData(), "ok", 3);
    EXPECT_EQ(host.getOutputBuffer(c.call, 2, {234, -1}).value.get(), first.value.get());
    EXPECT_EQ(QHost::bufferText(settings->outputBuffer(2, {234, -1})), "ok");
    EXPECT_FALSE(settings->outputBuffer(2, {235, -1}));

    settings->setCreateOutputBuffers(false);
    EXPECT_FALSE(host.getOutputBuffer(c.call, 2, {235, -1}).value);
    EXPECT_EQ(settings->outputBuffers().size(), 1u);
    EXPECT_EQ(settings->outputBufferRequests().size(), 3u);
}

TEST(Host, ProvidesMissingInputImagesOnceAndReportsProviderFailures) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    std::atomic<int> asked{0};
    settings->setInputImageProvider([&asked](ML::u32 frame, ML::ResourceId id, const ML::Rect*) -> ML::Ptr<ML::Image> {
        ++asked;
        if (frame == 99) throw std::runtime_error("no such frame file");
        if (id.id != 0) return nullptr;
        return image({0, 0, static_cast<ML::i32>(frame) + 1, 2});
    });
    ScopedCall c(host, settings);
    const auto five = host.getInputImage(c.call, 5, nullptr, {0, -1});
    ASSERT_TRUE(five.value);
    EXPECT_EQ(five.value->getRect().x1, 6);
    EXPECT_EQ(host.getInputImage(c.call, 5, nullptr, {0, -1}).value.get(), five.value.get());
    EXPECT_FALSE(host.getInputImage(c.call, 5, nullptr, {1, -1}).value);
    EXPECT_FALSE(host.getInputImage(c.call, 5, nullptr, {1, -1}).value);
    EXPECT_EQ(asked, 2);

    const auto failed = host.getInputImage(c.call, 99, nullptr, {0, -1});
    EXPECT_EQ(failed.status, ML::STATUS_HOST);
    EXPECT_NE(ML::toStd(failed.error).find("no such frame file"), std::string::npos);
    EXPECT_EQ(settings->inputImageRequests().back().status, ML::STATUS_HOST);
}

TEST(Host, RegionOfInterestFallsBackToDefaultThenInputImage) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    settings->setInputImage(1, image({2, 3, 10, 12}));
    settings->setRoi(2, {0, 0, 4, 4});
    ScopedCall c(host, settings);
    EXPECT_EQ(host.getROI(c.call, 1).value, (ML::Rect{2, 3, 10, 12}));
    EXPECT_EQ(host.getROI(c.call, 2).value, (ML::Rect{0, 0, 4, 4}));
    const auto missing = host.getROI(c.call, 3);
    EXPECT_EQ(missing.status, ML::STATUS_HOST);
    EXPECT_EQ(ML::toStd(missing.error), "No region of interest for frame 3");

    settings->setInputImageProvider(
        [](ML::u32, ML::ResourceId, const ML::Rect*) { return image({0, 0, 7, 5}); });
    EXPECT_EQ(host.getROI(c.call, 3).value, (ML::Rect{0, 0, 7, 5}));
    settings->setDefaultRoi({1, 1, 2, 2});
    EXPECT_EQ(host.getROI(c.call, 1).value, (ML::Rect{1, 1, 2, 2}));
    EXPECT_EQ(host.getROI(c.call, 2).value, (ML::Rect{0, 0, 4, 4}));
    EXPECT_EQ(settings->roiRequests(), (std::vector<ML::u32>{1, 2, 3, 3, 1, 2}));
}

TEST(Host, CancelsAfterTheGivenNumberOfPolls) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    settings->cancelAfterPolls(3);
    ScopedCall c(host, settings);
    EXPECT_FALSE(host.isCancelled(c.call));
    EXPECT_FALSE(host.isCancelled(c.call));
    EXPECT_FALSE(settings->cancelled());
    EXPECT_FALSE(host.isCancelled(c.call));
    EXPECT_TRUE(settings->cancelled());
    EXPECT_TRUE(host.isCancelled(c.call));
    EXPECT_TRUE(host.isCancelled(c.call));
    EXPECT_EQ(settings->cancelPolls(), 5u);

    settings->resetCancel();
    EXPECT_FALSE(host.isCancelled(c.call));
    settings->cancelAfterPolls(0);
    EXPECT_TRUE(host.isCancelled(c.call));
}

TEST(Host, CancelFromAnotherThreadReachesAPollingCall) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    ScopedCall c(host, settings);
    std::thread canceller([settings] { settings->cancel(); });
    while (!host.isCancelled(c.call)) std::this_thread::yield();
    canceller.join();
    EXPECT_TRUE(host.isCancelled(c.call));
}

TEST(Host, RecordsProgressAndBusyLoading) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    ScopedCall c(host, settings);
    host.setBusyLoading(c.call, true);
    EXPECT_TRUE(settings->isBusyLoading());
    host.setBusyLoading(c.call, false);
    host.setProgress(c.call, 0.5f);
    host.setProgress(c.call, 1.0f);
    EXPECT_FALSE(settings->isBusyLoading());
    EXPECT_EQ(settings->busyLoading(), (std::vector<bool>{true, false}));
    EXPECT_EQ(settings->progress(), (std::vector<float>{0.5f, 1.0f}));
    settings->clearRecords();
    EXPECT_TRUE(settings->progress().empty());
    EXPECT_TRUE(settings->busyLoading().empty());
}

TEST(Host, InjectedFailuresComeBackWithTheirStatusAndText) {
    QHost::Host host;
    auto settings = std::make_shared<CallSettings>();
    settings->setInputImage(0, image({0, 0, 2, 2}));
    settings->failOperation(HostOperation::INPUT_IMAGE, ML::STATUS_HOST, "frame unavailable");
    settings->failOperation(HostOperation::COMPUTE_CACHED_BUFFER, ML::STATUS_CANCELLED, "");
    ScopedCall c(host, settings);
    const auto in = host.getInputImage(c.call, 0, nullptr, {0, -1});
    EXPECT_EQ(in.status, ML::STATUS_HOST);
    EXPECT_EQ(ML::toStd(in.error), "frame unavailable");
    EXPECT_THROW(ML::checkResult(host.getInputImage(c.call, 0, nullptr, {0, -1})), ML::Exception);
    const auto cached = host.computeCachedBuffer(c.call, nullptr, ML::makeString("k"), 4,
                                                 [](void*, void*, ML::Ptr<ML::Buffer>) { return ML::Result<void>{}; });
    EXPECT_EQ(cached.status, ML::STATUS_CANCELLED);
    EXPECT_FALSE(host.cache().contains("k"));

    settings->clearFailures();
    EXPECT_EQ(host.getInputImage(c.call, 0, nullptr, {0, -1}).status, 0);
}

namespace {
ML::Result<void> recordOpaque(void* opaque, void* user, ML::Ptr<ML::Buffer> buffer) {
    *static_cast<void**>(user) = opaque;
    std::memset(buffer->getData(), 1, buffer->getSize());
    return {};
}
}  // namespace

TEST(Host, ComputeCacheGoesThroughTheHostsCache) {
    auto cache = std::make_shared<QHost::ComputeCache>(1024);
    QHost::Host host(cache);
    auto settings = std::make_shared<CallSettings>();
    ScopedCall c(host, settings);
    void* opaque = nullptr;
    const auto filled = host.computeCachedBuffer(c.call, &opaque, ML::makeString("state:1"), 8, &recordOpaque);
    ASSERT_EQ(filled.status, 0);
    EXPECT_EQ(opaque, settings.get());
    EXPECT_EQ(&host.cache(), cache.get());
    EXPECT_EQ(host.findCachedBuffer(c.call, ML::makeString("state:1")).value.get(), filled.value.get());
    const auto gone = host.findCachedBuffer(c.call, ML::makeString("state:2"));
    EXPECT_EQ(gone.status, 0);
    EXPECT_FALSE(gone.value);
    EXPECT_EQ(host.computeCachedBuffer(c.call, nullptr, nullptr, 8, &recordOpaque).status, ML::STATUS_OTHER);

    const auto requests = settings->cacheRequests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_TRUE(requests[0].compute);
    EXPECT_EQ(requests[0].key, "state:1");
    EXPECT_EQ(requests[0].size, 8u);
    EXPECT_TRUE(requests[1].found);
    EXPECT_FALSE(requests[1].compute);
    EXPECT_FALSE(requests[2].found);
    EXPECT_EQ(requests[3].status, ML::STATUS_OTHER);
    EXPECT_EQ(host.misuse().size(), 1u);
}

TEST(Host, UnknownCallHandlesAreAnsweredHarmlesslyAndNoted) {
    QHost::Host host;
    ML::u64 call = 0;
    {
        ScopedCall c(host, std::make_shared<CallSettings>());
        call = c.call;
        EXPECT_NE(call, 0u);
        EXPECT_EQ(host.activeCalls(), 1u);
    }
    EXPECT_EQ(host.activeCalls(), 0u);
    EXPECT_FALSE(host.endCall(call));
    EXPECT_EQ(host.getCallMode(call), 0);
    EXPECT_TRUE(host.isCancelled(call));
    EXPECT_EQ(host.getROI(call, 0).status, ML::STATUS_OTHER);
    EXPECT_EQ(host.getOutputBuffer(call, 0, {234, -1}).status, ML::STATUS_OTHER);
    host.setProgress(call, 0.5f);
    const auto misuse = host.misuse();
    ASSERT_EQ(misuse.size(), 5u);
    EXPECT_NE(misuse[0].find("getCallMode"), std::string::npos);
    EXPECT_THROW(host.beginCall(nullptr), std::invalid_argument);
}

namespace {
ML::Result<void> writeFrame(void* opaque, void* user, ML::Ptr<ML::Buffer> buffer) {
    const ML::u32 frame = *static_cast<const ML::u32*>(user);
    std::memcpy(buffer->getData(), &frame, sizeof(frame));
    return {};
}

// What one render of a frame does with the host, as a plug-in would.
ML::i32 renderFrame(ML::Host* host, ML::u64 call) {
    ML::u32 frame = host->getFrame(call);
    const ML::Rect roi = ML::checkResult(host->getROI(call, frame));
    const auto in = ML::checkResult(host->getInputImage(call, frame, &roi, {0, -1}));
    const auto out = ML::checkResult(host->getOutputImage(call, frame, {0, -1}));
    if (!in || !out || in->getRect() != roi) return 4;
    for (ML::u32 previous = frame > 2 ? frame - 2 : 0; previous <= frame; ++previous) {
        ML::u32 wanted = previous;
        const auto state = ML::checkResult(
            host->computeCachedBuffer(call, &wanted, ML::makeString("frame:" + std::to_string(previous)), 4, &writeFrame));
        ML::u32 stored = 0;
        std::memcpy(&stored, state->getData(), sizeof(stored));
        if (stored != previous) return 4;
    }
    host->setProgress(call, 1.0f);
    const auto text = ML::checkResult(host->getOutputBuffer(call, frame, {235, -1}));
    const std::string line = std::to_string(host->getIntParam(call, 3, 0));
    text->resize(line.size());
    std::memcpy(text->getData(), line.data(), line.size());
    return host->isCancelled(call) ? 1 : 0;
}

ML::i32 fakeRender(ML::Host* host, ML::u64 call) {
    try {
        return renderFrame(host, call);
    } catch (...) {
        return 4;
    }
}
}  // namespace

TEST(Host, ServesSeveralCallsFromSeveralThreads) {
    QHost::Host host(std::make_shared<QHost::ComputeCache>(40));
    constexpr int threads = 4;
    constexpr int frames = 30;
    std::vector<std::thread> pool;
    std::atomic<int> bad{0};
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int f = 0; f < frames; ++f) {
                const ML::u32 frame = static_cast<ML::u32>(f * threads + t);
                auto settings = std::make_shared<CallSettings>(4, 1);
                settings->setFrame(frame);
                settings->setModelIndex(static_cast<int>(frame));
                settings->setInputImage(frame, image({0, 0, 4, 4}));
                settings->setOutputImage(frame, image({0, 0, 4, 4}));
                if (host.run(&fakeRender, settings) != 0) ++bad;
                if (QHost::bufferBytes(settings->outputBuffer(frame, {235, -1})) != std::to_string(frame)) ++bad;
                if (settings->progress() != std::vector<float>{1.0f}) ++bad;
            }
        });
    for (auto& t : pool) t.join();
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(host.activeCalls(), 0u);
    EXPECT_LE(host.cache().bytes(), 40u);
    EXPECT_TRUE(host.misuse().empty());
}
