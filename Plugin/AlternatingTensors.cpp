#include "Plugin/AlternatingTensors.h"

#include <stdexcept>

namespace ML {

AlternatingTensors::AlternatingTensors(std::shared_ptr<ModelContext> context, std::shared_ptr<BackendTensor> first,
                                       std::shared_ptr<BackendTensor> second)
    : modelContext(std::move(context)) {
    if (!first && !second) return;
    if (!first || !second)
        throw std::runtime_error("AlternatingTensors: must provide both t0 and t1, or neither");
    if (first->getShape().size() != second->getShape().size())
        throw std::runtime_error("AlternatingTensors: t0 and t1 must have the same rank");
    if (first->getShape() != second->getShape())
        throw std::runtime_error("AlternatingTensors: t0 and t1 must have the same shape");
    if (first->getDataType() != second->getDataType())
        throw std::runtime_error("AlternatingTensors: t0 and t1 must have the same dtype");
    t0 = std::move(first);
    t1 = std::move(second);
    index = 0;
    initialised = true;
}

void AlternatingTensors::init(const std::vector<u64>& shape, u32 dataType) {
    if (initialised) return;
    t0 = modelContext->createTensor(shape, dataType);
    t1 = modelContext->createTensor(shape, dataType);
    index = 0;
    initialised = true;
}

void AlternatingTensors::checkInitialised() const {
    if (!initialised) throw std::runtime_error("Must initialize AlternatingTensors before using!");
}

const std::shared_ptr<BackendTensor>& AlternatingTensors::current() const {
    checkInitialised();
    return index == 0 ? t0 : t1;
}

const std::shared_ptr<BackendTensor>& AlternatingTensors::next() const {
    checkInitialised();
    return index == 0 ? t1 : t0;
}

void AlternatingTensors::swap() {
    checkInitialised();
    index = 1 - index;
}

}  // namespace ML
