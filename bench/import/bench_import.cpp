// Import of each TensorFlow.js network under .deps/networks: reading model.json and the shards,
// converting to ONNX, checking and serialising; then one run of each imported network on ONNX
// Runtime (CPU) at its own input size (free extents: 128). One benchmark per network and kind,
// then the whole set's import time as one figure.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "Import/Importer.h"

namespace fs = std::filesystem;

namespace {

// Every model.json of the unpacked packages, except networks that need an input fixed at import
// time (their conditionals are only resolved then).
std::vector<fs::path> networkFiles() {
    const fs::path root = fs::path(QUILLON_SOURCE_DIR) / ".deps" / "networks";
    std::vector<fs::path> files;
    if (!fs::exists(root)) return files;
    for (const fs::directory_entry& e : fs::recursive_directory_iterator(root)) {
        const fs::path& p = e.path();
        if (p.extension() != ".json" || p.filename() == "package.json" || p.stem() == "rvm") continue;
        files.push_back(p);
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string label(const fs::path& file) {
    const fs::path rel = fs::relative(file, fs::path(QUILLON_SOURCE_DIR) / ".deps" / "networks");
    return rel.parent_path().string() + "/" + rel.stem().string();
}

size_t importOnce(const fs::path& file) {
    const onnx::ModelProto model = qpkg::tfjs::importModel(qpkg::tfjs::readModel(file));
    return model.SerializeAsString().size();
}

// A session on the imported network and zero-filled inputs at the network's own size.
struct Loaded {
    Ort::Session session;
    std::vector<Ort::Value> inputs;
    std::vector<std::string> inputNames, outputNames;
};

Loaded load(Ort::Env& env, const fs::path& file) {
    const qpkg::tfjs::Model model = qpkg::tfjs::readModel(file);
    const std::string bytes = qpkg::tfjs::importModel(model).SerializeAsString();
    Ort::SessionOptions options;
    options.SetIntraOpNumThreads(2);
    Loaded l{Ort::Session(env, bytes.data(), bytes.size(), options), {}, {}, {}};
    Ort::AllocatorWithDefaultOptions allocator;
    for (const qpkg::tfjs::TensorSignature& s : qpkg::tfjs::networkInputs(model)) {
        std::vector<int64_t> shape = s.shape;
        for (size_t i = 0; i < shape.size(); ++i)
            if (shape[i] < 0) shape[i] = i == 0 ? 1 : (shape.size() == 4 && i == 1 ? 3 : 128);
        l.inputs.push_back(Ort::Value::CreateTensor(allocator, shape.data(), shape.size(),
                                                    static_cast<ONNXTensorElementDataType>(s.elemType)));
        const size_t bytesPerElement = s.elemType == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT ||
                                               s.elemType == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32 ? 4 : 8;
        std::memset(l.inputs.back().GetTensorMutableRawData(), 0,
                    l.inputs.back().GetTensorTypeAndShapeInfo().GetElementCount() * bytesPerElement);
        l.inputNames.push_back(s.name);
    }
    for (const qpkg::tfjs::TensorSignature& s : qpkg::tfjs::networkOutputs(model)) l.outputNames.push_back(s.name);
    return l;
}

std::vector<const char*> cstrs(const std::vector<std::string>& v) {
    std::vector<const char*> out;
    for (const std::string& s : v) out.push_back(s.c_str());
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<fs::path> files = networkFiles();
    if (files.empty()) {
        std::fprintf(stderr, "bench_import: no networks under .deps/networks (run scripts/setup)\n");
        return 1;
    }
    for (const fs::path& f : files)
        benchmark::RegisterBenchmark(("import/" + label(f)).c_str(), [f](benchmark::State& state) {
            size_t bytes = 0;
            for (auto _ : state) bytes = importOnce(f);
            state.counters["MB"] = double(bytes) / 1e6;
        })->Unit(benchmark::kMillisecond)->Iterations(1);
    static Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "bench_import");
    for (const fs::path& f : files)
        benchmark::RegisterBenchmark(("run/" + label(f)).c_str(), [f](benchmark::State& state) {
            Loaded l = load(env, f);
            const std::vector<const char*> in = cstrs(l.inputNames), out = cstrs(l.outputNames);
            for (auto _ : state)
                l.session.Run(Ort::RunOptions{nullptr}, in.data(), l.inputs.data(), in.size(), out.data(), out.size());
        })->Unit(benchmark::kMillisecond)->MinTime(0.5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();

    const auto start = std::chrono::steady_clock::now();
    for (const fs::path& f : files) importOnce(f);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("Whole set: %zu networks imported in %.2f s\n", files.size(), seconds);
    benchmark::Shutdown();
    return 0;
}
