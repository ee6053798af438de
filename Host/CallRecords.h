#pragma once
// Plain records that describe one render call: the key of an image or buffer, and what the
// plug-in asked the host for during the call.
#include <optional>
#include <string>
#include <tuple>

#include "ML/Host.h"

namespace QHost {

// Names one image or buffer of a call: a frame plus the resource id the plug-in asks with.
struct ResourceKey {
    ML::u32 frame = 0;
    ML::i32 id = 0;
    ML::i32 index = -1;

    ResourceKey() = default;
    ResourceKey(ML::u32 frame, ML::i32 id, ML::i32 index) : frame(frame), id(id), index(index) {}
    ResourceKey(ML::u32 frame, ML::ResourceId resource) : frame(frame), id(resource.id), index(resource.index) {}

    ML::ResourceId resource() const { return {id, index}; }
    bool operator<(const ResourceKey& o) const {
        return std::tie(frame, id, index) < std::tie(o.frame, o.id, o.index);
    }
    bool operator==(const ResourceKey& o) const { return frame == o.frame && id == o.id && index == o.index; }
    bool operator!=(const ResourceKey& o) const { return !(*this == o); }
    // "frame F id I index X"
    std::string toString() const {
        return "frame " + std::to_string(frame) + " id " + std::to_string(id) + " index " + std::to_string(index);
    }
};

// One getInputImage, getOutputImage, getInputBuffer or getOutputBuffer of the plug-in.
struct ResourceRequest {
    ResourceKey key;
    std::optional<ML::Rect> wanted;  // the rectangle passed to getInputImage, if not null
    bool provided = false;           // the host answered with a non-null object
    ML::i32 status = 0;              // status of the answer
};

// One computeCachedBuffer (compute true) or findCachedBuffer (compute false) of the plug-in.
struct CacheRequest {
    std::string key;
    ML::u64 size = 0;  // the size passed to computeCachedBuffer; 0 for findCachedBuffer
    bool compute = false;
    bool found = false;  // the answer carried a buffer
    ML::i32 status = 0;
};

// A parameter the plug-in read without a value set for it, answered with the default.
struct DefaultedParam {
    enum Kind { INT, FLOAT, STRING };
    Kind kind = INT;
    int id = 0;
    int index = 0;
    bool operator==(const DefaultedParam& o) const { return kind == o.kind && id == o.id && index == o.index; }
};

// The host operations that report through ML::Result; each can be made to fail for tests.
enum class HostOperation {
    ROI,
    INPUT_IMAGE,
    OUTPUT_IMAGE,
    INPUT_BUFFER,
    OUTPUT_BUFFER,
    COMPUTE_CACHED_BUFFER,
    FIND_CACHED_BUFFER,
};

}  // namespace QHost
