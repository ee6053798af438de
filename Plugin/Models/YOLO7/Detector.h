#pragma once
// The object detector: a raw network and a suppression network run on one image at a fixed
// execution size, leaving 256 rows of detections. The detection effect runs it once per frame
// behind the host's cache; other effects find faces in one picture with run_detector.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ML/Buffer.h"
#include "ML/Host.h"
#include "Plugin/Detection.h"
#include "Plugin/ModelContext.h"

namespace ML {

class ImageTensorConverter;
class ModelCommon;

namespace YOLO7 {

// The tensors of one detector at execution size H x W with K keypoints.
struct DetectorTensors {
    DetectorTensors(ModelContext& context, u32 dataType, i32 execH, i32 execW, int keypoints);

    std::shared_ptr<BackendTensor> input;  // 1, 3, H, W of the precision type
    std::shared_ptr<BackendTensor> raw;    // 1, (W / 64) * (H / 64) * 255, row floats; F32
    std::shared_ptr<BackendTensor> count;  // 1; F32
    std::shared_ptr<BackendTensor> nms;    // 256, row floats; F32
    Ptr<Image> target;                     // planar RGB of W x H: the picture is resampled to it
};

// One pass: the picture into the input, the detector, and, when it counted any candidate, the
// suppression network, whose rows land in `rows` (detectionBufferBytes(K) bytes); otherwise
// `rows` is zeroed.
void detectorPass(ImageTensorConverter& converter, DetectorTensors& tensors, BackendModel& detector,
                  BackendModel& suppression, const Ptr<Image>& image, void* rows, u64 rowsBytes);

// The cache key of a frame's rows: "nms_out_<frame>_<modelId>", the frame as the host numbers it.
std::string detectionRowsKey(u32 frame, const std::string& modelId);

// The rows of `frame` for the model `modelId` (K keypoints): the host's cached buffer under
// "nms_out_<frame>_<modelId>", or a new one that `pass(rows, bytes)` fills. Any render of the
// frame later reads the rows without running a network, as long as the host keeps them.
Ptr<Buffer> cachedDetectionRows(Host* host, u64 call, u32 frame, const std::string& modelId, int keypoints,
                                const std::function<void(void* rows, u64 bytes)>& pass);

class Detector {
public:
    // The only id is "fd0": faces, 1280 x 768, five keypoints.
    Detector(std::shared_ptr<ModelContext> modelContext, std::string id);

    // The faces in `image`, in its own pixels, above `threshold`.
    void detect(ImageTensorConverter& converter, const Ptr<Image>& image, float threshold, std::vector<Detection>& out);

    i32 height() const { return H; }
    i32 width() const { return W; }
    int keypoints() const { return K; }

private:
    std::string id;
    std::shared_ptr<ModelContext> modelContext;
    u32 dataType;
    std::shared_ptr<BackendModel> detectorModel, nmsModel;
    u64 rowFloats_ = 0, rowBytes_ = 0;
    std::unique_ptr<DetectorTensors> tensors;
    BufferImp rows;
    i32 H = 0, W = 0;
    int K = 0;
};

}  // namespace YOLO7

// The faces of `image` found by the detector of `id` (made at first use and kept by `common`).
void run_detector(ModelCommon& common, std::vector<Detection>& out, const std::string& id, const Ptr<Image>& image);

}  // namespace ML
