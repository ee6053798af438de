#pragma once
// The host application's interface, as the plug-in sees it, and the result record of host and
// backend calls.
#include <string>

#include "ML/Buffer.h"
#include "ML/Exception.h"
#include "ML/ImageImp.h"
#include "ML/Logger.h"

namespace ML {

template <class T>
struct Result {
    i32 status = 0;  // 0 success, 1 cancelled, 2 host-side failure, 4 other failure
    Ptr<StringT<char>> error;
    T value{};
};

template <>
struct Result<void> {
    i32 status = 0;
    Ptr<StringT<char>> error;
};

// Names one image or buffer of the effect; index is -1 where there is one.
struct ResourceId {
    i32 id = 0;
    i32 index = -1;
};

namespace detail {
[[noreturn]] inline void raiseResult(i32 status, const Ptr<StringT<char>>& error, const std::string& text, u32 source) {
    if (status == STATUS_CANCELLED) throw Exception(Exception::PLUGIN, Exception::CANCEL, "");
    const std::string err = toStd(error);
    const std::string message = text.empty() ? err : text + " : " + err;
    throw Exception(source, status == STATUS_HOST ? Exception::HOST : Exception::INTERNAL, message);
}
}  // namespace detail

// Takes the value of a good result; turns a bad one into an ML::Exception.
template <class T>
T checkResult(Result<T> result, const std::string& text = {}, u32 source = Exception::PLUGIN) {
    if (result.status != STATUS_OK) detail::raiseResult(result.status, result.error, text, source);
    result.error.reset();
    return std::move(result.value);
}

inline void checkResult(Result<void> result, const std::string& text = {}, u32 source = Exception::PLUGIN) {
    if (result.status != STATUS_OK) detail::raiseResult(result.status, result.error, text, source);
}

// Fill function of the host's compute cache. The first argument means nothing to the plug-in.
using FillFunction = Result<void> (*)(void* opaque, void* user, Ptr<Buffer> buffer);

// Query tables handed to the host in call mode 2; plain tables of function pointers.
struct PluginQueryFunctions {
    int (*getNumBackends)();
    Ptr<StringT<char>> (*getBackendName)(int backendIndex);
    Ptr<StringT<char>> (*getBackendDetail)(int backendIndex);
    int (*getNumDevices)(int backendIndex);
    Ptr<StringT<char>> (*getDeviceName)(int backendIndex, int deviceIndex);
    Ptr<StringT<char>> (*getBackendLabel)(int backendIndex);
    int (*getDefaultBackendIndex)();
    int (*getDefaultDeviceIndex)(int backendIndex);
};

struct PluginParamFunctions {
    int (*getIntPluginParam)(int target, int paramId, int modelIndex);
    Ptr<StringT<char>> (*getStringPluginParam)(int target, int paramId, int modelIndex);
    void* end;  // always null
};

class Host {
public:
    virtual int getCallMode(u64 call) = 0;                                       // 0
    virtual int getTarget(u64 call) = 0;                                         // 1
    virtual Logger* getLogger() = 0;                                             // 2
    virtual void setBusyLoading(u64 call, bool busy) = 0;                        // 3
    virtual u32 getFrame(u64 call) = 0;                                          // 4
    virtual void unusedSlot5() {}                                                // 5, never called
    virtual Result<Rect> getROI(u64 call, u32 frame) = 0;                        // 6
    virtual Result<Ptr<Image>> getInputImage(u64 call, u32 frame, const Rect* wanted, ResourceId id) = 0;  // 7
    virtual Result<Ptr<Image>> getOutputImage(u64 call, u32 frame, ResourceId id) = 0;                    // 8
    virtual Result<Ptr<Buffer>> getInputBuffer(u64 call, u32 frame, ResourceId id) = 0;                   // 9
    virtual Result<Ptr<Buffer>> getOutputBuffer(u64 call, u32 frame, ResourceId id) = 0;                  // 10
    virtual Ptr<StringT<char>> getBackendName(u64 call) = 0;                     // 11
    virtual u32 getDeviceId(u64 call) = 0;                                       // 12, 0xFFFFFFFF: default
    virtual Result<Ptr<Buffer>> computeCachedBuffer(u64 call, void* user, Ptr<StringT<char>> key, u64 size,
                                                    FillFunction fill) = 0;      // 13
    virtual Result<Ptr<Buffer>> findCachedBuffer(u64 call, Ptr<StringT<char>> key) = 0;  // 14
    virtual bool isCancelled(u64 call) = 0;                                      // 15
    virtual void setProgress(u64 call, float fraction) = 0;                      // 16
    virtual float getFloatParam(u64 call, int id, int index) = 0;                // 17
    virtual int getIntParam(u64 call, int id, int index) = 0;                    // 18
    virtual Ptr<StringT<char>> getStringParam(u64 call, int id, int index) = 0;  // 19
    virtual void setPluginQueryFunctions(u64 call, const PluginQueryFunctions* queries,
                                         const PluginParamFunctions* params) = 0;  // 20

protected:
    ~Host() = default;
};

constexpr u32 DEFAULT_DEVICE = 0xFFFFFFFFu;

// Entry points of the plug-in library.
using MainFunction = i32 (*)(Host* host, u64 call);
using ShutdownFunction = i32 (*)();

}  // namespace ML
