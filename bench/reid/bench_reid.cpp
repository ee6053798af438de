// Embeddings of faces on a 1920x1080 frame (a Megamind frame stretched) with the package's crop
// and embedding networks: a frame with one face and with eight, against the two networks run
// bare on prepared tensors. Writes a default package into a temporary folder first; prints the
// cost per face and the plug-in's share after the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <Imath/half.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/Media/MediaSource.h"
#include "Host/OwnedImage.h"
#include "Package.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/YOLO7/Detector.h"
#include "Plugin/Models/YOLO7/ReId.h"
#include "bench/util/BestTimes.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

struct Setup {
    std::filesystem::path folder;
    std::shared_ptr<ML::ModelContext> context;
    std::shared_ptr<ML::ModelCommon> common;
    ML::Ptr<QHost::OwnedImage> picture;
    std::unique_ptr<ML::YOLO7::ReIdBackendResources> reid;
    ML::Detection face;
    // The bare networks and their tensors.
    std::shared_ptr<ML::BackendModel> crop, embedding;
    std::shared_ptr<ML::BackendTensor> sourceTensor, matrixTensor, cropTensor, embeddingTensor;

    Setup() : folder(std::filesystem::temp_directory_path() / ("quillon_bench_reid_" + std::to_string(::getpid()))) {
        qpkg::PackageOptions options;
        options.networks = qpkg::defaultNetworksFolder();
        qpkg::writeDefaultPackage(folder, options);
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder / "config", folder / "models");
        common = std::make_shared<ML::ModelCommon>(context);
        const QMedia::Frame frame =
            QMedia::MediaSource::open(std::filesystem::path(QUILLON_SOURCE_DIR) / ".deps/media/Megamind.avi")->read(45);
        picture = QHost::OwnedImage::make({0, 0, kWidth, kHeight}, ML::Image::RGB, ML::Image::HWC, ML::U8);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                for (int c = 0; c < 3; ++c)
                    picture->at<ML::u8>(x, y, c) = static_cast<ML::u8>(
                        255.0f * frame.sample(x * frame.width() / kWidth, y * frame.height() / kHeight, c));
        std::vector<ML::Detection> faces;
        ML::run_detector(*common, faces, "fd0", ML::Ptr<ML::Image>(picture.get()));
        std::printf("faces found: %zu\n", faces.size());
        if (!faces.empty()) face = faces[0];
        else face.keypoints.assign(5, ML::Keypoint{});  // the identity fallback still runs both networks

        const ML::u32 type = context->getPrecisionDataType();
        reid = std::make_unique<ML::YOLO7::ReIdBackendResources>(context, "face_embedding", type);
        crop = context->loadModel("warp_affine_crop");
        embedding = context->loadModel("face_embedding");
        sourceTensor = context->createTensor({1, 3, kHeight, kWidth}, type);
        matrixTensor = context->createTensor({2, 3}, type);
        cropTensor = context->createTensor({1, 3, 112, 112}, type);
        embeddingTensor = context->createTensor({1, 512}, type);
        common->hostImageToTensor(ML::Ptr<ML::Image>(picture.get()),
                                  ML::makeDescription(kHeight, kWidth, ML::Image::RGB, ML::Image::CHW, type), sourceTensor);
        const ML::YOLO7::AffineTransform m = ML::YOLO7::invertAffine(ML::YOLO7::faceAlignment(face.keypoints, 112));
        const Imath::half rowMajor[6] = {Imath::half(m(0, 0)), Imath::half(m(0, 1)), Imath::half(m(0, 2)),
                                         Imath::half(m(1, 0)), Imath::half(m(1, 1)), Imath::half(m(1, 2))};
        matrixTensor->upload(rowMajor);
        embed(1);  // loads the conversion networks
    }

    void embed(int faces) {
        std::vector<ML::Detection> detections(static_cast<std::size_t>(faces), face);
        std::vector<ML::YOLO7::TrackedObjectReading> readings(detections.size());
        ML::YOLO7::computeEmbeddings(*reid, common->getConverter(), ML::Ptr<ML::Image>(picture.get()), detections,
                                     readings, 112, 112);
    }

    ~Setup() {
        reid.reset();
        crop.reset();
        embedding.reset();
        sourceTensor.reset();
        matrixTensor.reset();
        cropTensor.reset();
        embeddingTensor.reset();
        common.reset();
        context.reset();
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};

Setup* g_setup = nullptr;

void BM_EmbeddingsOneFace(benchmark::State& state) {
    for (auto _ : state) g_setup->embed(1);
}
BENCHMARK(BM_EmbeddingsOneFace)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_EmbeddingsEightFaces(benchmark::State& state) {
    for (auto _ : state) g_setup->embed(8);
}
BENCHMARK(BM_EmbeddingsEightFaces)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NetworksAlone(benchmark::State& state) {
    Setup& s = *g_setup;
    for (auto _ : state) {
        s.crop->run({s.sourceTensor, s.matrixTensor}, {s.cropTensor});
        s.embedding->run({s.cropTensor}, {s.embeddingTensor});
    }
}
BENCHMARK(BM_NetworksAlone)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CropAlone(benchmark::State& state) {
    Setup& s = *g_setup;
    for (auto _ : state) s.crop->run({s.sourceTensor, s.matrixTensor}, {s.cropTensor});
}
BENCHMARK(BM_CropAlone)->Unit(benchmark::kMillisecond)->UseRealTime();

// The plug-in's own work for one face: the fit, its inverse, the six values up, 512 back.
void BM_PluginWorkPerFace(benchmark::State& state) {
    Setup& s = *g_setup;
    std::vector<Imath::half> halves(512);
    std::vector<float> out(512);
    for (auto _ : state) {
        const ML::YOLO7::AffineTransform m = ML::YOLO7::invertAffine(ML::YOLO7::faceAlignment(s.face.keypoints, 112));
        const Imath::half rowMajor[6] = {Imath::half(m(0, 0)), Imath::half(m(0, 1)), Imath::half(m(0, 2)),
                                         Imath::half(m(1, 0)), Imath::half(m(1, 1)), Imath::half(m(1, 2))};
        s.matrixTensor->upload(rowMajor);
        s.embeddingTensor->download(halves.data());
        for (std::size_t i = 0; i < 512; ++i) out[i] = halves[i];
        benchmark::DoNotOptimize(out.data());
    }
}
BENCHMARK(BM_PluginWorkPerFace)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchutil::BestTimes reporter;
    if (!benchutil::runWithSetup(argc, argv, g_setup, reporter)) return 1;
    const double one = reporter.best("BM_EmbeddingsOneFace");
    const double eight = reporter.best("BM_EmbeddingsEightFaces");
    const double bare = reporter.best("BM_NetworksAlone");
    const double crop = reporter.best("BM_CropAlone");
    const double own = reporter.best("BM_PluginWorkPerFace") / 1000.0;
    if (one > 0 && eight > 0 && bare > 0 && own > 0) {
        const double perFace = (eight - one) / 7.0;
        std::printf("per face: %.2f ms from the 1- and 8-face frames; crop network %.2f ms, both networks %.2f ms, the "
                    "plug-in's own work %.2f us: plug-in share per face %.3f%%\n",
                    perFace, crop, bare, own * 1000.0, 100.0 * own / (own + bare));
        std::printf("one-face frame %.2f ms, of which the frame upload (once per frame, conversion network included) "
                    "about %.2f ms: %.1f%% of the frame outside the two networks\n",
                    one, one - bare - own, 100.0 * (one - bare) / one);
    }
    benchmark::Shutdown();
    return 0;
}
