#pragma once
// Growable scratch tensor on the device that hands out typed views of one backing tensor.
// Views from one scratch alias the same bytes: use one at a time, within one operation.
#include <memory>
#include <vector>

#include "Plugin/ModelContext.h"

namespace ML {

class MultiTensor {
public:
    explicit MultiTensor(std::shared_ptr<ModelContext> modelContext) : modelContext(std::move(modelContext)) {}

    std::shared_ptr<BackendTensor> acquire(const std::vector<u64>& shape, u32 dataType);
    u64 getCapacity() const { return capacity; }

private:
    std::shared_ptr<ModelContext> modelContext;
    std::shared_ptr<BackendTensor> backing;
    u64 capacity = 0;
};

}  // namespace ML
