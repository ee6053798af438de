#include "Host/Host.h"

#include <stdexcept>

#include "Host/Results.h"

namespace QHost {

Host::Host(std::shared_ptr<ComputeCache> cache)
    : cache_(cache ? std::move(cache) : std::make_shared<ComputeCache>()), logger_(&ownLogger_) {}

Host::~Host() = default;

ML::u64 Host::beginCall(std::shared_ptr<CallSettings> settings) {
    if (!settings) throw std::invalid_argument("beginCall needs call settings");
    const ML::u64 call = nextCall_.fetch_add(1);
    std::unique_lock<std::shared_mutex> lock(callsMutex_);
    calls_.emplace(call, std::move(settings));
    return call;
}

bool Host::endCall(ML::u64 call) {
    std::unique_lock<std::shared_mutex> lock(callsMutex_);
    return calls_.erase(call) != 0;
}

std::shared_ptr<CallSettings> Host::settings(ML::u64 call) const {
    std::shared_lock<std::shared_mutex> lock(callsMutex_);
    const auto it = calls_.find(call);
    return it == calls_.end() ? nullptr : it->second;
}

std::size_t Host::activeCalls() const {
    std::shared_lock<std::shared_mutex> lock(callsMutex_);
    return calls_.size();
}

ML::i32 Host::run(ML::MainFunction main, std::shared_ptr<CallSettings> settings) {
    if (!main) throw std::invalid_argument("run needs an entry point");
    struct Scope {
        Host& host;
        ML::u64 call;
        ~Scope() { host.endCall(call); }
    } scope{*this, beginCall(std::move(settings))};
    return main(this, scope.call);
}

void Host::setLogger(ML::Logger* logger) { logger_.store(logger); }
void Host::useOwnLogger() { logger_.store(&ownLogger_); }

std::optional<ML::PluginQueryFunctions> Host::queryFunctions() const {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    return queryFunctions_;
}

std::optional<ML::PluginParamFunctions> Host::paramFunctions() const {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    return paramFunctions_;
}

std::vector<std::string> Host::misuse() const {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    return misuse_;
}

void Host::noteMisuse(std::string text) {
    std::lock_guard<std::mutex> lock(recordsMutex_);
    misuse_.push_back(std::move(text));
}

std::shared_ptr<CallSettings> Host::find(ML::u64 call, const char* operation) {
    std::shared_ptr<CallSettings> found = settings(call);
    if (!found) noteMisuse(std::string(operation) + " with unknown call handle " + std::to_string(call));
    return found;
}

template <class T>
ML::Result<T> Host::unknownCall(ML::u64 call) const {
    return resultFailure<T>(ML::STATUS_OTHER, "Unknown call handle " + std::to_string(call));
}

// ---- ML::Host ----

int Host::getCallMode(ML::u64 call) {
    const auto s = find(call, "getCallMode");
    return s ? s->mode() : 0;
}

int Host::getTarget(ML::u64 call) {
    const auto s = find(call, "getTarget");
    return s ? s->target() : -1;
}

ML::Logger* Host::getLogger() { return logger_.load(); }

void Host::setBusyLoading(ML::u64 call, bool busy) {
    if (const auto s = find(call, "setBusyLoading")) s->recordBusyLoading(busy);
}

ML::u32 Host::getFrame(ML::u64 call) {
    const auto s = find(call, "getFrame");
    return s ? s->frame() : 0;
}

ML::Result<ML::Rect> Host::getROI(ML::u64 call, ML::u32 frame) {
    const auto s = find(call, "getROI");
    return s ? s->answerRoi(frame) : unknownCall<ML::Rect>(call);
}

ML::Result<ML::Ptr<ML::Image>> Host::getInputImage(ML::u64 call, ML::u32 frame, const ML::Rect* wanted,
                                                   ML::ResourceId id) {
    const auto s = find(call, "getInputImage");
    return s ? s->answerImage(true, frame, wanted, id) : unknownCall<ML::Ptr<ML::Image>>(call);
}

ML::Result<ML::Ptr<ML::Image>> Host::getOutputImage(ML::u64 call, ML::u32 frame, ML::ResourceId id) {
    const auto s = find(call, "getOutputImage");
    return s ? s->answerImage(false, frame, nullptr, id) : unknownCall<ML::Ptr<ML::Image>>(call);
}

ML::Result<ML::Ptr<ML::Buffer>> Host::getInputBuffer(ML::u64 call, ML::u32 frame, ML::ResourceId id) {
    const auto s = find(call, "getInputBuffer");
    return s ? s->answerBuffer(true, frame, id) : unknownCall<ML::Ptr<ML::Buffer>>(call);
}

ML::Result<ML::Ptr<ML::Buffer>> Host::getOutputBuffer(ML::u64 call, ML::u32 frame, ML::ResourceId id) {
    const auto s = find(call, "getOutputBuffer");
    return s ? s->answerBuffer(false, frame, id) : unknownCall<ML::Ptr<ML::Buffer>>(call);
}

ML::Ptr<ML::StringT<char>> Host::getBackendName(ML::u64 call) {
    const auto s = find(call, "getBackendName");
    return ML::makeString(s ? s->backend() : std::string());
}

ML::u32 Host::getDeviceId(ML::u64 call) {
    const auto s = find(call, "getDeviceId");
    return s ? s->deviceId() : ML::DEFAULT_DEVICE;
}

ML::Result<ML::Ptr<ML::Buffer>> Host::computeCachedBuffer(ML::u64 call, void* user, ML::Ptr<ML::StringT<char>> key,
                                                          ML::u64 size, ML::FillFunction fill) {
    const auto s = find(call, "computeCachedBuffer");
    if (!s) return unknownCall<ML::Ptr<ML::Buffer>>(call);
    CacheRequest request;
    request.key = ML::toStd(key);
    request.size = size;
    request.compute = true;
    ML::Result<ML::Ptr<ML::Buffer>> result;
    if (auto failure = s->injectedFailure(HostOperation::COMPUTE_CACHED_BUFFER)) {
        result = resultFailure<ML::Ptr<ML::Buffer>>(failure->status, failure->text);
    } else if (!key) {
        noteMisuse("computeCachedBuffer without a key");
        result = resultFailure<ML::Ptr<ML::Buffer>>(ML::STATUS_OTHER, "No key given for the compute cache");
    } else {
        result = cache_->compute(request.key, size, fill, s.get(), user);
    }
    request.found = static_cast<bool>(result.value);
    request.status = result.status;
    s->recordCacheRequest(std::move(request));
    return result;
}

ML::Result<ML::Ptr<ML::Buffer>> Host::findCachedBuffer(ML::u64 call, ML::Ptr<ML::StringT<char>> key) {
    const auto s = find(call, "findCachedBuffer");
    if (!s) return unknownCall<ML::Ptr<ML::Buffer>>(call);
    CacheRequest request;
    request.key = ML::toStd(key);
    ML::Result<ML::Ptr<ML::Buffer>> result;
    if (auto failure = s->injectedFailure(HostOperation::FIND_CACHED_BUFFER)) {
        result = resultFailure<ML::Ptr<ML::Buffer>>(failure->status, failure->text);
    } else if (!key) {
        noteMisuse("findCachedBuffer without a key");
        result = resultFailure<ML::Ptr<ML::Buffer>>(ML::STATUS_OTHER, "No key given for the compute cache");
    } else {
        result = resultOk(cache_->find(request.key));
    }
    request.found = static_cast<bool>(result.value);
    request.status = result.status;
    s->recordCacheRequest(std::move(request));
    return result;
}

bool Host::isCancelled(ML::u64 call) {
    const auto s = find(call, "isCancelled");
    return s ? s->answerIsCancelled() : true;
}

void Host::setProgress(ML::u64 call, float fraction) {
    if (const auto s = find(call, "setProgress")) s->recordProgress(fraction);
}

float Host::getFloatParam(ML::u64 call, int id, int index) {
    const auto s = find(call, "getFloatParam");
    return s ? s->answerFloatParam(id, index) : 0.0f;
}

int Host::getIntParam(ML::u64 call, int id, int index) {
    const auto s = find(call, "getIntParam");
    return s ? s->answerIntParam(id, index) : 0;
}

ML::Ptr<ML::StringT<char>> Host::getStringParam(ML::u64 call, int id, int index) {
    const auto s = find(call, "getStringParam");
    return ML::makeString(s ? s->answerStringParam(id, index) : std::string());
}

void Host::setPluginQueryFunctions(ML::u64 call, const ML::PluginQueryFunctions* queries,
                                   const ML::PluginParamFunctions* params) {
    const auto s = find(call, "setPluginQueryFunctions");
    if (!queries || !params) noteMisuse("setPluginQueryFunctions with a null table");
    if (s) s->recordQueryFunctions(queries, params);
    std::lock_guard<std::mutex> lock(recordsMutex_);
    if (queries) queryFunctions_ = *queries;
    if (params) paramFunctions_ = *params;
}

}  // namespace QHost
