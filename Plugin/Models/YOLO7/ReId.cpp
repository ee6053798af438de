#include "Plugin/Models/YOLO7/ReId.h"

#include <algorithm>

#include <Imath/half.h>

#include "ML/Exception.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/PluginLogger.h"

namespace ML {
namespace YOLO7 {

const std::array<std::array<float, 2>, 5> kFaceTemplate{{
    {38.2946f, 51.6963f},
    {73.5318f, 51.5014f},
    {56.0252f, 71.7366f},
    {41.5493f, 92.3655f},
    {70.7299f, 92.2041f},
}};

AffineTransform umeyamaSimilarity(const PointSet& src, const PointSet& dst) {
    if (src.rows() != dst.rows()) ML_THROW("src & dst shapes must match!");
    const float n = static_cast<float>(src.rows());
    const Eigen::RowVector2f srcMean = src.colwise().mean();
    const Eigen::RowVector2f dstMean = dst.colwise().mean();
    const PointSet s = src.rowwise() - srcMean;
    const PointSet d = dst.rowwise() - dstMean;

    // Covariance of destination against source.
    const Eigen::Matrix2f a = d.transpose() * s / n;
    Eigen::Vector2f e(1.0f, 1.0f);
    if (a.determinant() < 0.0f) e(1) = -1.0f;
    const Eigen::JacobiSVD<Eigen::Matrix2f> svd(a, Eigen::ComputeFullU | Eigen::ComputeFullV);

    Eigen::FullPivLU<Eigen::Matrix2f> lu(a);
    lu.setThreshold(1.1920929e-7f * 2.0f);  // float epsilon times the smaller dimension
    const auto rank = lu.rank();
    if (rank == 0) ML_THROW("rank 0! NaN! TODO: handle this??");
    if (rank == 1) ML_THROW("rank == dim-1 case found! TODO: check this against python reference implementation!\n");

    const Eigen::Matrix2f r = svd.matrixU() * e.asDiagonal() * svd.matrixV().transpose();
    const float variance = s.col(0).squaredNorm() / n + s.col(1).squaredNorm() / n;
    const float c = svd.singularValues().dot(e) / variance;
    AffineTransform m;
    m.leftCols<2>() = c * r;
    m.col(2) = dstMean.transpose() - c * r * srcMean.transpose();
    return m;
}

AffineTransform faceAlignment(const std::vector<Keypoint>& keypoints, int size) {
    if (keypoints.size() != kFaceTemplate.size()) ML_THROW("expected 5 keypoints for ReId embedding generation!");
    const float scale = static_cast<float>(size) / static_cast<float>(kReIdCropSize);
    PointSet src(5, 2), dst(5, 2);
    for (int i = 0; i < 5; ++i) {
        const auto k = static_cast<std::size_t>(i);
        src.row(i) << keypoints[k].x, keypoints[k].y;
        dst.row(i) << kFaceTemplate[k][0] * scale, kFaceTemplate[k][1] * scale;
    }
    try {
        return umeyamaSimilarity(src, dst);
    } catch (const std::exception&) {
        logError("least squares failed! using default transform but this is probably not a good solution!");
        return AffineTransform::Identity();
    }
}

AffineTransform invertAffine(const AffineTransform& m) {
    const Eigen::Matrix2f inverse = m.leftCols<2>().inverse();
    AffineTransform out;
    out.leftCols<2>() = inverse;
    out.col(2) = -inverse * m.col(2);
    return out;
}

ReIdBackendResources::ReIdBackendResources(std::shared_ptr<ModelContext> context, const std::string& reidName,
                                           u32 dataType)
    : modelContext(std::move(context)), dataType_(dataType) {
    if (dataType_ != F16 && dataType_ != F32) ML_THROW("unexpected dtype??");
    cropModel = modelContext->loadModel("warp_affine_crop");
    embeddingModel = modelContext->loadModel(reidName);
    crop = modelContext->createTensor({1, 3, kReIdCropSize, kReIdCropSize}, dataType_);
    matrix = modelContext->createTensor({2, 3}, dataType_);
    embedding = modelContext->createTensor({1, kReIdEmbeddingSize}, dataType_);
}

void ReIdBackendResources::uploadFrame(ImageTensorConverter& converter, const Ptr<Image>& frame) {
    const Rect rect = frame->getRect();
    if (rect.height() != sourceHeight || rect.width() != sourceWidth) {
        source.reset();
        source = modelContext->createTensor({1, 3, static_cast<u64>(rect.height()), static_cast<u64>(rect.width())},
                                            dataType_);
        sourceDescription = makeDescription(rect.height(), rect.width(), Image::RGB, Image::CHW, dataType_);
        sourceHeight = rect.height();
        sourceWidth = rect.width();
    }
    converter.hostImageToTensor(frame, sourceDescription, source);
}

void ReIdBackendResources::uploadMatrix(const AffineTransform& m) {
    const float rowMajor[6] = {m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2)};
    if (dataType_ == F32) {
        matrix->upload(rowMajor);
    } else {
        Imath::half halves[6];
        std::transform(rowMajor, rowMajor + 6, halves, [](float v) { return Imath::half(v); });
        matrix->upload(halves);
    }
}

void ReIdBackendResources::downloadEmbedding(std::vector<float>& out) {
    out.resize(kReIdEmbeddingSize);
    if (dataType_ == F32) {
        embedding->download(out.data());
    } else {
        std::array<Imath::half, kReIdEmbeddingSize> halves;
        embedding->download(halves.data());
        std::transform(halves.begin(), halves.end(), out.begin(), [](Imath::half h) { return static_cast<float>(h); });
    }
}

void ReIdBackendResources::computeEmbeddings(ImageTensorConverter& converter, const Ptr<Image>& frame,
                                             const std::vector<Detection>& detections,
                                             std::vector<TrackedObjectReading>& readings, i32 reidExecH,
                                             i32 reidExecW) {
    if (detections.size() != readings.size())
        ML_THROW(std::to_string(readings.size()) + " readings for " + std::to_string(detections.size()) +
                 " detections");
    uploadFrame(converter, frame);
    // Keypoints are in the image's coordinates; the source tensor starts at its rectangle's corner.
    const Rect rect = frame->getRect();
    const Eigen::Vector2f origin(static_cast<float>(rect.x0), static_cast<float>(rect.y0));
    for (std::size_t i = 0; i < readings.size(); ++i) {
        TrackedObjectReading& reading = readings[i];
        reading.reIdEnabled = true;
        if (reidExecH != reidExecW) ML_THROW("reid exec size must be square!");
        AffineTransform cropToImage = invertAffine(faceAlignment(detections[i].keypoints, reidExecH));
        cropToImage.col(2) -= origin;
        uploadMatrix(cropToImage);
        cropModel->run({source, matrix}, {crop});
        embeddingModel->run({crop}, {embedding});
        downloadEmbedding(reading.reIdEmbedding);
    }
}

void computeEmbeddings(ReIdBackendResources& resources, ImageTensorConverter& converter, const Ptr<Image>& frame,
                       const std::vector<Detection>& detections, std::vector<TrackedObjectReading>& readings,
                       i32 reidExecH, i32 reidExecW) {
    resources.computeEmbeddings(converter, frame, detections, readings, reidExecH, reidExecW);
}

}  // namespace YOLO7
}  // namespace ML
