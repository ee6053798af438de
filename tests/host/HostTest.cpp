#include <gtest/gtest.h>

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

namespace {

ML::Ptr<ML::Image> image(const ML::Rect& rect) {
    return OwnedImage::make(rect, ML::Image::RGBA, ML::Image::HWC, ML::F32);
}

// A host with one call registered for the length of a test.
struct HostCall : ::testing::Test {
    std::shared_ptr<CallSettings> settings = std::make_shared<CallSettings>();
    QHost::Host host;
    ML::u64 call = host.beginCall(settings);
    ~HostCall() override { host.endCall(call); }
};

ML::Result<void> recordOpaque(void* opaque, void* user, ML::Ptr<ML::Buffer> buffer) {
    *static_cast<void**>(user) = opaque;
    std::memset(buffer->getData(), 1, buffer->getSize());
    return {};
}

}  // namespace

TEST_F(HostCall, AnswersParametersByIdAndIndexAndNotesThoseWithoutValue) {
    settings->setIntParam(302, 1, 9);
    settings->setFloatParam(500, 0, 0.25f);
    settings->setDataFolder("/models/config");
    EXPECT_EQ(host.getIntParam(call, 302, 1), 9);
    EXPECT_EQ(host.getFloatParam(call, 500, 0), 0.25f);
    EXPECT_EQ(ML::toStd(host.getStringParam(call, 1, 0)), "/models/config");
    EXPECT_EQ(host.getIntParam(call, 302, 0), 0);
    EXPECT_EQ(host.getFloatParam(call, 500, 1), 0.0f);
    EXPECT_EQ(ML::toStd(host.getStringParam(call, 2, 0)), "");
    const auto defaulted = settings->defaultedParams();
    ASSERT_EQ(defaulted.size(), 3u);
    EXPECT_EQ(defaulted[1].id, 500);
    EXPECT_EQ(defaulted[2].kind, QHost::DefaultedParam::STRING);
}

TEST_F(HostCall, FindsImagesAndBuffersByFrameIdAndIndexAndMakesOutputBuffers) {
    const auto main3 = image({0, 0, 8, 8}), main4 = image({0, 0, 8, 8}), layer = image({0, 0, 4, 4});
    settings->setInputImage(3, main3);
    settings->setInputImage(4, main4);
    settings->setOutputImage(3, layer, {1, -1});
    settings->setInputBuffer(3, QHost::makeBuffer("[1,2]", true), {900, 2});
    const ML::Rect wanted{1, 2, 5, 6};
    EXPECT_EQ(host.getInputImage(call, 3, &wanted, {0, -1}).value.get(), main3.get());
    EXPECT_EQ(host.getInputImage(call, 4, nullptr, {0, -1}).value.get(), main4.get());
    EXPECT_FALSE(host.getInputImage(call, 3, nullptr, {0, 0}).value);
    EXPECT_EQ(host.getOutputImage(call, 3, {1, -1}).value.get(), layer.get());
    EXPECT_EQ(QHost::bufferText(host.getInputBuffer(call, 3, {900, 2}).value), "[1,2]");
    EXPECT_FALSE(host.getInputBuffer(call, 3, {900, 1}).value);

    // Output buffers are made on request, unless the settings say otherwise.
    auto made = host.getOutputBuffer(call, 2, {234, -1});
    made.value->resize(3);
    std::memcpy(made.value->getData(), "ok", 3);
    EXPECT_EQ(host.getOutputBuffer(call, 2, {234, -1}).value.get(), made.value.get());
    EXPECT_EQ(QHost::bufferText(settings->outputBuffer(2, {234, -1})), "ok");
    settings->setCreateOutputBuffers(false);
    EXPECT_FALSE(host.getOutputBuffer(call, 2, {235, -1}).value);    EXPECT_FALSE(settings->inputImageRequests().at(2).provided);
}

TEST_F(HostCall, ProvidesMissingInputImagesOnceAndReportsProviderFailures) {
    int asked = 0;
    settings->setInputImageProvider([&asked](ML::u32 frame, ML::ResourceId id, const ML::Rect*) -> ML::Ptr<ML::Image> {
        ++asked;
        if (frame == 99) throw std::runtime_error("no such frame file");
        return id.id == 0 ? image({0, 0, static_cast<ML::i32>(frame) + 1, 2}) : nullptr;
    });
    const auto five = host.getInputImage(call, 5, nullptr, {0, -1});
    EXPECT_EQ(five.value->getRect().x1, 6);
    EXPECT_EQ(host.getInputImage(call, 5, nullptr, {0, -1}).value.get(), five.value.get());
    for (int i = 0; i < 2; ++i) EXPECT_FALSE(host.getInputImage(call, 5, nullptr, {1, -1}).value);
    EXPECT_EQ(asked, 2);

    const auto failed = host.getInputImage(call, 99, nullptr, {0, -1});
    EXPECT_EQ(failed.status, ML::STATUS_HOST);
    EXPECT_NE(ML::toStd(failed.error).find("no such frame file"), std::string::npos);
}

TEST_F(HostCall, RegionOfInterestFallsBackToDefaultThenInputImage) {
    settings->setInputImage(1, image({2, 3, 10, 12}));
    settings->setRoi(2, {0, 0, 4, 4});
    EXPECT_EQ(host.getROI(call, 1).value, (ML::Rect{2, 3, 10, 12}));
    EXPECT_EQ(host.getROI(call, 2).value, (ML::Rect{0, 0, 4, 4}));
    const auto missing = host.getROI(call, 3);
    EXPECT_EQ(missing.status, ML::STATUS_HOST);
    EXPECT_EQ(ML::toStd(missing.error), "No region of interest for frame 3");

    settings->setInputImageProvider([](ML::u32, ML::ResourceId, const ML::Rect*) { return image({0, 0, 7, 5}); });
    EXPECT_EQ(host.getROI(call, 3).value, (ML::Rect{0, 0, 7, 5}));
    settings->setDefaultRoi({1, 1, 2, 2});
    EXPECT_EQ(host.getROI(call, 1).value, (ML::Rect{1, 1, 2, 2}));
    EXPECT_EQ(host.getROI(call, 2).value, (ML::Rect{0, 0, 4, 4}));
}

TEST_F(HostCall, CancelsAfterTheGivenNumberOfPolls) {
    settings->cancelAfterPolls(2);
    std::vector<bool> polls;
    for (int i = 0; i < 4; ++i) polls.push_back(host.isCancelled(call));
    EXPECT_EQ(polls, (std::vector<bool>{false, false, true, true}));
    settings->resetCancel();
    EXPECT_FALSE(host.isCancelled(call));
}

TEST_F(HostCall, CancelFromAnotherThreadReachesAPollingCall) {
    std::thread canceller([this] { settings->cancel(); });
    while (!host.isCancelled(call)) std::this_thread::yield();
    canceller.join();
    EXPECT_TRUE(host.isCancelled(call));
}

TEST_F(HostCall, InjectedFailuresComeBackWithTheirStatusAndText) {
    settings->setInputImage(0, image({0, 0, 2, 2}));
    settings->failOperation(HostOperation::INPUT_IMAGE, ML::STATUS_HOST, "frame unavailable");
    settings->failOperation(HostOperation::COMPUTE_CACHED_BUFFER, ML::STATUS_CANCELLED, "");
    const auto in = host.getInputImage(call, 0, nullptr, {0, -1});
    EXPECT_EQ(in.status, ML::STATUS_HOST);
    EXPECT_EQ(ML::toStd(in.error), "frame unavailable");
    void* opaque = nullptr;
    EXPECT_EQ(host.computeCachedBuffer(call, &opaque, ML::makeString("k"), 4, &recordOpaque).status, ML::STATUS_CANCELLED);
    EXPECT_FALSE(host.cache().contains("k"));
    settings->clearFailures();
    EXPECT_EQ(host.getInputImage(call, 0, nullptr, {0, -1}).status, 0);
}

TEST_F(HostCall, ComputeCacheGoesThroughTheHostsCache) {
    void* opaque = nullptr;
    const auto filled = host.computeCachedBuffer(call, &opaque, ML::makeString("state:1"), 8, &recordOpaque);
    ASSERT_EQ(filled.status, 0);
    EXPECT_EQ(opaque, settings.get());
    EXPECT_EQ(host.findCachedBuffer(call, ML::makeString("state:1")).value.get(), filled.value.get());
    EXPECT_FALSE(host.findCachedBuffer(call, ML::makeString("state:2")).value);
    EXPECT_EQ(host.computeCachedBuffer(call, nullptr, nullptr, 8, &recordOpaque).status, ML::STATUS_OTHER);
    const auto requests = settings->cacheRequests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_TRUE(requests[1].found && !requests[1].compute);
    EXPECT_EQ(host.misuse().size(), 1u);
}

TEST(Host, UnknownCallHandlesAreAnsweredHarmlesslyAndNoted) {
    QHost::Host host;
    const ML::u64 call = host.beginCall(std::make_shared<CallSettings>());
    EXPECT_TRUE(host.endCall(call));
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
