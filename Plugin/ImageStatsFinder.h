#pragma once
// Smallest and largest value of a tensor, found on the device by the package's network
// "imgcvt/GET_IMAGE_STATS_<type>". No lock: one thread at a time.
#include <memory>

#include "Plugin/ModelContext.h"

namespace ML {

class ImageStatsFinder {
public:
    explicit ImageStatsFinder(std::shared_ptr<ModelContext> modelContext);

    // F16 or F32.
    void init(u32 dataType);
    // `tensor` is 4D in the data type given to init.
    void find(const std::shared_ptr<BackendTensor>& tensor, float& minOut, float& maxOut);

    bool isInitialised() const { return initialised; }

private:
    std::shared_ptr<ModelContext> modelContext;
    u32 dataType = F32;
    std::shared_ptr<BackendModel> network;
    bool initialised = false;
    std::shared_ptr<BackendTensor> result;
};

}  // namespace ML
