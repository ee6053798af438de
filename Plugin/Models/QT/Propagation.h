#pragma once
// The per-frame work of mask propagation on the memory of one state buffer: keyframes into
// memory, one frame through the fixed sequence of networks (with working memory every
// memoryEvery frames), and the run-length stream of a frame's finished masks, both ways.
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "ML/ImageImp.h"
#include "ML/Rect.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/QT/State.h"
#include "Plugin/Models/QT/Tensors.h"
#include "Plugin/TiledExecution.h"

namespace ML::QT {

using Submodels = std::unordered_map<std::string, std::shared_ptr<BackendModel>>;

// One keyframe as the host gave it: the RGB frame and one mask per object (null where the host
// gave none), both cut to the keyframe's rectangle.
struct Keyframe {
    i32 frame = 0;
    Rect rect;
    Ptr<Image> rgb;
    std::vector<Ptr<Image>> masks;
};

void encodeKeyframes(ModelCommon& common, QT_HostState& state, QT_ShapeTensors& tensors, const Submodels& submodels,
                     const std::vector<Keyframe>& keyframes);

// `image` is the frame cut to the output rectangle; leaves each object's mask in tmp.outMasks.
void propagateFrame(ModelCommon& common, QT_HostState& state, QT_ShapeTensors& tensors, QT_TmpHostState& tmp,
                    const Submodels& submodels, TiledExecution::ExecutionPlanMap& plans, i32 frame,
                    const Ptr<Image>& image);

// Length of the stream written to tmp.rleStream.
u64 encodeMasks(QT_ShapeTensors& tensors, QT_TmpHostState& tmp, const Submodels& submodels);
// Fills tmp.outMasks from a cached stream; a stream that does not hold the chunks it claims is
// refused ("Cached mask stream is corrupt").
void decodeMasks(QT_ShapeTensors& tensors, QT_TmpHostState& tmp, const Submodels& submodels, const u8* stream,
                 u64 streamBytes);

// Fills a plane of `count` floats with -1000 in the internal type.
void clearLogits(u8* data, u64 count, i32 dataType);

}  // namespace ML::QT
