#pragma once
// A complete ML::Host in memory: the host side of the plug-in for tests and for the
// command-line host.
//
// Each mlMain call gets a handle from beginCall, tied to the CallSettings that answers it;
// endCall forgets it. run() does all three steps around one entry point. Several calls may be
// active at once on different threads. The compute cache and the logger belong to the host and
// are shared by all calls.
//
// The opaque first argument that computeCachedBuffer passes to a fill function is the
// CallSettings* of the call.
//
// Misuse by the plug-in that the interface cannot report (an unknown call handle, a null key or
// table) is answered harmlessly and noted in misuse(): an unknown handle gets mode 0, target -1,
// frame 0, cancellation true, status 4 for ML::Result operations and no effect otherwise.
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "Host/CallSettings.h"
#include "Host/CollectingLogger.h"
#include "Host/ComputeCache.h"
#include "ML/Host.h"

namespace QHost {

class Host final : public ML::Host {
public:
    // A null cache gives the host its own cache with the default budget.
    explicit Host(std::shared_ptr<ComputeCache> cache = nullptr);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    // Registers settings for one call and returns its handle (never 0). Throws
    // std::invalid_argument for null settings.
    ML::u64 beginCall(std::shared_ptr<CallSettings> settings);
    // Forgets the handle; returns whether it was active.
    bool endCall(ML::u64 call);
    // The settings of an active call, or null.
    std::shared_ptr<CallSettings> settings(ML::u64 call) const;
    std::size_t activeCalls() const;

    // beginCall, main(this, handle), endCall; returns main's result.
    ML::i32 run(ML::MainFunction main, std::shared_ptr<CallSettings> settings);

    ComputeCache& cache() { return *cache_; }
    const std::shared_ptr<ComputeCache>& sharedCache() const { return cache_; }

    // The host's own logger, which getLogger answers unless setLogger chose another.
    CollectingLogger& logger() { return ownLogger_; }
    // What getLogger answers from now on; null is allowed (a host without a logger, for tests).
    // The logger must outlive its use. useOwnLogger() returns to the host's own.
    void setLogger(ML::Logger* logger);
    void useOwnLogger();

    // The query tables most recently published to this host by any call, copied. The function
    // pointers stay valid only while the plug-in library is loaded.
    std::optional<ML::PluginQueryFunctions> queryFunctions() const;
    std::optional<ML::PluginParamFunctions> paramFunctions() const;

    // Notes on misuse by the plug-in, in order.
    std::vector<std::string> misuse() const;

    // ---- ML::Host ----
    int getCallMode(ML::u64 call) override;
    int getTarget(ML::u64 call) override;
    ML::Logger* getLogger() override;
    void setBusyLoading(ML::u64 call, bool busy) override;
    ML::u32 getFrame(ML::u64 call) override;
    ML::Result<ML::Rect> getROI(ML::u64 call, ML::u32 frame) override;
    ML::Result<ML::Ptr<ML::Image>> getInputImage(ML::u64 call, ML::u32 frame, const ML::Rect* wanted,
                                                 ML::ResourceId id) override;
    ML::Result<ML::Ptr<ML::Image>> getOutputImage(ML::u64 call, ML::u32 frame, ML::ResourceId id) override;
    ML::Result<ML::Ptr<ML::Buffer>> getInputBuffer(ML::u64 call, ML::u32 frame, ML::ResourceId id) override;
    ML::Result<ML::Ptr<ML::Buffer>> getOutputBuffer(ML::u64 call, ML::u32 frame, ML::ResourceId id) override;
    ML::Ptr<ML::StringT<char>> getBackendName(ML::u64 call) override;
    ML::u32 getDeviceId(ML::u64 call) override;
    ML::Result<ML::Ptr<ML::Buffer>> computeCachedBuffer(ML::u64 call, void* user, ML::Ptr<ML::StringT<char>> key,
                                                        ML::u64 size, ML::FillFunction fill) override;
    ML::Result<ML::Ptr<ML::Buffer>> findCachedBuffer(ML::u64 call, ML::Ptr<ML::StringT<char>> key) override;
    bool isCancelled(ML::u64 call) override;
    void setProgress(ML::u64 call, float fraction) override;
    float getFloatParam(ML::u64 call, int id, int index) override;
    int getIntParam(ML::u64 call, int id, int index) override;
    ML::Ptr<ML::StringT<char>> getStringParam(ML::u64 call, int id, int index) override;
    void setPluginQueryFunctions(ML::u64 call, const ML::PluginQueryFunctions* queries,
                                 const ML::PluginParamFunctions* params) override;

private:
    // The settings of call; notes misuse by operation when the handle is unknown.
    std::shared_ptr<CallSettings> find(ML::u64 call, const char* operation);
    void noteMisuse(std::string text);
    template <class T>
    ML::Result<T> unknownCall(ML::u64 call) const;

    std::shared_ptr<ComputeCache> cache_;
    CollectingLogger ownLogger_;
    std::atomic<ML::Logger*> logger_;

    mutable std::shared_mutex callsMutex_;
    std::unordered_map<ML::u64, std::shared_ptr<CallSettings>> calls_;
    std::atomic<ML::u64> nextCall_{1};

    mutable std::mutex recordsMutex_;
    std::vector<std::string> misuse_;
    std::optional<ML::PluginQueryFunctions> queryFunctions_;
    std::optional<ML::PluginParamFunctions> paramFunctions_;
};

}  // namespace QHost
