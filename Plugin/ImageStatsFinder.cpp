#include "Plugin/ImageStatsFinder.h"

#include <Imath/half.h>

#include <string>

#include "Util/ML_Util.h"

namespace ML {

ImageStatsFinder::ImageStatsFinder(std::shared_ptr<ModelContext> context) : modelContext(std::move(context)) {}

void ImageStatsFinder::init(u32 type) {
    if (type != F32 && type != F16) ML_THROW("stats finder only works on float32 or float16");
    dataType = type;
    network = modelContext->loadModel(std::string("imgcvt/GET_IMAGE_STATS_") + typeName(dataType));
    result = modelContext->createTensor({2}, dataType);
    initialised = true;
}

void ImageStatsFinder::find(const std::shared_ptr<BackendTensor>& tensor, float& minOut, float& maxOut) {
    if (!initialised) ML_THROW("stats finder used before init");
    network->run({tensor}, {result}, -1);
    if (dataType == F32) {
        float values[2];
        result->download(values);
        minOut = values[0];
        maxOut = values[1];
    } else {
        Imath::half values[2];
        result->download(values);
        minOut = values[0];
        maxOut = values[1];
    }
}

}  // namespace ML
