// A tiny stand-in for the plug-in library, to test loading and call forwarding of the host.
// Built twice: as a complete library, and with FAKE_WITHOUT_SHUTDOWN lacking mlShutdown.
// Modes: 1 logs "fake: init"; 2 publishes query tables built on the stack; 3 asks for the
// region, the input image of that region and the output image; 4 does the same, fills the cache
// keys "fake:<f>" of the frame and the two before with their frame numbers, writes "frame <n>"
// to output buffer (7, -1) and answers 1 if the call is cancelled. mlShutdown logs
// "fake: shutdown" through the last logger seen.
#include <atomic>
#include <cstring>
#include <string>

#include "ML/Host.h"

namespace {

std::atomic<ML::Logger*> g_logger{nullptr};

void say(const std::string& text) {
    if (ML::Logger* logger = g_logger) logger->log(ML::makeString(text));
}

ML::i32 render(ML::Host* host, ML::u64 call, bool prepareOnly) {
    const ML::u32 frame = host->getFrame(call);
    const ML::Result<ML::Rect> roi = host->getROI(call, frame);
    if (roi.status) return roi.status;
    if (const auto input = host->getInputImage(call, frame, &roi.value, {0, -1}); input.status) return input.status;
    if (const auto output = host->getOutputImage(call, frame, {0, -1}); output.status) return output.status;
    if (prepareOnly) return 0;
    if (host->isCancelled(call)) return ML::STATUS_CANCELLED;
    for (ML::u32 f = frame > 2 ? frame - 2 : 0; f <= frame; ++f) {
        ML::u32 stored = 0, wanted = f;
        const auto cached = host->computeCachedBuffer(call, &wanted, ML::makeString("fake:" + std::to_string(f)),
                                                      sizeof(f), [](void*, void* user, ML::Ptr<ML::Buffer> buffer) {
                                                          std::memcpy(buffer->getData(), user, sizeof(ML::u32));
                                                          return ML::Result<void>{};
                                                      });
        if (cached.status) return cached.status;
        std::memcpy(&stored, cached.value->getData(), sizeof(stored));
        if (stored != f) return ML::STATUS_OTHER;
    }
    const auto text = host->getOutputBuffer(call, frame, {7, -1});
    if (text.status) return text.status;
    const std::string line = "frame " + std::to_string(frame);
    text.value->resize(line.size() + 1);
    std::memcpy(text.value->getData(), line.c_str(), line.size() + 1);
    host->setProgress(call, 1.0f);
    return 0;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ML::i32 mlMain(ML::Host* host, ML::u64 call) {
    g_logger = host->getLogger();
    switch (host->getCallMode(call)) {
        case 1: say("fake: init"); return 0;
        case 2: {
            const auto name = [](int index) { return ML::makeString("fake" + std::to_string(index)); };
            const auto deviceName = [](int, int device) { return ML::makeString("device" + std::to_string(device)); };
            const ML::PluginQueryFunctions queries{[] { return 2; }, name, name, [](int index) { return index + 1; },
                                                   deviceName, name, [] { return 1; }, [](int) { return 0; }};
            const auto intParam = [](int target, int param, int model) { return target * 100 + param * 10 + model; };
            const ML::PluginParamFunctions params{intParam, [](int, int, int) { return ML::makeString("p"); }, nullptr};
            host->setPluginQueryFunctions(call, &queries, &params);
            return 0;
        }
        case 3: return render(host, call, true);
        case 4: return render(host, call, false);
        default: return ML::STATUS_OTHER;
    }
}

#ifndef FAKE_WITHOUT_SHUTDOWN
extern "C" __attribute__((visibility("default"))) ML::i32 mlShutdown() {
    say("fake: shutdown");
    return 0;
}
#endif
