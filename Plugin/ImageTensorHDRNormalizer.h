#pragma once
// Brings tiles whose values leave 0..1 into a range a denoiser can work on, and back. A first pass over the
// frame's tiles observes their smallest and largest values; from that range (and a preset of two gammas, when
// the owner sets one) come four parameters, low, high, rangeMin and rangeMax, that the package's networks
// "normalize-input_<key>" and "denormalize-output_<key>" apply, with key "<type>_<N>x<H>x<W>". The networks
// are loaded by that bare name from the model folder.
//
// One normaliser is shared by the workers of a render; its mutex guards the range, the preset and the
// parameters. Each worker owns its networks and tensors and is used by one thread.
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "ML/ImageImp.h"
#include "Plugin/ImageStatsFinder.h"
#include "Plugin/ModelContext.h"

namespace ML {

class ImageTensorHDRNormalizer {
public:
    class Worker {
    public:
        explicit Worker(std::shared_ptr<ModelContext> modelContext);

        // Takes height, width and data type of the tiles this worker will see.
        void init(const Ptr<Image>& description);
        void findStats(const std::shared_ptr<BackendTensor>& tensor, float& minOut, float& maxOut);
        // Uploads the four parameters and runs the normalise (forward) or denormalise network.
        void run(bool forward, u64 batch, const std::vector<float>& params,
                 const std::shared_ptr<BackendTensor>& sourceTensor,
                 const std::shared_ptr<BackendTensor>& destinationTensor);

        // "F16_1x1080x1920"
        std::string networkKey(u64 batch) const;
        // Names of the networks loaded so far, normalise and denormalise together.
        std::vector<std::string> loadedNetworks() const;

    private:
        std::shared_ptr<ModelContext> modelContext;
        u32 dataType = U8;  // not a float type until init
        i32 height = 0;
        i32 width = 0;
        std::unordered_map<std::string, std::shared_ptr<BackendModel>> normalizeNetworks;
        std::unordered_map<std::string, std::shared_ptr<BackendModel>> denormalizeNetworks;
        std::shared_ptr<BackendTensor> paramsTensor;
        ImageStatsFinder statsFinder;
    };

    ImageTensorHDRNormalizer(std::shared_ptr<ModelContext> modelContext, u32 workerCount);
    ~ImageTensorHDRNormalizer();
    ImageTensorHDRNormalizer(const ImageTensorHDRNormalizer&) = delete;
    ImageTensorHDRNormalizer& operator=(const ImageTensorHDRNormalizer&) = delete;

    void initWorkers(const Ptr<Image>& description);

    // Starts a measuring pass: range back to 0..1, preset low and high (high negative: no preset).
    void reset(float low, float high);
    // Widens the range by the smallest and largest value of `tensor`.
    void observe(u32 workerIndex, const std::shared_ptr<BackendTensor>& tensor);

    void normalize(u32 workerIndex, u64 batch, const std::shared_ptr<BackendTensor>& sourceTensor,
                   const std::shared_ptr<BackendTensor>& destinationTensor);
    void denormalize(u32 workerIndex, u64 batch, const std::shared_ptr<BackendTensor>& sourceTensor,
                     const std::shared_ptr<BackendTensor>& destinationTensor);

    // Copies taken under the lock: low, high, rangeMin, rangeMax.
    std::vector<float> getParams() const;
    u32 workerCount() const { return static_cast<u32>(workers.size()); }
    Worker& worker(u32 workerIndex);

private:
    void updateParams();  // with the mutex held

    mutable std::mutex mutex;
    float rangeMin = 0.0f;
    float rangeMax = 1.0f;
    float presetLow = 1.0f;
    float presetHigh = 1.0f;

public:
    // Written under the mutex during the measuring pass; owners read it once that pass is over.
    bool needsNormalizing = false;

private:
    std::vector<float> params{1.0f, 1.0f, 0.0f, 1.0f};
    std::vector<std::unique_ptr<Worker>> workers;
};

}  // namespace ML
