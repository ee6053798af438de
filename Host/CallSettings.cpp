#include "Host/CallSettings.h"

#include <algorithm>

#include "Host/Results.h"

namespace QHost {

using Lock = std::lock_guard<std::mutex>;

CallSettings::CallSettings(int mode, int target) : mode_(mode), target_(target) {}

// ---- configuration ----

void CallSettings::setMode(int mode) { Lock lock(mutex_); mode_ = mode; }
int CallSettings::mode() const { Lock lock(mutex_); return mode_; }
void CallSettings::setTarget(int target) { Lock lock(mutex_); target_ = target; }
int CallSettings::target() const { Lock lock(mutex_); return target_; }
void CallSettings::setFrame(ML::u32 frame) { Lock lock(mutex_); frame_ = frame; }
ML::u32 CallSettings::frame() const { Lock lock(mutex_); return frame_; }
void CallSettings::setBackend(const std::string& name) { Lock lock(mutex_); backend_ = name; }
std::string CallSettings::backend() const { Lock lock(mutex_); return backend_; }
void CallSettings::setDeviceId(ML::u32 deviceId) { Lock lock(mutex_); deviceId_ = deviceId; }
ML::u32 CallSettings::deviceId() const { Lock lock(mutex_); return deviceId_; }

void CallSettings::setRoi(ML::u32 frame, const ML::Rect& roi) { Lock lock(mutex_); rois_[frame] = roi; }
void CallSettings::setDefaultRoi(const ML::Rect& roi) { Lock lock(mutex_); defaultRoi_ = roi; }

void CallSettings::setIntParam(int id, int index, int value) { Lock lock(mutex_); intParams_[{id, index}] = value; }
void CallSettings::setFloatParam(int id, int index, float value) {
    Lock lock(mutex_);
    floatParams_[{id, index}] = value;
}
void CallSettings::setStringParam(int id, int index, const std::string& value) {
    Lock lock(mutex_);
    stringParams_[{id, index}] = value;
}
void CallSettings::setModelIndex(int modelIndex) { setIntParam(3, 0, modelIndex); }
void CallSettings::setDataFolder(const std::string& folder) { setStringParam(1, 0, folder); }
void CallSettings::setAuxFolder(const std::string& folder) { setStringParam(2, 0, folder); }

void CallSettings::setInputImage(ML::u32 frame, ML::Ptr<ML::Image> image, ML::ResourceId id) {
    Lock lock(mutex_);
    inputImages_[ResourceKey(frame, id)] = std::move(image);
}
void CallSettings::setOutputImage(ML::u32 frame, ML::Ptr<ML::Image> image, ML::ResourceId id) {
    Lock lock(mutex_);
    outputImages_[ResourceKey(frame, id)] = std::move(image);
}
void CallSettings::setInputBuffer(ML::u32 frame, ML::Ptr<ML::Buffer> buffer, ML::ResourceId id) {
    Lock lock(mutex_);
    inputBuffers_[ResourceKey(frame, id)] = std::move(buffer);
}
void CallSettings::setOutputBuffer(ML::u32 frame, ML::Ptr<ML::Buffer> buffer, ML::ResourceId id) {
    Lock lock(mutex_);
    outputBuffers_[ResourceKey(frame, id)] = std::move(buffer);
}
void CallSettings::setInputImageProvider(ImageProvider provider) { Lock lock(mutex_); inputProvider_ = std::move(provider); }
void CallSettings::setOutputImageProvider(ImageProvider provider) {
    Lock lock(mutex_);
    outputProvider_ = std::move(provider);
}
void CallSettings::setCreateOutputBuffers(bool create) { Lock lock(mutex_); createOutputBuffers_ = create; }

void CallSettings::failOperation(HostOperation operation, ML::i32 status, const std::string& text) {
    Lock lock(mutex_);
    failures_[operation] = Failure{status, text};
}
void CallSettings::clearFailures() { Lock lock(mutex_); failures_.clear(); }

void CallSettings::cancel() { Lock lock(mutex_); cancelled_ = true; }
void CallSettings::cancelAfterPolls(ML::u64 polls) { Lock lock(mutex_); cancelAtPoll_ = polls_ + polls; }
void CallSettings::resetCancel() {
    Lock lock(mutex_);
    cancelled_ = false;
    cancelAtPoll_.reset();
}

// ---- inspection ----

template <class T>
T CallSettings::lookup(const std::map<ResourceKey, T>& map, const ResourceKey& key) {
    const auto it = map.find(key);
    return it == map.end() ? T() : it->second;
}

ML::Ptr<ML::Image> CallSettings::inputImage(ML::u32 frame, ML::ResourceId id) const {
    Lock lock(mutex_);
    return lookup(inputImages_, ResourceKey(frame, id));
}
ML::Ptr<ML::Image> CallSettings::outputImage(ML::u32 frame, ML::ResourceId id) const {
    Lock lock(mutex_);
    return lookup(outputImages_, ResourceKey(frame, id));
}
ML::Ptr<ML::Buffer> CallSettings::inputBuffer(ML::u32 frame, ML::ResourceId id) const {
    Lock lock(mutex_);
    return lookup(inputBuffers_, ResourceKey(frame, id));
}
ML::Ptr<ML::Buffer> CallSettings::outputBuffer(ML::u32 frame, ML::ResourceId id) const {
    Lock lock(mutex_);
    return lookup(outputBuffers_, ResourceKey(frame, id));
}
std::map<ResourceKey, ML::Ptr<ML::Buffer>> CallSettings::outputBuffers() const { Lock lock(mutex_); return outputBuffers_; }

std::vector<ResourceRequest> CallSettings::inputImageRequests() const { Lock lock(mutex_); return inputImageRequests_; }
std::vector<ResourceRequest> CallSettings::outputImageRequests() const { Lock lock(mutex_); return outputImageRequests_; }
std::vector<ResourceRequest> CallSettings::inputBufferRequests() const { Lock lock(mutex_); return inputBufferRequests_; }
std::vector<ResourceRequest> CallSettings::outputBufferRequests() const {
    Lock lock(mutex_);
    return outputBufferRequests_;
}
std::vector<CacheRequest> CallSettings::cacheRequests() const { Lock lock(mutex_); return cacheRequests_; }
std::vector<ML::u32> CallSettings::roiRequests() const { Lock lock(mutex_); return roiRequests_; }
std::vector<DefaultedParam> CallSettings::defaultedParams() const { Lock lock(mutex_); return defaultedParams_; }
std::vector<float> CallSettings::progress() const { Lock lock(mutex_); return progress_; }
std::vector<bool> CallSettings::busyLoading() const { Lock lock(mutex_); return busyLoading_; }
bool CallSettings::isBusyLoading() const { Lock lock(mutex_); return !busyLoading_.empty() && busyLoading_.back(); }
ML::u64 CallSettings::cancelPolls() const { Lock lock(mutex_); return polls_; }
bool CallSettings::cancelled() const {
    Lock lock(mutex_);
    return cancelled_ || (cancelAtPoll_ && polls_ >= *cancelAtPoll_);
}
std::optional<ML::PluginQueryFunctions> CallSettings::queryFunctions() const { Lock lock(mutex_); return queryFunctions_; }
std::optional<ML::PluginParamFunctions> CallSettings::paramFunctions() const { Lock lock(mutex_); return paramFunctions_; }

void CallSettings::clearRecords() {
    Lock lock(mutex_);
    inputImageRequests_.clear();
    outputImageRequests_.clear();
    inputBufferRequests_.clear();
    outputBufferRequests_.clear();
    cacheRequests_.clear();
    roiRequests_.clear();
    defaultedParams_.clear();
    progress_.clear();
    busyLoading_.clear();
    if (cancelAtPoll_) cancelAtPoll_ = *cancelAtPoll_ >= polls_ ? *cancelAtPoll_ - polls_ : 0;
    polls_ = 0;
}

// ---- answers ----

std::optional<CallSettings::Failure> CallSettings::injectedFailure(HostOperation operation) const {
    Lock lock(mutex_);
    return failureLocked(operation);
}

std::optional<CallSettings::Failure> CallSettings::failureLocked(HostOperation operation) const {
    const auto it = failures_.find(operation);
    if (it == failures_.end()) return std::nullopt;
    return it->second;
}

ML::Result<ML::Rect> CallSettings::answerRoi(ML::u32 frame) {
    const ResourceKey main(frame, 0, -1);
    ImageProvider provider;
    {
        Lock lock(mutex_);
        roiRequests_.push_back(frame);
        if (auto failure = failureLocked(HostOperation::ROI)) return resultFailure<ML::Rect>(failure->status, failure->text);
        if (const auto it = rois_.find(frame); it != rois_.end()) return resultOk(it->second);
        if (defaultRoi_) return resultOk(*defaultRoi_);
        if (const auto it = inputImages_.find(main); it != inputImages_.end()) {
            if (it->second) return resultOk(it->second->getRect());
        } else {
            provider = inputProvider_;
        }
    }
    const std::string missing = "No region of interest for frame " + std::to_string(frame);
    if (!provider) return resultFailure<ML::Rect>(ML::STATUS_HOST, missing);
    ML::Ptr<ML::Image> image;
    try {
        image = provider(frame, main.resource(), nullptr);
    } catch (const std::exception& e) {
        return resultFailure<ML::Rect>(ML::STATUS_HOST, missing + ": " + e.what());
    } catch (...) {
        return resultFailure<ML::Rect>(ML::STATUS_HOST, missing);
    }
    Lock lock(mutex_);
    image = inputImages_.emplace(main, image).first->second;
    if (!image) return resultFailure<ML::Rect>(ML::STATUS_HOST, missing);
    return resultOk(image->getRect());
}

ML::Result<ML::Ptr<ML::Image>> CallSettings::answerImage(bool input, ML::u32 frame, const ML::Rect* wanted,
                                                         ML::ResourceId id) {
    using ImageResult = ML::Result<ML::Ptr<ML::Image>>;
    ResourceRequest request;
    request.key = ResourceKey(frame, id);
    if (wanted) request.wanted = *wanted;
    auto& images = input ? inputImages_ : outputImages_;
    auto& requests = input ? inputImageRequests_ : outputImageRequests_;
    ImageProvider provider;
    {
        Lock lock(mutex_);
        if (auto failure = failureLocked(input ? HostOperation::INPUT_IMAGE : HostOperation::OUTPUT_IMAGE)) {
            request.status = failure->status;
            requests.push_back(request);
            return resultFailure<ML::Ptr<ML::Image>>(failure->status, failure->text);
        }
        if (const auto it = images.find(request.key); it != images.end()) {
            request.provided = static_cast<bool>(it->second);
            requests.push_back(request);
            return resultOk(it->second);
        }
        provider = input ? inputProvider_ : outputProvider_;
        if (!provider) {
            requests.push_back(request);
            return ImageResult{};
        }
    }
    // The provider may read from disk: it runs without the lock.
    ML::Ptr<ML::Image> image;
    std::string error;
    try {
        image = provider(frame, id, wanted);
    } catch (const std::exception& e) {
        error = e.what();
    } catch (...) {
        error = "unknown error";
    }
    Lock lock(mutex_);
    if (!error.empty()) {
        request.status = ML::STATUS_HOST;
        requests.push_back(request);
        return resultFailure<ML::Ptr<ML::Image>>(
            ML::STATUS_HOST,
            std::string("Could not provide ") + (input ? "input" : "output") + " image of " + request.key.toString() +
                ": " + error);
    }
    // When two threads raced for the same image, the first answer stays.
    image = images.emplace(request.key, image).first->second;
    request.provided = static_cast<bool>(image);
    requests.push_back(request);
    return resultOk(image);
}

ML::Result<ML::Ptr<ML::Buffer>> CallSettings::answerBuffer(bool input, ML::u32 frame, ML::ResourceId id) {
    ResourceRequest request;
    request.key = ResourceKey(frame, id);
    Lock lock(mutex_);
    auto& requests = input ? inputBufferRequests_ : outputBufferRequests_;
    if (auto failure = failureLocked(input ? HostOperation::INPUT_BUFFER : HostOperation::OUTPUT_BUFFER)) {
        request.status = failure->status;
        requests.push_back(request);
        return resultFailure<ML::Ptr<ML::Buffer>>(failure->status, failure->text);
    }
    auto& buffers = input ? inputBuffers_ : outputBuffers_;
    ML::Ptr<ML::Buffer> buffer;
    if (const auto it = buffers.find(request.key); it != buffers.end())
        buffer = it->second;
    else if (!input && createOutputBuffers_)
        buffer = buffers.emplace(request.key, ML::Ptr<ML::Buffer>(new ML::BufferImp(0))).first->second;
    request.provided = static_cast<bool>(buffer);
    requests.push_back(request);
    return resultOk(buffer);
}

namespace {
void noteDefault(std::vector<DefaultedParam>& list, DefaultedParam param) {
    if (std::find(list.begin(), list.end(), param) == list.end()) list.push_back(param);
}
}  // namespace

int CallSettings::answerIntParam(int id, int index) {
    Lock lock(mutex_);
    if (const auto it = intParams_.find({id, index}); it != intParams_.end()) return it->second;
    noteDefault(defaultedParams_, {DefaultedParam::INT, id, index});
    return 0;
}

float CallSettings::answerFloatParam(int id, int index) {
    Lock lock(mutex_);
    if (const auto it = floatParams_.find({id, index}); it != floatParams_.end()) return it->second;
    noteDefault(defaultedParams_, {DefaultedParam::FLOAT, id, index});
    return 0.0f;
}

std::string CallSettings::answerStringParam(int id, int index) {
    Lock lock(mutex_);
    if (const auto it = stringParams_.find({id, index}); it != stringParams_.end()) return it->second;
    noteDefault(defaultedParams_, {DefaultedParam::STRING, id, index});
    return {};
}

bool CallSettings::answerIsCancelled() {
    Lock lock(mutex_);
    ++polls_;
    if (cancelAtPoll_ && polls_ > *cancelAtPoll_) cancelled_ = true;
    return cancelled_;
}

void CallSettings::recordProgress(float fraction) { Lock lock(mutex_); progress_.push_back(fraction); }
void CallSettings::recordBusyLoading(bool busy) { Lock lock(mutex_); busyLoading_.push_back(busy); }
void CallSettings::recordCacheRequest(CacheRequest request) { Lock lock(mutex_); cacheRequests_.push_back(std::move(request)); }

void CallSettings::recordQueryFunctions(const ML::PluginQueryFunctions* queries, const ML::PluginParamFunctions* params) {
    Lock lock(mutex_);
    if (queries) queryFunctions_ = *queries;
    if (params) paramFunctions_ = *params;
}

}  // namespace QHost
