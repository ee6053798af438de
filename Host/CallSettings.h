#pragma once
// Everything one render call of the plug-in is answered with, and the record of what the plug-in
// asked for during it.
//
// A CallSettings is registered with a QHost::Host for the length of one mlMain call
// (Host::beginCall / Host::endCall, or Host::run); the host answers every question of the
// plug-in about that call from it. The same settings may serve several calls in a row, for
// example mode 3 and then mode 4 of one frame; records accumulate until clearRecords().
//
// Three groups of members:
//   - configuration: set by the test or the command-line host, normally before the call;
//   - answers: used by QHost::Host only (private, Host is a friend);
//   - inspection: what the plug-in asked for and produced, read after (or during) the call.
// All members are thread-safe: the plug-in may use one call from several threads, and cancel()
// is meant to be called from any thread.
//
// Defaults: mode 4 (render), target 0, frame 0, backend "" (the plug-in's default backend), device
// ML::DEFAULT_DEVICE, int and float parameters 0, string parameters "" (so the model index, int
// parameter 3 index 0, is 0). Images and buffers that are not set are absent (null with status 0),
// except output buffers, which are created empty on request unless setCreateOutputBuffers(false).
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Host/CallRecords.h"
#include "ML/Host.h"

namespace QHost {

class Host;

class CallSettings {
public:
    // Gives the image for (frame, id) of a call, or null when there is none. wanted is the
    // rectangle the plug-in asked for, or null (always null for output images and for the lookup
    // of a default region of interest). Called without any lock held, possibly from several
    // threads at once; an exception becomes a host-side failure (status 2) of the request.
    using ImageProvider = std::function<ML::Ptr<ML::Image>(ML::u32 frame, ML::ResourceId id, const ML::Rect* wanted)>;

    explicit CallSettings(int mode = 4, int target = 0);
    CallSettings(const CallSettings&) = delete;
    CallSettings& operator=(const CallSettings&) = delete;

    // ---- configuration ----

    void setMode(int mode);
    int mode() const;
    void setTarget(int target);  // -1: all targets
    int target() const;
    void setFrame(ML::u32 frame);
    ML::u32 frame() const;
    void setBackend(const std::string& name);  // "" selects the plug-in's default backend
    std::string backend() const;
    void setDeviceId(ML::u32 deviceId);  // ML::DEFAULT_DEVICE selects the backend's default device
    ML::u32 deviceId() const;

    // Region of interest of one frame. Without one, getROI answers with the default region if set,
    // else with the rectangle of the frame's main input image (id 0, index -1, preset or from the
    // input provider), else with a host-side failure.
    void setRoi(ML::u32 frame, const ML::Rect& roi);
    void setDefaultRoi(const ML::Rect& roi);

    void setIntParam(int id, int index, int value);
    void setFloatParam(int id, int index, float value);
    void setStringParam(int id, int index, const std::string& value);
    void setModelIndex(int modelIndex);                // int parameter 3, index 0
    void setDataFolder(const std::string& folder);     // string parameter 1, index 0
    void setAuxFolder(const std::string& folder);      // string parameter 2, index 0

    // Images and buffers by frame and resource id (index -1 where the resource has one item).
    // A null pointer makes the resource explicitly absent.
    void setInputImage(ML::u32 frame, ML::Ptr<ML::Image> image, ML::ResourceId id = {0, -1});
    void setOutputImage(ML::u32 frame, ML::Ptr<ML::Image> image, ML::ResourceId id = {0, -1});
    void setInputBuffer(ML::u32 frame, ML::Ptr<ML::Buffer> buffer, ML::ResourceId id);
    void setOutputBuffer(ML::u32 frame, ML::Ptr<ML::Buffer> buffer, ML::ResourceId id);
    // Providers for images not set above; their answers are kept, so each (frame, id) is asked
    // for once per settings object unless two threads race for it.
    void setInputImageProvider(ImageProvider provider);
    void setOutputImageProvider(ImageProvider provider);
    // true (default): an output buffer not set is created empty when the plug-in asks for it.
    void setCreateOutputBuffers(bool create);

    // Makes every later request of one operation fail with the status and text given
    // (1 cancelled, 2 host-side failure, 3 or 4 other failure).
    void failOperation(HostOperation operation, ML::i32 status, const std::string& text);
    void clearFailures();

    // Cancellation: cancel() makes every later isCancelled poll answer true. cancelAfterPolls(n)
    // lets the next n polls answer false and every poll after them true. resetCancel() undoes both.
    void cancel();
    void cancelAfterPolls(ML::u64 polls);
    void resetCancel();

    // ---- inspection ----

    ML::Ptr<ML::Image> inputImage(ML::u32 frame, ML::ResourceId id = {0, -1}) const;
    ML::Ptr<ML::Image> outputImage(ML::u32 frame, ML::ResourceId id = {0, -1}) const;
    ML::Ptr<ML::Buffer> inputBuffer(ML::u32 frame, ML::ResourceId id) const;
    ML::Ptr<ML::Buffer> outputBuffer(ML::u32 frame, ML::ResourceId id) const;
    std::map<ResourceKey, ML::Ptr<ML::Buffer>> outputBuffers() const;

    // Every request of the plug-in in order of arrival, including refused ones.
    std::vector<ResourceRequest> inputImageRequests() const;
    std::vector<ResourceRequest> outputImageRequests() const;
    std::vector<ResourceRequest> inputBufferRequests() const;
    std::vector<ResourceRequest> outputBufferRequests() const;
    std::vector<CacheRequest> cacheRequests() const;
    std::vector<ML::u32> roiRequests() const;          // frames whose region was asked for
    std::vector<DefaultedParam> defaultedParams() const;  // reads of parameters with no value set

    std::vector<float> progress() const;      // every setProgress value
    std::vector<bool> busyLoading() const;    // every setBusyLoading value
    bool isBusyLoading() const;               // the last setBusyLoading value (false before any)
    ML::u64 cancelPolls() const;              // isCancelled polls so far
    bool cancelled() const;                   // whether the next poll answers true

    // Query tables published through this call (mode 2), copied.
    std::optional<ML::PluginQueryFunctions> queryFunctions() const;
    std::optional<ML::PluginParamFunctions> paramFunctions() const;

    // Forgets requests, progress, busy-loading values and the poll count; keeps the configuration,
    // the images and buffers (output buffers included) and the cancellation state.
    void clearRecords();

private:
    friend class Host;

    struct Failure {
        ML::i32 status;
        std::string text;
    };

    ML::Result<ML::Rect> answerRoi(ML::u32 frame);
    ML::Result<ML::Ptr<ML::Image>> answerImage(bool input, ML::u32 frame, const ML::Rect* wanted, ML::ResourceId id);
    ML::Result<ML::Ptr<ML::Buffer>> answerBuffer(bool input, ML::u32 frame, ML::ResourceId id);
    int answerIntParam(int id, int index);
    float answerFloatParam(int id, int index);
    std::string answerStringParam(int id, int index);
    bool answerIsCancelled();
    void recordProgress(float fraction);
    void recordBusyLoading(bool busy);
    void recordCacheRequest(CacheRequest request);
    void recordQueryFunctions(const ML::PluginQueryFunctions* queries, const ML::PluginParamFunctions* params);
    // The injected failure of an operation, if any; the second with mutex_ held.
    std::optional<Failure> injectedFailure(HostOperation operation) const;
    std::optional<Failure> failureLocked(HostOperation operation) const;

    template <class T>
    static T lookup(const std::map<ResourceKey, T>& map, const ResourceKey& key);

    mutable std::mutex mutex_;

    int mode_;
    int target_;
    ML::u32 frame_ = 0;
    std::string backend_;
    ML::u32 deviceId_ = ML::DEFAULT_DEVICE;
    std::map<ML::u32, ML::Rect> rois_;
    std::optional<ML::Rect> defaultRoi_;
    std::map<std::pair<int, int>, int> intParams_;
    std::map<std::pair<int, int>, float> floatParams_;
    std::map<std::pair<int, int>, std::string> stringParams_;
    std::map<ResourceKey, ML::Ptr<ML::Image>> inputImages_;
    std::map<ResourceKey, ML::Ptr<ML::Image>> outputImages_;
    std::map<ResourceKey, ML::Ptr<ML::Buffer>> inputBuffers_;
    std::map<ResourceKey, ML::Ptr<ML::Buffer>> outputBuffers_;
    ImageProvider inputProvider_;
    ImageProvider outputProvider_;
    bool createOutputBuffers_ = true;
    std::map<HostOperation, Failure> failures_;

    bool cancelled_ = false;
    std::optional<ML::u64> cancelAtPoll_;  // polls beyond this number answer true
    ML::u64 polls_ = 0;

    std::vector<ResourceRequest> inputImageRequests_;
    std::vector<ResourceRequest> outputImageRequests_;
    std::vector<ResourceRequest> inputBufferRequests_;
    std::vector<ResourceRequest> outputBufferRequests_;
    std::vector<CacheRequest> cacheRequests_;
    std::vector<ML::u32> roiRequests_;
    std::vector<DefaultedParam> defaultedParams_;
    std::vector<float> progress_;
    std::vector<bool> busyLoading_;
    std::optional<ML::PluginQueryFunctions> queryFunctions_;
    std::optional<ML::PluginParamFunctions> paramFunctions_;
};

}  // namespace QHost
