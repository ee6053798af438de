#include "Plugin/ImageUpresSampler.h"

#include <stdexcept>

#include "Util/ML_Util.h"

namespace ML {

namespace {
constexpr u64 kPlainCount = 7;
constexpr u64 kSplitCount = 13;
}  // namespace

bool upresSamplerSplitsParameters(const std::string& backendName, const std::string& version) {
    if (backendName != "coreml") return false;
    // The whole number in the first two characters; a leading non-digit gives none.
    i32 major = 0;
    size_t digits = 0;
    while (digits < 2 && digits < version.size() && version[digits] >= '0' && version[digits] <= '9')
        major = major * 10 + (version[digits++] - '0');
    return digits > 0 && major >= 12;
}

std::vector<float> upresSamplerParameters(const TiledExecution::Tile& tile, float scale, i32 originX, i32 originY,
                                          bool split) {
    const i32 integers[6] = {tile.dstRect.x0 - tile.dstTileRect.x0, tile.dstRect.y0 - tile.dstTileRect.y0,
                             tile.srcRect.x0 - tile.srcTileRect.x0, tile.srcRect.y0 - tile.srcTileRect.y0,
                             originX, originY};
    std::vector<float> values;
    values.reserve(split ? kSplitCount : kPlainCount);
    for (i32 value : integers) {
        if (split) {
            values.push_back(static_cast<float>(value / 256));
            values.push_back(static_cast<float>(value % 256));
        } else {
            values.push_back(static_cast<float>(value));
        }
    }
    values.push_back(scale);
    return values;
}

ImageUpresSampler::ImageUpresSampler(std::shared_ptr<ModelContext> context) : modelContext(std::move(context)) {}

void ImageUpresSampler::init(u64 batch, u64 height, u64 width, u32 dataType) {
    const std::string name = std::string("upres_sampler_") + pixelTypeName(dataType) + "_" + std::to_string(batch) +
                             "x" + std::to_string(height) + "x" + std::to_string(width);
    network = modelContext->loadModel(name);
    splitParameters = upresSamplerSplitsParameters(modelContext->getBackendName(), modelContext->getVersion());
    const u64 count = splitParameters ? kSplitCount : kPlainCount;
    parameters.assign(count, 0.0f);
    parameterTensorOnDevice = modelContext->createTensor({1, count, 1, 1}, F32);
    initialised = true;
}

void ImageUpresSampler::sample(const std::shared_ptr<BackendTensor>& sourceTensor,
                               const std::shared_ptr<BackendTensor>& destinationTensor,
                               const TiledExecution::Tile& tile, float scale, i32 originX, i32 originY) {
    if (!initialised) throw std::runtime_error("Must initialize ImageUpresSampler before using!");
    parameters = upresSamplerParameters(tile, scale, originX, originY, splitParameters);
    parameterTensorOnDevice->upload(parameters.data());
    network->run({sourceTensor, parameterTensorOnDevice}, {destinationTensor});
}

}  // namespace ML
