#pragma once
// Monocular depth: one frame in, a single-channel depth image out, and on request a coloured
// view of it. No state between frames.
#include <memory>
#include <string>
#include <unordered_map>

#include "Plugin/ModelBase.h"
#include "Plugin/Models/DA2/TempState.h"

namespace ML::DA2 {

class Context : public ModelBase {
public:
    using ModelBase::ModelBase;
    void render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int target) override;

private:
    std::unordered_map<std::string, std::shared_ptr<TempState>> states;
};

}  // namespace ML::DA2
