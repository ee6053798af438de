#include "Plugin/ModelBase.h"

namespace ML {

Rect readROI(Host* host, u64 call, u32 frame) {
    const Rect roi = checkResult(host->getROI(call, frame));
    if (roi.isEmpty()) ML_THROW_HOST("Empty region of interest " + roi.toString() + " for frame " + std::to_string(frame));
    return roi;
}

Ptr<Image> readOutputImage(Host* host, u64 call, u32 frame, i32 id) {
    return checkResult(host->getOutputImage(call, frame, ResourceId{id, -1}));
}

void checkOutputCoversROI(const Ptr<Image>& image, const Rect& roi, u32 frame) {
    const Rect rect = image->getRect();
    if (!covers(rect, roi))
        ML_THROW("Output rect " + rect.toString() + " must cover ROI rect " + roi.toString() + " for frame " +
                 std::to_string(frame));
}

Ptr<Image> readInputImage(Host* host, u64 call, u32 frame, const Rect& roi, i32 id) {
    Ptr<Image> image = checkResult(host->getInputImage(call, frame, &roi, ResourceId{id, -1}));
    if (!image) ML_THROW("No input image returned by host for frame " + std::to_string(frame));
    const Rect rect = image->getRect();
    if (!covers(rect, roi))
        ML_THROW("Input rect " + rect.toString() + " must cover ROI rect " + roi.toString() + " for frame " +
                 std::to_string(frame));
    return image;
}

}  // namespace ML
