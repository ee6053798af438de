#include "Plugin/MultiTensor.h"

#include "ML/ImageImp.h"

namespace ML {

std::shared_ptr<BackendTensor> MultiTensor::acquire(const std::vector<u64>& shape, u32 dataType) {
    u64 bytes = bytesPerElement(dataType);
    for (u64 extent : shape) bytes *= extent;
    if (bytes > capacity) {
        backing = modelContext->createTensor({bytes}, U8);
        capacity = bytes;
    }
    return backing->view(shape, dataType);
}

}  // namespace ML
