#include "Plugin/Models/DA2/Context.h"

#include <mutex>

#include "Plugin/ModelCommon.h"
#include "Plugin/Models/DA2/RenderState.h"
#include "Util/ML_Util.h"

namespace ML::DA2 {

void Context::render(Host* host, u64 call, bool prepareOnly, const ModelInfo& info, int) {
    RenderState rs(host, call, info);
    if (prepareOnly) return;

    std::lock_guard<std::mutex> lock(modelContext->computeMutex);
    std::shared_ptr<TempState> ts = getTempState(states, info.modelId, host, call, [&] {
        return std::make_shared<TempState>(modelContext, info);
    });

    common->hostImageToTensor(makeNewImageView(rs.inputImage, rs.roi), ts->inputDesc, ts->inputTensor);
    ts->depthModel->run({ts->inputTensor}, {ts->depthTensor}, -1);
    common->tensorToHostImage(ts->depthDesc, ts->depthTensor, makeNewImageView(rs.depthImage, rs.roi));

    if (rs.colorizedImage) {
        Ptr<Image> view = makeNewImageView(rs.colorizedImage, rs.roi);
        clearImage(view);
        ts->colorizeModel->run({ts->depthTensor}, {ts->colorTensor}, -1);
        common->tensorToHostImage(ts->colorDesc, ts->colorTensor, view);
    }
}

}  // namespace ML::DA2
