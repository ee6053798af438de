#pragma once
// Stands in for a model family that this build does not contain, so that every target and
// model type is reachable and fails with a clear message instead of an unknown type.
#include "Plugin/ModelBase.h"

namespace ML {

class UnavailableModel : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;
};

}  // namespace ML
