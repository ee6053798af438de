#pragma once
// The per-format half of the denoiser: two work slots, each with its own converters, host tile
// image and device tensors, handed out by a SlotQueue in order of arrival.
#include <array>
#include <memory>
#include <vector>

#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ImageTensorGammaConverter.h"
#include "Plugin/ModelContext.h"
#include "Plugin/SlotQueue.h"
#include "Plugin/TiledExecution.h"

namespace ML {

// What one run of the pipeline needs from the render.
struct FastDVDNet_Frames {
    Host* host;
    u64 call;
    u32 frame;
    std::array<Ptr<Image>, 5> inputs;  // frames frame - 2 .. frame + 2
    Ptr<Image> output;
    const TiledExecution::ExecutionPlan* plan;
    std::shared_ptr<BackendModel> stage1, stage2;
    float inGamma, hostGamma;
};

class FastDVDNet_Pipeline {
public:
    FastDVDNet_Pipeline(std::shared_ptr<ModelContext> modelContext, u32 dataType, i32 execW, i32 execH,
                        const Ptr<Image>& hostImage);

    void run(const FastDVDNet_Frames& frames);

    // Bytes of one stage-1 tile result in the cache (three planes of the execution size).
    u64 tileBytes() const;

    struct Slot {
        std::unique_ptr<ImageTensorConverter> converter;
        std::unique_ptr<ImageTensorGammaConverter> gamma;
        std::vector<unsigned char> tileBytes;
        Ptr<Image> tileImage;
        Ptr<Image> tileDescription;
        std::array<std::shared_ptr<BackendTensor>, 3> stage1Inputs;
        std::array<std::shared_ptr<BackendTensor>, 3> stage2Inputs;
        std::shared_ptr<BackendTensor> noiseMap;
        std::shared_ptr<BackendTensor> output;
        Ptr<Image> outputDescription;
    };

private:
    // The stage-1 result of three consecutive frames (inputs first..first + 2), all tiles.
    Ptr<Buffer> stage1Result(const FastDVDNet_Frames& frames, int first);

    std::shared_ptr<ModelContext> modelContext;
    i32 execW, execH;
    SlotQueue queue{2};
    std::vector<Slot> slots;
    u32 dataType;
};

}  // namespace ML
