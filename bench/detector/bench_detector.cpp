// run_detector on a 1920x1080 picture (messi5 stretched) with the package's face detector, against
// the detector and suppression networks run bare on prepared tensors. Writes a default package
// into a temporary folder first; prints the plug-in's share after the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Host/Media/ImageReader.h"
#include "Host/OwnedImage.h"
#include "Package.h"
#include "Plugin/ModelCommon.h"
#include "Plugin/Models/YOLO7/Detector.h"
#include "bench/util/BestTimes.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

struct Setup {
    std::filesystem::path folder;
    std::shared_ptr<ML::ModelContext> context;
    std::shared_ptr<ML::ModelCommon> common;
    ML::Ptr<QHost::OwnedImage> picture;
    std::shared_ptr<ML::BackendModel> detector, nms;
    std::unique_ptr<ML::YOLO7::DetectorTensors> tensors;

    Setup() : folder(std::filesystem::temp_directory_path() / ("quillon_bench_detector_" + std::to_string(::getpid()))) {
        qpkg::PackageOptions options;
        options.networks = qpkg::defaultNetworksFolder();
        qpkg::writeDefaultPackage(folder, options);
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder / "config", folder / "models");
        common = std::make_shared<ML::ModelCommon>(context);
        const QMedia::Frame photo = QMedia::readImage(std::filesystem::path(QUILLON_SOURCE_DIR) / ".deps/media/messi5.jpg");
        picture = QHost::OwnedImage::make({0, 0, kWidth, kHeight}, ML::Image::RGB, ML::Image::HWC, ML::U8);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                for (int c = 0; c < 3; ++c)
                    picture->at<ML::u8>(x, y, c) = static_cast<ML::u8>(
                        255.0f * photo.sample(x * photo.width() / kWidth, y * photo.height() / kHeight, c));
        detector = context->loadModel("fd0_detector");
        nms = context->loadModel("fd0_nms");
        tensors = std::make_unique<ML::YOLO7::DetectorTensors>(*context, context->getPrecisionDataType(), 768, 1280, 5);
        std::vector<ML::Detection> faces;
        ML::run_detector(*common, faces, "fd0", ML::Ptr<ML::Image>(picture.get()));  // loads everything
        std::printf("faces found: %zu\n", faces.size());
    }

    ~Setup() {
        tensors.reset();
        detector.reset();
        nms.reset();
        common.reset();
        context.reset();
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};

Setup* g_setup = nullptr;

void BM_RunDetector(benchmark::State& state) {
    Setup& s = *g_setup;
    std::vector<ML::Detection> faces;
    for (auto _ : state) ML::run_detector(*s.common, faces, "fd0", ML::Ptr<ML::Image>(s.picture.get()));
}
BENCHMARK(BM_RunDetector)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NetworksAlone(benchmark::State& state) {
    Setup& s = *g_setup;
    ML::YOLO7::DetectorTensors& t = *s.tensors;
    for (auto _ : state) {
        s.detector->run({t.input}, {t.raw, t.count}, -1);
        s.nms->run({t.raw}, {t.nms}, -1);
    }
}
BENCHMARK(BM_NetworksAlone)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchutil::BestTimes reporter;
    if (!benchutil::runWithSetup(argc, argv, g_setup, reporter)) return 1;
    const double call = reporter.best("BM_RunDetector");
    const double bare = reporter.best("BM_NetworksAlone");
    if (call >= 0 && bare > 0)
        std::printf("run_detector: %.2f ms per call; the two networks alone %.2f ms; plug-in share %.1f%%\n",
                    call, bare, 100.0 * (call - bare) / call);
    benchmark::Shutdown();
    return 0;
}
