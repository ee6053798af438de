// A 1920x1080 8-bit packed RGBA host image to a planar half-float RGB tensor and back through
// ImageTensorConverter on the ort_cpu backend, against memcpy of the same bytes there and back.
// Writes a default package into a temporary folder first; prints the ratio after the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "Package.h"
#include "Plugin/ImageTensorConverter.h"
#include "bench/util/BestTimes.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

struct Setup {
    std::filesystem::path folder;
    std::shared_ptr<ML::ModelContext> context;
    std::unique_ptr<ML::ImageTensorConverter> converter;
    ML::Ptr<QHost::OwnedImage> source, target;
    ML::Ptr<ML::Image> description;
    std::shared_ptr<ML::BackendTensor> tensor;
    std::vector<ML::u8> buffer;

    Setup() : folder(std::filesystem::temp_directory_path() / ("quillon_bench_conversion_" + std::to_string(::getpid()))) {
        qpkg::writeDefaultPackage(folder, false);
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder / "config", folder / "models");
        converter = std::make_unique<ML::ImageTensorConverter>(context);
        const ML::Rect rect{0, 0, kWidth, kHeight};
        source = QHost::OwnedImage::make(rect, ML::Image::RGBA, ML::Image::HWC, ML::U8);
        target = QHost::OwnedImage::make(rect, ML::Image::RGBA, ML::Image::HWC, ML::U8);
        auto* bytes = reinterpret_cast<ML::u8*>(source->storage());
        for (ML::u64 i = 0; i < source->byteSize(); ++i) bytes[i] = static_cast<ML::u8>((i * 2654435761u) >> 24);
        description = ML::makeDescription(kHeight, kWidth, ML::Image::RGB, ML::Image::CHW, ML::F16);
        tensor = context->createTensor({1, 3, kHeight, kWidth}, ML::F16);
        buffer.resize(source->byteSize());
        // Steady state: helper networks loaded and scratch tensors grown before timing.
        converter->hostImageToTensor(ML::Ptr<ML::Image>(source.get()), description, tensor);
        converter->tensorToHostImage(description, tensor, ML::Ptr<ML::Image>(target.get()));
    }

    ~Setup() {
        tensor.reset();
        converter.reset();
        context.reset();
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};

Setup* g_setup = nullptr;

void BM_ConverterRoundTrip(benchmark::State& state) {
    Setup& s = *g_setup;
    const ML::Ptr<ML::Image> source(s.source.get()), target(s.target.get());
    for (auto _ : state) {
        s.converter->hostImageToTensor(source, s.description, s.tensor);
        s.converter->tensorToHostImage(s.description, s.tensor, target);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * static_cast<int64_t>(s.source->byteSize()));
}
BENCHMARK(BM_ConverterRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MemcpyRoundTrip(benchmark::State& state) {
    Setup& s = *g_setup;
    const ML::u64 size = s.source->byteSize();
    for (auto _ : state) {
        std::memcpy(s.buffer.data(), s.source->storage(), size);
        benchmark::ClobberMemory();
        std::memcpy(s.target->storage(), s.buffer.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * static_cast<int64_t>(size));
}
BENCHMARK(BM_MemcpyRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Setup setup;
    g_setup = &setup;
    benchutil::BestTimes reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    g_setup = nullptr;

    const double converted = reporter.best("BM_ConverterRoundTrip");
    const double copied = reporter.best("BM_MemcpyRoundTrip");
    if (converted >= 0 && copied > 0) {
        std::printf("converter round trip / memcpy round trip: %.1f (%.3f ms vs %.3f ms)\n",
                    converted / copied, converted, copied);
    }
    benchmark::Shutdown();
    return 0;
}
