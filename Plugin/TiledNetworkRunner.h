#pragma once
// Runs a network with one input and one output at equal resolution over an execution plan:
// each tile is filled from the source with edge replication, converted to the network's input,
// run, converted back, and its trustworthy crop copied into the result.
#include <memory>
#include <vector>

#include "ML/Host.h"
#include "Plugin/ModelContext.h"
#include "Plugin/TiledExecution.h"

namespace ML {

class ModelCommon;

class TiledNetworkRunner {
public:
    // The descriptions give the network's tensor formats at the execution size of the plans
    // that will be run.
    TiledNetworkRunner(std::shared_ptr<BackendModel> network, Ptr<Image> inputDescription,
                       std::shared_ptr<BackendTensor> inputTensor, Ptr<Image> outputDescription,
                       std::shared_ptr<BackendTensor> outputTensor);

    // Polls cancellation and reports progress between tiles when host is set.
    void run(ModelCommon& common, const TiledExecution::ExecutionPlan& plan, const Ptr<Image>& source,
             const Ptr<Image>& result, Host* host = nullptr, u64 call = 0);

private:
    // Host-side tile image at the execution size in the given image's format.
    Ptr<Image> tileImage(std::vector<u8>& storage, const Image& like, i32 width, i32 height);

    std::shared_ptr<BackendModel> network;
    Ptr<Image> inputDescription;
    std::shared_ptr<BackendTensor> inputTensor;
    Ptr<Image> outputDescription;
    std::shared_ptr<BackendTensor> outputTensor;
    std::vector<u8> sourceTileStorage;
    std::vector<u8> resultTileStorage;
};

}  // namespace ML
