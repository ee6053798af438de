#pragma once
// Two device tensors of one shape and type used in turn: a pass reads current() and writes
// next(), then swap() makes the result the input of the following pass.
#include <memory>
#include <vector>

#include "Plugin/ModelContext.h"

namespace ML {

class AlternatingTensors {
public:
    // Both tensors or neither; given ones must agree in rank, extents and data type. Without
    // tensors the pair waits for init.
    explicit AlternatingTensors(std::shared_ptr<ModelContext> modelContext,
                                std::shared_ptr<BackendTensor> t0 = nullptr,
                                std::shared_ptr<BackendTensor> t1 = nullptr);

    // Creates the two tensors on first use; once there, they stay whatever is asked later.
    void init(const std::vector<u64>& shape, u32 dataType);

    const std::shared_ptr<BackendTensor>& current() const;
    const std::shared_ptr<BackendTensor>& next() const;
    void swap();

    bool isInitialised() const { return initialised; }

private:
    void checkInitialised() const;

    std::shared_ptr<ModelContext> modelContext;
    bool initialised = false;
    i32 index = 0;  // 0 or 1: which tensor is current
    std::shared_ptr<BackendTensor> t0;
    std::shared_ptr<BackendTensor> t1;
};

}  // namespace ML
