#pragma once
// Re-identification: the appearance of each detected face as 512 floats, so that the tracker can
// tell faces apart by looks rather than by position. The five keypoints of a face are fitted to a
// fixed template by a similarity transform; "warp_affine_crop" cuts the straightened face out of
// the whole frame on the device, and the embedding network turns the crop into the embedding.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include <Eigen/Dense>

#include "ML/ImageImp.h"
#include "Plugin/Detection.h"
#include "Plugin/ModelContext.h"
#include "Plugin/Models/YOLO7/TrackedObjectReading.h"

namespace ML {

class ImageTensorConverter;

namespace YOLO7 {

constexpr int kReIdCropSize = 112;
constexpr int kReIdEmbeddingSize = 512;

// The five-point face template in a 112 x 112 crop, x then y: the image-left eye, the image-right
// eye, the nose tip, the image-left and image-right mouth corners.
extern const std::array<std::array<float, 2>, 5> kFaceTemplate;

// A 2 x 3 transform [A | t]: a point p goes to A p + t.
using AffineTransform = Eigen::Matrix<float, 2, 3>;
using PointSet = Eigen::Matrix<float, Eigen::Dynamic, 2>;  // one point per row, x then y

// The least-squares similarity (rotation, uniform scale, translation; Umeyama's method) taking
// src onto dst. Throws for point sets of different sizes and for degenerate sets (every point
// the same, or all on one line).
AffineTransform umeyamaSimilarity(const PointSet& src, const PointSet& dst);

// The transform taking a face's keypoints onto the template at size S (the template times
// S / 112). A face whose fit fails gets the identity and an error line in the log. Throws when the
// face does not have exactly five keypoints.
AffineTransform faceAlignment(const std::vector<Keypoint>& keypoints, int size);

// [A | t] -> [A^-1 | -A^-1 t].
AffineTransform invertAffine(const AffineTransform& m);

// Networks and tensors of re-identification, made once on the first frame of advanced tracking
// and reused. Holds no lock: callers hold the compute mutex of the ModelContext.
class ReIdBackendResources {
public:
    // dataType: the effect's type, F16 or F32 ("unexpected dtype??" otherwise); reidName: the
    // embedding network of the model description's "tracking_config".
    ReIdBackendResources(std::shared_ptr<ModelContext> modelContext, const std::string& reidName, u32 dataType);

    // The embedding of each reading's face: readings[i] belongs to detections[i]. The frame is
    // uploaded once, then each face is cropped and embedded on the device; each reading gets
    // reIdEnabled and 512 floats. reidExecH and reidExecW (the template's size) must be equal.
    void computeEmbeddings(ImageTensorConverter& converter, const Ptr<Image>& frame,
                           const std::vector<Detection>& detections, std::vector<TrackedObjectReading>& readings,
                           i32 reidExecH, i32 reidExecW);

    u32 dataType() const { return dataType_; }

private:
    // The frame into the source tensor, made anew when the frame's size changes.
    void uploadFrame(ImageTensorConverter& converter, const Ptr<Image>& frame);
    void uploadMatrix(const AffineTransform& cropToSource);
    void downloadEmbedding(std::vector<float>& out);

    std::shared_ptr<BackendModel> cropModel;
    std::shared_ptr<BackendModel> embeddingModel;
    std::shared_ptr<BackendTensor> crop;       // 1, 3, 112, 112
    std::shared_ptr<BackendTensor> matrix;     // 2, 3
    std::shared_ptr<BackendTensor> embedding;  // 1, 512
    std::shared_ptr<ModelContext> modelContext;
    u32 dataType_;
    i32 sourceHeight = -1, sourceWidth = -1;
    std::shared_ptr<BackendTensor> source;  // 1, 3, height, width
    Ptr<Image> sourceDescription;
};

// What the detection effect calls between making readings and updating tracks: the embeddings of
// one frame's faces into their readings (see ReIdBackendResources::computeEmbeddings).
void computeEmbeddings(ReIdBackendResources& resources, ImageTensorConverter& converter, const Ptr<Image>& frame,
                       const std::vector<Detection>& detections, std::vector<TrackedObjectReading>& readings,
                       i32 reidExecH, i32 reidExecW);

}  // namespace YOLO7
}  // namespace ML
