#include "Plugin/ImageTensorGammaConverter.h"

#include <Imath/half.h>

#include <cmath>
#include <string>

#include "Util/ML_Util.h"

namespace ML {

namespace {
void uploadScalar(BackendTensor& tensor, float value) {
    if (tensor.getDataType() == F16) {
        const Imath::half h(value);
        tensor.upload(&h);
    } else {
        tensor.upload(&value);
    }
}
}  // namespace

ImageTensorGammaConverter::ImageTensorGammaConverter(std::shared_ptr<ModelContext> context)
    : modelContext(std::move(context)) {}

void ImageTensorGammaConverter::init(const Ptr<Image>& description, u32 slots, u32 imageCount) {
    const u32 type = description->getDataType();
    if (type != F32 && type != F16) ML_THROW("gamma converter only works on float32 or float16");
    const u32 channels = channelCount(description->getChannelFormat());
    if (channels >= 4) ML_THROW("gamma converter does not handle alpha channel yet?");

    const Rect rect = description->getRect();
    dataType = type;
    batch = imageCount;
    elementCount = static_cast<i64>(channels) * rect.width() * rect.height() * static_cast<i64>(imageCount);
    // A new format: tensors of an earlier one would have the wrong size, so all slots start over.
    workTensors.assign(slots, nullptr);
    sourceGammaTensors.assign(slots, nullptr);
    targetGammaTensors.assign(slots, nullptr);
    network = modelContext->loadModel(std::string("imgcvt/CONVERT_GAMMA_") + typeName(dataType));
    initialised = true;
}

void ImageTensorGammaConverter::convert(const std::shared_ptr<BackendTensor>& tensor, float fromGamma, float toGamma,
                                        u32 slot) {
    if (!(fromGamma > 0.0f && toGamma > 0.0f && std::fabs(fromGamma - toGamma) > 1e-5f)) return;
    if (!initialised) ML_THROW("gamma converter used before init");
    if (slot >= workTensors.size())
        ML_THROW("gamma converter slot " + std::to_string(slot) + " out of range, have " +
                 std::to_string(workTensors.size()));

    if (!workTensors[slot]) {
        // All three or none, so that a failed allocation leaves the slot to be made next time.
        auto work = modelContext->createTensor({static_cast<u64>(elementCount)}, dataType);
        auto source = modelContext->createTensor({1}, dataType);
        auto target = modelContext->createTensor({1}, dataType);
        sourceGammaTensors[slot] = std::move(source);
        targetGammaTensors[slot] = std::move(target);
        workTensors[slot] = std::move(work);
    }
    const std::shared_ptr<BackendTensor>& work = workTensors[slot];
    uploadScalar(*sourceGammaTensors[slot], fromGamma);
    uploadScalar(*targetGammaTensors[slot], toGamma);

    // The caller's tensor is 4D; the network wants it flat, and device copies go by bytes.
    work->copyFrom(*tensor);
    network->run({work, sourceGammaTensors[slot], targetGammaTensors[slot]}, {work}, -1);
    tensor->copyFrom(*work);
}

std::shared_ptr<BackendTensor> ImageTensorGammaConverter::slotWorkTensor(u32 slot) const {
    return slot < workTensors.size() ? workTensors[slot] : nullptr;
}

}  // namespace ML
