#include "Plugin/MultiTensor.h"

#include <algorithm>

#include "ML/ImageImp.h"

namespace ML {

std::shared_ptr<BackendTensor> MultiTensor::acquire(const std::vector<u64>& shape, u32 dataType) {
    u64 bytes = bytesPerElement(dataType);
    for (u64 extent : shape) bytes *= extent;
    if (!backing || bytes > capacity) {
        // At least one byte, so that even a zero-sized view has a backing tensor behind it.
        capacity = std::max<u64>(bytes, 1);
        backing = modelContext->createTensor({capacity}, U8);
    }
    return backing->view(shape, dataType);
}

}  // namespace ML
