// quillon bench: frames per second of renders through the plug-in, against the target's main
// network run bare with ONNX Runtime as many times as the plug-in ran it, and the plug-in's
// overhead as the ratio of the two.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <onnxruntime_cxx_api.h>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Cli/ParamSetting.h"
#include "Host/Cli/SampleImage.h"
#include "Host/Cli/Session.h"
#include "Host/Cli/Targets.h"

namespace QCli {

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// The network that a frame of the target runs, and how many times.
struct NetworkRuns {
    std::filesystem::path file;
    int runs = 1;
    int tileW = 0, tileH = 0;  // the input's extents where the network leaves them free
    std::string note;          // what the bare runs leave out, if anything
};

// What the bench does for one target: default picture size and frame count, and the network.
struct BenchTarget {
    int target;
    int width, height, frames;
    std::function<NetworkRuns(Session&, const Options&, const RenderRequest&, const FrameResult&)> network;
};

std::string modelIdOf(Session& session, int target, int model) {
    const std::string id = ML::toStd(session.params().getStringPluginParam(target, 102, model));
    if (id.empty()) throw UsageError(targetName(target) + " has no model " + std::to_string(model));
    return id;
}

NetworkRuns depthNetwork(Session& session, const Options& o, const RenderRequest&, const FrameResult&) {
    NetworkRuns n;
    n.file = session.packageDir() / "models" / (modelIdOf(session, TARGET_DEPTH, o.model) + ".onnx");
    n.tileW = session.params().getIntPluginParam(TARGET_DEPTH, 104, o.model);
    n.tileH = session.params().getIntPluginParam(TARGET_DEPTH, 105, o.model);
    return n;
}

// The upscaler's network of the factor itself when the package has one, else of the next larger
// scale (or the largest), run once per tile the plug-in reported.
NetworkRuns upresNetwork(Session& session, const Options& o, const RenderRequest& request, const FrameResult& frame) {
    const std::string id = modelIdOf(session, 2, o.model);
    const std::filesystem::path models = session.packageDir() / "models";
    const float factor = request.outputScale;
    int exact = 0, larger = 0, largest = 0;
    for (int scale = 2; scale <= 16; ++scale) {
        if (!std::filesystem::exists(models / (id + "_" + std::to_string(scale) + "x.onnx"))) continue;
        if (static_cast<float>(scale) == factor) exact = scale;
        if (larger == 0 && static_cast<float>(scale) > factor) larger = scale;
        largest = scale;
    }
    const int scale = exact ? exact : larger ? larger : largest;
    if (scale == 0) throw CliError(EXIT_HOST, "the package has no network for upscaler " + id);
    NetworkRuns n;
    n.file = models / (id + "_" + std::to_string(scale) + "x.onnx");
    n.runs = std::max<int>(1, static_cast<int>(frame.progress.size()) - 1);  // 0, then one report per tile
    n.tileW = session.params().getIntPluginParam(2, 104, o.model);
    n.tileH = session.params().getIntPluginParam(2, 105, o.model);
    if (!exact) n.note = "resampling to the factor counted as plug-in work";
    return n;
}

const BenchTarget kBenchTargets[] = {
    {TARGET_DEPTH, 1920, 1080, 10, depthNetwork},
    {2, 640, 360, 3, upresNetwork},
};

struct DirectRun {
    double total = 0;
    std::string shape;
};

template <class T>
Ort::Value pictureTensor(std::vector<T>& data, const std::vector<int64_t>& shape, const QMedia::Frame& picture) {
    const int64_t c = shape[1], h = shape[2], w = shape[3];
    data.resize(static_cast<std::size_t>(c * h * w));
    for (int64_t ch = 0; ch < c; ++ch)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x) {
                const int sx = static_cast<int>(x * picture.width() / w);
                const int sy = static_cast<int>(y * picture.height() / h);
                const int sc = static_cast<int>(std::min<int64_t>(ch, picture.channels() - 1));
                data[static_cast<std::size_t>((ch * h + y) * w + x)] = T(picture.sample(sx, sy, sc));
            }
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    return Ort::Value::CreateTensor<T>(memory, data.data(), data.size(), shape.data(), shape.size());
}

// The network alone: an input of the network's size (F16 or F32, planar, the picture sampled to
// it), prepared once, run `runs` times for each of `frames` frames after one warm-up run.
DirectRun runDirect(const NetworkRuns& n, const QMedia::Frame& picture, int frames) {
    // ONNX Runtime keeps one environment per process: this is the backend's, made with a shared
    // thread pool. The bare network runs on that pool too, as the backend's networks do; a pool
    // of its own would compete for the cores with the shared pool's spinning threads.
    Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "quillon-bench");
    const auto open = [&](bool shared) {
        Ort::SessionOptions options;
        options.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
        options.SetExecutionMode(ExecutionMode::ORT_SEQUENTIAL);
        if (shared) options.DisablePerSessionThreads();
        return Ort::Session(env, n.file.c_str(), options);
    };
    Ort::Session session = [&] {
        try {
            return open(true);
        } catch (const Ort::Exception&) {
            return open(false);  // the environment has no shared pool
        }
    }();

    Ort::AllocatorWithDefaultOptions allocator;
    const auto inputName = session.GetInputNameAllocated(0, allocator);
    const auto outputName = session.GetOutputNameAllocated(0, allocator);
    const Ort::TypeInfo type = session.GetInputTypeInfo(0);
    const auto info = type.GetTensorTypeAndShapeInfo();  // a view into `type`
    std::vector<int64_t> shape = info.GetShape();
    if (shape.size() != 4) throw CliError(EXIT_FAILURE_OTHER, "the network's input is not 4D: " + n.file.string());
    if (shape[0] < 1) shape[0] = 1;
    if (shape[1] < 1) shape[1] = 3;
    if (shape[2] < 1) shape[2] = n.tileH > 0 ? n.tileH : 256;
    if (shape[3] < 1) shape[3] = n.tileW > 0 ? n.tileW : 256;

    std::vector<Ort::Float16_t> halves;
    std::vector<float> floats;
    Ort::Value tensor = info.GetElementType() == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT
                            ? pictureTensor(floats, shape, picture)
                            : pictureTensor(halves, shape, picture);
    const char* inputs[] = {inputName.get()};
    const char* outputs[] = {outputName.get()};
    session.Run(Ort::RunOptions{nullptr}, inputs, &tensor, 1, outputs, 1);  // warm-up

    DirectRun run;
    run.shape = std::to_string(shape[0]) + "x" + std::to_string(shape[1]) + "x" + std::to_string(shape[2]) + "x" +
                std::to_string(shape[3]);
    for (int i = 0; i < frames * n.runs; ++i) {
        const auto start = Clock::now();
        session.Run(Ort::RunOptions{nullptr}, inputs, &tensor, 1, outputs, 1);
        run.total += seconds(start);
    }
    return run;
}

}  // namespace

int runBench(const Options& o, std::ostream& out, std::ostream& err) {
    const auto* bench = std::find_if(std::begin(kBenchTargets), std::end(kBenchTargets),
                                     [&](const BenchTarget& b) { return b.target == o.target; });
    if (bench == std::end(kBenchTargets)) throw UsageError("bench measures depth and upres only");
    const int width = o.benchWidth > 0 ? o.benchWidth : bench->width;
    const int height = o.benchHeight > 0 ? o.benchHeight : bench->height;
    const int frames = o.benchFrames > 0 ? o.benchFrames : bench->frames;

    Session session({o.plugin, o.package, o.verbosity, o.cacheMb << 20}, err);
    CancelWatch cancel;
    Options options = o;
    options.buffers.clear();
    if (o.target == 2 && renderRequestFor(o).outputScale == 1.0f)
        options.params.push_back(parseParam("200:float=2"));  // upscaling by 2 unless --scale says otherwise
    const RenderRequest request = renderRequestFor(options);
    FrameRenderer renderer(session, cancel, request);
    const QMedia::Frame picture = makeSampleImage(width, height);
    const std::string modelId = modelIdOf(session, o.target, o.model);
    out << targetName(o.target) << " (" << modelId << ") of a " << width << "x" << height << " picture";
    if (request.outputScale != 1.0f) out << " scaled by " << request.outputScale;
    out << ", " << frames << " frames, after one warm-up frame each\n";

    const FrameResult first = renderer.render(0, picture);  // loads the networks
    double plugin = 0;
    for (int i = 0; i < frames; ++i) plugin += renderer.render(i + 1, picture).pluginSeconds;

    const NetworkRuns network = bench->network(session, o, request, first);
    DirectRun direct;
    try {
        direct = runDirect(network, picture, frames);
    } catch (const Ort::Exception& e) {
        throw CliError::because(EXIT_BACKEND, "cannot run " + network.file.string() + " with ONNX Runtime", e,
                                network.file.string());
    }

    const double perPlugin = plugin / frames * 1000.0;
    const double perDirect = direct.total / frames * 1000.0;
    const double ratio = direct.total > 0 ? plugin / direct.total : 0.0;
    char line[320];
    std::snprintf(line, sizeof line, "Through the plug-in:   %9.3f ms per frame, %.2f frames/s (modes 3 and 4)\n",
                  perPlugin, plugin > 0 ? frames / plugin : 0.0);
    out << line;
    std::snprintf(line, sizeof line, "Network alone (ORT):   %9.3f ms per frame (%d run%s of %s on %s, prepared once)\n",
                  perDirect, network.runs, network.runs == 1 ? "" : "s", network.file.filename().c_str(),
                  direct.shape.c_str());
    out << line;
    std::snprintf(line, sizeof line, "Plug-in overhead:      %9.3f x the network time (%+.1f%%; goal <= +5%%)%s%s\n",
                  ratio, (ratio - 1.0) * 100.0, network.note.empty() ? "" : "; ", network.note.c_str());
    out << line;
    return EXIT_OK;
}

}  // namespace QCli
