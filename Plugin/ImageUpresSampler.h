#pragma once
// Resamples a network tile to the result's grid at any scale with the package's sampler network
// "upres_sampler_<type>_<N>x<H>x<W>". The network takes the source tile and a small F32
// parameter tensor: the tile's result and source offsets, the origin and the scale. Backends
// that hold the parameters at reduced precision get each integer split in two (value / 256 and
// value % 256), so that each of the two stays exact.
#include <memory>
#include <string>
#include <vector>

#include "Plugin/ModelContext.h"
#include "Plugin/TiledExecution.h"

namespace ML {

// Whether the sampler's parameters are split on this backend: only on "coreml" from version 12
// (the first two characters of the version read as a decimal number).
bool upresSamplerSplitsParameters(const std::string& backendName, const std::string& version);

// The parameters for one tile. Plain: a, b, c, d, originX, originY, scale, with a, b the result
// position of the output tile's first pixel and c, d the source position of the input tile's.
// Split: each of the six integers as value / 256 and value % 256 (truncating), then scale.
std::vector<float> upresSamplerParameters(const TiledExecution::Tile& tile, float scale, i32 originX, i32 originY,
                                          bool split);

class ImageUpresSampler {
public:
    explicit ImageUpresSampler(std::shared_ptr<ModelContext> modelContext);

    // Loads the sampler of this execution size and element type and makes its parameter tensor.
    void init(u64 batch, u64 height, u64 width, u32 dataType);

    // Runs the sampler on a source tile into a destination tile of the network's size. Result
    // position p reads the source at (p + 0.5 - origin) / scale + origin - 0.5 per axis.
    void sample(const std::shared_ptr<BackendTensor>& sourceTensor,
                const std::shared_ptr<BackendTensor>& destinationTensor, const TiledExecution::Tile& tile,
                float scale, i32 originX, i32 originY);

    bool isInitialised() const { return initialised; }
    bool splitsParameters() const { return splitParameters; }
    // The values last given to the network.
    const std::vector<float>& parameterValues() const { return parameters; }
    const std::shared_ptr<BackendTensor>& parameterTensor() const { return parameterTensorOnDevice; }

private:
    std::shared_ptr<ModelContext> modelContext;
    bool initialised = false;
    std::shared_ptr<BackendModel> network;
    std::vector<float> parameters;
    std::shared_ptr<BackendTensor> parameterTensorOnDevice;
    bool splitParameters = false;
};

}  // namespace ML
