// Full-HD conversions through ImageTensorConverter on the ort_cpu backend, each against a memcpy
// of its input and output bytes (one copy of each), for both forms of the helper networks: the
// default package's fused ones and the --portable ones of standard operators. Also the round trip
// of an 8-bit packed RGBA host image to a planar half-float RGB tensor and back. Writes both
// packages into a temporary folder first; prints the ratios after the table.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "Package.h"
#include "Plugin/ImageTensorConverter.h"
#include "bench/util/BestTimes.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;
using ML::Image;

struct Format {
    ML::u32 layout, type, channels;
    int height = kHeight, width = kWidth;
};

// The pairs the effects use most; the last ones change size too (a network's input and back).
struct Pair {
    const char* name;
    Format from, to;
};
const Pair kPairs[] = {
    {"HWC-U8-RGBA_TO_CHW-F16-RGB", {Image::HWC, ML::U8, Image::RGBA}, {Image::CHW, ML::F16, Image::RGB}},
    {"CHW-F16-RGB_TO_HWC-U8-RGBA", {Image::CHW, ML::F16, Image::RGB}, {Image::HWC, ML::U8, Image::RGBA}},
    {"HWC-U8-RGBA_TO_CHW-F32-RGB", {Image::HWC, ML::U8, Image::RGBA}, {Image::CHW, ML::F32, Image::RGB}},
    {"CHW-F32-RGB_TO_HWC-U8-RGBA", {Image::CHW, ML::F32, Image::RGB}, {Image::HWC, ML::U8, Image::RGBA}},
    {"HWC-U8-RGB_TO_CHW-F16-RGB", {Image::HWC, ML::U8, Image::RGB}, {Image::CHW, ML::F16, Image::RGB}},
    {"HWC-F16-RGBA_TO_CHW-F32-RGB", {Image::HWC, ML::F16, Image::RGBA}, {Image::CHW, ML::F32, Image::RGB}},
    {"HWC-F32-RGBA_TO_HWC-F16-RGBA", {Image::HWC, ML::F32, Image::RGBA}, {Image::HWC, ML::F16, Image::RGBA}},
    {"CHW-F16-R_TO_HWC-U8-RGBA", {Image::CHW, ML::F16, Image::R}, {Image::HWC, ML::U8, Image::RGBA}},
    {"CHW-F32-R_TO_HWC-F32-R", {Image::CHW, ML::F32, Image::R}, {Image::HWC, ML::F32, Image::R}},
    {"HWC-U8-RGBA_TO_CHW-F16-RGB resized to 518x518", {Image::HWC, ML::U8, Image::RGBA},
     {Image::CHW, ML::F16, Image::RGB, 518, 518}},
    {"CHW-F16-R 518x518_TO_HWC-U8-RGBA resized", {Image::CHW, ML::F16, Image::R, 518, 518},
     {Image::HWC, ML::U8, Image::RGBA}},
    // The depth render's (stand-in network size) and the face detector's.
    {"HWC-U8-RGB_TO_CHW-F16-RGB resized to 256x256", {Image::HWC, ML::U8, Image::RGB},
     {Image::CHW, ML::F16, Image::RGB, 256, 256}},
    {"CHW-F16-R 256x256_TO_CHW-F32-R resized", {Image::CHW, ML::F16, Image::R, 256, 256}, {Image::CHW, ML::F32, Image::R}},
    {"HWC-U8-RGB_TO_CHW-F16-RGB resized to 768x1280", {Image::HWC, ML::U8, Image::RGB},
     {Image::CHW, ML::F16, Image::RGB, 768, 1280}},
};

size_t elementBytes(ML::u32 type) { return type == ML::U8 ? 1 : type == ML::F16 ? 2 : 4; }
size_t channelCount(ML::u32 channels) { return channels == Image::R ? 1 : channels == Image::RGB ? 3 : 4; }
size_t bytesOf(const Format& f) { return elementBytes(f.type) * channelCount(f.channels) * f.height * f.width; }
ML::Ptr<Image> describe(const Format& f) { return ML::makeDescription(f.height, f.width, f.channels, f.layout, f.type); }

// One package form on its own backend context.
struct Form {
    std::shared_ptr<ML::ModelContext> context;
    std::unique_ptr<ML::ImageTensorConverter> converter;
};

struct Setup {
    std::filesystem::path folder;
    Form forms[2];  // fused, portable
    ML::Ptr<QHost::OwnedImage> source, target;
    ML::Ptr<ML::Image> description;
    std::shared_ptr<ML::BackendTensor> tensor;
    std::vector<ML::u8> bytesA, bytesB, bytesC, bytesD;

    Setup() : folder(std::filesystem::temp_directory_path() / ("quillon_bench_conversion_" + std::to_string(::getpid()))) {
        for (int i = 0; i < 2; ++i) {
            qpkg::PackageOptions options;
            options.portable = i == 1;
            const auto dir = folder / (i == 0 ? "fused" : "portable");
            qpkg::writeDefaultPackage(dir, options);
            forms[i].context = std::make_shared<ML::ModelContext>("ort_cpu", 0, dir / "config", dir / "models");
            forms[i].converter = std::make_unique<ML::ImageTensorConverter>(forms[i].context);
        }
        const ML::Rect rect{0, 0, kWidth, kHeight};
        source = QHost::OwnedImage::make(rect, Image::RGBA, Image::HWC, ML::U8);
        target = QHost::OwnedImage::make(rect, Image::RGBA, Image::HWC, ML::U8);
        auto* bytes = reinterpret_cast<ML::u8*>(source->storage());
        for (ML::u64 i = 0; i < source->byteSize(); ++i) bytes[i] = static_cast<ML::u8>((i * 2654435761u) >> 24);
        description = ML::makeDescription(kHeight, kWidth, Image::RGB, Image::CHW, ML::F16);
        tensor = forms[0].context->createTensor({1, 3, kHeight, kWidth}, ML::F16);
        const size_t most = kWidth * kHeight * 16;
        for (auto* b : {&bytesA, &bytesB, &bytesC, &bytesD}) b->assign(most, 1);
    }

    ~Setup() {
        tensor.reset();
        for (Form& f : forms) {
            f.converter.reset();
            f.context.reset();
        }
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }
};

Setup* g_setup = nullptr;

void BM_ConverterRoundTrip(benchmark::State& state) {
    Setup& s = *g_setup;
    ML::ImageTensorConverter& converter = *s.forms[state.range(0)].converter;
    const ML::Ptr<ML::Image> source(s.source.get()), target(s.target.get());
    std::shared_ptr<ML::BackendTensor> tensor =
        state.range(0) == 0 ? s.tensor : s.forms[1].context->createTensor({1, 3, kHeight, kWidth}, ML::F16);
    for (auto _ : state) {
        converter.hostImageToTensor(source, s.description, tensor);
        converter.tensorToHostImage(s.description, tensor, target);
        benchmark::ClobberMemory();
    }
}

void BM_MemcpyRoundTrip(benchmark::State& state) {
    Setup& s = *g_setup;
    const ML::u64 size = s.source->byteSize();
    for (auto _ : state) {
        std::memcpy(s.bytesA.data(), s.source->storage(), size);
        benchmark::ClobberMemory();
        std::memcpy(s.target->storage(), s.bytesA.data(), size);
        benchmark::ClobberMemory();
    }
}

// Device tensor to device tensor: the helper networks alone.
void BM_Pair(benchmark::State& state, const Pair& pair, int form) {
    Setup& s = *g_setup;
    Form& f = s.forms[form];
    auto shape = [](const Format& fm) { return ML::shapeOfImage(*describe(fm), 1); };
    auto in = f.context->createTensor(shape(pair.from), pair.from.type);
    auto out = f.context->createTensor(shape(pair.to), pair.to.type);
    in->upload(s.bytesA.data());
    const auto from = describe(pair.from), to = describe(pair.to);
    f.converter->tensorToTensor(from, in, to, out);
    for (auto _ : state) {
        f.converter->tensorToTensor(from, in, to, out);
        benchmark::ClobberMemory();
    }
}

// The floor of a pair: one memcpy of its input bytes and one of its output bytes.
void BM_PairMemcpy(benchmark::State& state, const Pair& pair) {
    Setup& s = *g_setup;
    for (auto _ : state) {
        std::memcpy(s.bytesB.data(), s.bytesA.data(), bytesOf(pair.from));
        std::memcpy(s.bytesD.data(), s.bytesC.data(), bytesOf(pair.to));
        benchmark::ClobberMemory();
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Setup setup;
    g_setup = &setup;
    benchmark::RegisterBenchmark("RoundTrip/fused", BM_ConverterRoundTrip)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("RoundTrip/portable", BM_ConverterRoundTrip)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark("RoundTrip/memcpy", BM_MemcpyRoundTrip)->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const Pair& p : kPairs) {
        benchmark::RegisterBenchmark((std::string(p.name) + "/fused").c_str(), BM_Pair, p, 0)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string(p.name) + "/portable").c_str(), BM_Pair, p, 1)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
        benchmark::RegisterBenchmark((std::string(p.name) + "/memcpy").c_str(), BM_PairMemcpy, p)
            ->Unit(benchmark::kMillisecond)->UseRealTime();
    }
    benchutil::BestTimes reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    g_setup = nullptr;

    std::printf("\nratio to memcpy (fused, portable), 1920x1080 unless named:\n");
    auto line = [&](const std::string& name) {
        const double fused = reporter.best(name + "/fused"), portable = reporter.best(name + "/portable"),
                     copied = reporter.best(name + "/memcpy");
        if (copied <= 0) return;
        std::printf("  %-50s %6.1f %6.1f   (%.3f ms, %.3f ms, memcpy %.3f ms)\n", name.c_str(), fused / copied,
                    portable / copied, fused, portable, copied);
    };
    line("RoundTrip");
    for (const Pair& p : kPairs) line(p.name);
    benchmark::Shutdown();
    return 0;
}
