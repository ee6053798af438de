// Per-call cost of running a tiny network through the plug-in's BackendModel::run and the
// ort_cpu backend, against the same network run directly with ONNX Runtime and pre-bound
// tensors. Prints the ratio of the two after the usual table.
#include <benchmark/benchmark.h>
#include <onnxruntime_cxx_api.h>
#include <unistd.h>

#include <Imath/half.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "OnnxBuilder.h"
#include "Plugin/ModelContext.h"
#include "bench/util/BestTimes.h"

namespace {

constexpr ML::u64 kHeight = 8, kWidth = 8, kElements = 3 * kHeight * kWidth;

// Everything both benchmarks run on, made once before them.
struct Setup {
    std::filesystem::path folder;

    std::shared_ptr<ML::ModelContext> context;
    std::shared_ptr<ML::BackendModel> model;
    std::shared_ptr<ML::BackendTensor> x, y;

    // The environment is process-wide in ONNX Runtime: this is the one the backend made, so both
    // sides share its thread pool and settings.
    Ort::Env env{ORT_LOGGING_LEVEL_ERROR, "bench"};
    std::vector<Imath::half> xData = std::vector<Imath::half>(kElements, Imath::half(1.0f));
    std::vector<Imath::half> yData = std::vector<Imath::half>(kElements);
    Ort::Session session{nullptr};
    Ort::Value xValue{nullptr}, yValue{nullptr};
    std::unique_ptr<Ort::IoBinding> binding;
    Ort::RunOptions runOptions;

    Setup()
        : folder(std::filesystem::temp_directory_path() / ("quillon_bench_backend_" + std::to_string(::getpid()))),
          context(prepare(folder)) {
        model = context->loadModel("add_one");
        x = context->createTensor({1, 3, kHeight, kWidth}, ML::F16);
        y = context->createTensor({1, 3, kHeight, kWidth}, ML::F16);
        x->upload(xData.data());

        // The same options the backend uses by default.
        Ort::SessionOptions options;
        options.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
        options.SetExecutionMode(ExecutionMode::ORT_SEQUENTIAL);
        options.DisablePerSessionThreads();
        session = Ort::Session(env, (folder / "add_one.onnx").c_str(), options);
        const auto memory = Ort::MemoryInfo::CreateCpu(OrtDeviceAllocator, OrtMemTypeDefault);
        const int64_t shape[] = {1, 3, kHeight, kWidth};
        xValue = Ort::Value::CreateTensor(memory, xData.data(), xData.size() * 2, shape, 4,
                                          ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16);
        yValue = Ort::Value::CreateTensor(memory, yData.data(), yData.size() * 2, shape, 4,
                                          ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16);
        binding = std::make_unique<Ort::IoBinding>(session);
        binding->BindInput("x", xValue);
        binding->BindOutput("y", yValue);
    }

    ~Setup() {
        binding.reset();
        session = Ort::Session{nullptr};
        model.reset();
        x.reset();
        y.reset();
        context.reset();
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    }

    static std::shared_ptr<ML::ModelContext> prepare(const std::filesystem::path& folder) {
        TestNetworks::writeCastAddNetwork(folder / "add_one.onnx", 1.0f);
        return std::make_shared<ML::ModelContext>("ort_cpu", 0, folder, std::filesystem::path());
    }
};

Setup* g_setup = nullptr;

void BM_BackendModelRun(benchmark::State& state) {
    Setup& s = *g_setup;
    const ML::TensorList inputs{s.x}, outputs{s.y};
    for (auto _ : state) s.model->run(inputs, outputs);
}
BENCHMARK(BM_BackendModelRun)->Unit(benchmark::kMicrosecond);

void BM_DirectOrtRun(benchmark::State& state) {
    Setup& s = *g_setup;
    for (auto _ : state) s.session.Run(s.runOptions, *s.binding);
}
BENCHMARK(BM_DirectOrtRun)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
    benchutil::BestTimes reporter;
    if (!benchutil::runWithSetup(argc, argv, g_setup, reporter)) return 1;

    const double bridged = reporter.best("BM_BackendModelRun");
    const double direct = reporter.best("BM_DirectOrtRun");
    if (bridged >= 0 && direct > 0) {
        std::printf("BackendModel::run / direct ONNX Runtime run: %.3f (%+.3f us per call)\n",
                    bridged / direct, bridged - direct);
    }
    benchmark::Shutdown();
    return 0;
}
