#include "Plugin/ImageTensorHDRNormalizer.h"

#include <Imath/half.h>

#include <algorithm>
#include <cmath>

#include "Util/ML_Util.h"

namespace ML {

// ---- Worker ----

ImageTensorHDRNormalizer::Worker::Worker(std::shared_ptr<ModelContext> context)
    : modelContext(context), statsFinder(context) {}

void ImageTensorHDRNormalizer::Worker::init(const Ptr<Image>& description) {
    const Rect rect = description->getRect();
    height = rect.height();
    width = rect.width();
    dataType = description->getDataType();
    paramsTensor = modelContext->createTensor({4}, dataType);
    statsFinder.init(dataType);
}

void ImageTensorHDRNormalizer::Worker::findStats(const std::shared_ptr<BackendTensor>& tensor, float& minOut,
                                                 float& maxOut) {
    statsFinder.find(tensor, minOut, maxOut);
}

std::string ImageTensorHDRNormalizer::Worker::networkKey(u64 batch) const {
    return std::string(typeName(dataType)) + "_" + std::to_string(batch) + "x" + std::to_string(height) + "x" +
           std::to_string(width);
}

void ImageTensorHDRNormalizer::Worker::run(bool forward, u64 batch, const std::vector<float>& values,
                                           const std::shared_ptr<BackendTensor>& sourceTensor,
                                           const std::shared_ptr<BackendTensor>& destinationTensor) {
    if (dataType == F32) {
        paramsTensor->upload(values.data());
    } else if (dataType == F16) {
        const std::vector<Imath::half> halves(values.begin(), values.end());
        paramsTensor->upload(halves.data());
    } else {
        ML_THROW("normalize/denormalize only runs in float16 or float32");
    }

    const std::string key = networkKey(batch);
    auto& networks = forward ? normalizeNetworks : denormalizeNetworks;
    auto found = networks.find(key);
    if (found == networks.end()) {
        const std::string name = (forward ? "normalize-input_" : "denormalize-output_") + key;
        found = networks.emplace(key, modelContext->loadModel(name)).first;
    }
    found->second->run({sourceTensor, paramsTensor}, {destinationTensor}, -1);
}

std::vector<std::string> ImageTensorHDRNormalizer::Worker::loadedNetworks() const {
    std::vector<std::string> names;
    for (const auto& entry : normalizeNetworks) names.push_back("normalize-input_" + entry.first);
    for (const auto& entry : denormalizeNetworks) names.push_back("denormalize-output_" + entry.first);
    return names;
}

// ---- ImageTensorHDRNormalizer ----

ImageTensorHDRNormalizer::ImageTensorHDRNormalizer(std::shared_ptr<ModelContext> modelContext, u32 workerCount) {
    workers.reserve(workerCount);
    for (u32 i = 0; i < workerCount; ++i) workers.push_back(std::make_unique<Worker>(modelContext));
}

ImageTensorHDRNormalizer::~ImageTensorHDRNormalizer() = default;

ImageTensorHDRNormalizer::Worker& ImageTensorHDRNormalizer::worker(u32 workerIndex) {
    if (workerIndex >= workers.size())
        ML_THROW("normaliser worker " + std::to_string(workerIndex) + " out of range, have " +
                 std::to_string(workers.size()));
    return *workers[workerIndex];
}

void ImageTensorHDRNormalizer::initWorkers(const Ptr<Image>& description) {
    for (auto& w : workers) w->init(description);
}

void ImageTensorHDRNormalizer::updateParams() {
    float low = 1.0f;
    float high = 1.0f;
    if (!(presetHigh < 0.0f)) {
        low = presetLow;
        high = presetHigh;
    }
    // A range wider than 1 is squeezed into 0..1 and lifted by a gamma that grows with its width.
    const float span = rangeMax - rangeMin;
    if (span > 1.0f) {
        low = 1.0f;
        high = std::max(std::log2(span), high);
    }
    needsNormalizing = !(low == high && !(rangeMin < 0.0f) && !(rangeMax > 1.0f));
    params = {low, high, rangeMin, rangeMax};
}

void ImageTensorHDRNormalizer::reset(float low, float high) {
    std::lock_guard<std::mutex> lock(mutex);
    presetLow = low;
    presetHigh = high;
    rangeMin = 0.0f;
    rangeMax = 1.0f;
    updateParams();
}

void ImageTensorHDRNormalizer::observe(u32 workerIndex, const std::shared_ptr<BackendTensor>& tensor) {
    float minimum = 0.0f;
    float maximum = 1.0f;
    worker(workerIndex).findStats(tensor, minimum, maximum);

    std::lock_guard<std::mutex> lock(mutex);
    bool changed = false;
    if (rangeMin > minimum) {
        rangeMin = minimum;
        changed = true;
    }
    if (maximum > rangeMax) {
        rangeMax = maximum;
        changed = true;
    }
    if (changed) updateParams();
}

std::vector<float> ImageTensorHDRNormalizer::getParams() const {
    std::lock_guard<std::mutex> lock(mutex);
    return params;
}

void ImageTensorHDRNormalizer::normalize(u32 workerIndex, u64 batch, const std::shared_ptr<BackendTensor>& sourceTensor,
                                         const std::shared_ptr<BackendTensor>& destinationTensor) {
    Worker& w = worker(workerIndex);
    w.run(true, batch, getParams(), sourceTensor, destinationTensor);
}

void ImageTensorHDRNormalizer::denormalize(u32 workerIndex, u64 batch,
                                           const std::shared_ptr<BackendTensor>& sourceTensor,
                                           const std::shared_ptr<BackendTensor>& destinationTensor) {
    Worker& w = worker(workerIndex);
    w.run(false, batch, getParams(), sourceTensor, destinationTensor);
}

}  // namespace ML
