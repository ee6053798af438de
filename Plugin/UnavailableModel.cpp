#include "Plugin/UnavailableModel.h"

namespace ML {

void UnavailableModel::render(Host*, u64, bool, const ModelInfo& info, int target) {
    ML_THROW("Model type \"" + info.modelType + "\" of target " + std::to_string(target) +
             " is not available in this build");
}

}  // namespace ML
