// quillon bench: time of a render through the plug-in against the same network run bare
// with ONNX Runtime, and the plug-in's overhead as the ratio of the two.
#include <chrono>
#include <cstdio>
#include <onnxruntime_cxx_api.h>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/ImageBridge.h"
#include "Host/Cli/SampleImage.h"
#include "Host/Cli/Session.h"
#include "Host/Cli/Targets.h"

namespace QCli {

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// One render of a frame, modes 3 and 4, as the render command does it; returns seconds spent
// in the plug-in.
double renderOnce(Session& session, int model, const ML::Ptr<QHost::OwnedImage>& input, int frame) {
    auto settings = session.newSettings(3, TARGET_DEPTH);
    const auto f = static_cast<ML::u32>(frame);
    settings->setFrame(f);
    settings->setModelIndex(model);
    settings->setInputImage(f, input);
    const ML::Rect rect = input->getRect();
    settings->setOutputImage(f, makeOutputImage(rect, ML::ImageImp::R, ML::F32, ML::ImageImp::CHW), {0, -1});
    const auto start = Clock::now();
    for (int mode : {3, 4}) {
        settings->setMode(mode);
        const int result = session.run(settings);
        if (result != 0)
            throw CliError::because(exitCodeForResult(result), "render through the plug-in failed",
                                    session.lastPluginError());
    }
    return seconds(start);
}

struct DirectRun {
    double total = 0;
    std::string shape;
};

// The depth network alone: F16 input of the network's size, prepared once, run frames times.
DirectRun runDirect(const std::filesystem::path& file, const QMedia::Frame& picture, int tileW, int tileH,
                    int frames) {
    Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "quillon-bench");
    Ort::SessionOptions options;
    options.SetGraphOptimizationLevel(GraphOptimizationLevel::ORT_ENABLE_ALL);
    options.SetExecutionMode(ExecutionMode::ORT_SEQUENTIAL);
    Ort::Session session(env, file.c_str(), options);

    Ort::AllocatorWithDefaultOptions allocator;
    const auto inputName = session.GetInputNameAllocated(0, allocator);
    const auto outputName = session.GetOutputNameAllocated(0, allocator);
    std::vector<int64_t> shape = session.GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    if (shape.size() != 4) throw CliError(EXIT_FAILURE_OTHER, "the depth network's input is not 4D");
    if (shape[0] < 1) shape[0] = 1;
    if (shape[1] < 1) shape[1] = 3;
    if (shape[2] < 1) shape[2] = tileH > 0 ? tileH : 256;
    if (shape[3] < 1) shape[3] = tileW > 0 ? tileW : 256;
    const int64_t c = shape[1], h = shape[2], w = shape[3];

    // The picture sampled to the network's size, planar.
    std::vector<Ort::Float16_t> data(static_cast<std::size_t>(c * h * w));
    for (int64_t ch = 0; ch < c; ++ch)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x) {
                const int sx = static_cast<int>(x * picture.width() / w);
                const int sy = static_cast<int>(y * picture.height() / h);
                const int sc = static_cast<int>(std::min<int64_t>(ch, picture.channels() - 1));
                data[static_cast<std::size_t>((ch * h + y) * w + x)] = Ort::Float16_t(picture.sample(sx, sy, sc));
            }
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    Ort::Value tensor = Ort::Value::CreateTensor<Ort::Float16_t>(memory, data.data(), data.size(), shape.data(),
                                                                 shape.size());
    const char* inputs[] = {inputName.get()};
    const char* outputs[] = {outputName.get()};
    session.Run(Ort::RunOptions{nullptr}, inputs, &tensor, 1, outputs, 1);  // warm-up

    DirectRun run;
    run.shape = std::to_string(shape[0]) + "x" + std::to_string(c) + "x" + std::to_string(h) + "x" + std::to_string(w);
    for (int i = 0; i < frames; ++i) {
        const auto start = Clock::now();
        session.Run(Ort::RunOptions{nullptr}, inputs, &tensor, 1, outputs, 1);
        run.total += seconds(start);
    }
    return run;
}

}  // namespace

int runBench(const Options& o, std::ostream& out, std::ostream& err) {
    if (o.target != TARGET_DEPTH) throw UsageError("bench measures depth only (--target depth)");
    Session session({o.plugin, o.package, o.verbosity, o.cacheMb << 20}, err);
    const auto& params = session.params();
    const std::string modelId = ML::toStd(params.getStringPluginParam(TARGET_DEPTH, 102, o.model));
    if (modelId.empty()) throw UsageError("depth has no model " + std::to_string(o.model));
    const int tileW = params.getIntPluginParam(TARGET_DEPTH, 104, o.model);
    const int tileH = params.getIntPluginParam(TARGET_DEPTH, 105, o.model);

    const QMedia::Frame picture = makeSampleImage(o.benchWidth, o.benchHeight);
    const auto input = toHostImage(picture);
    out << "Depth (" << modelId << ") of a " << o.benchWidth << "x" << o.benchHeight << " picture, " << o.benchFrames
        << " frames, after one warm-up frame each\n";

    renderOnce(session, o.model, input, 0);  // loads the networks
    double plugin = 0;
    for (int i = 0; i < o.benchFrames; ++i) plugin += renderOnce(session, o.model, input, i + 1);

    const auto file = session.packageDir() / "models" / (modelId + ".onnx");
    DirectRun direct;
    try {
        direct = runDirect(file, picture, tileW, tileH, o.benchFrames);
    } catch (const Ort::Exception& e) {
        throw CliError::because(EXIT_BACKEND, "cannot run " + file.string() + " with ONNX Runtime", e, file.string());
    }

    const double perPlugin = plugin / o.benchFrames * 1000.0;
    const double perDirect = direct.total / o.benchFrames * 1000.0;
    const double ratio = direct.total > 0 ? plugin / direct.total : 0.0;
    char line[256];
    std::snprintf(line, sizeof line, "Through the plug-in:   %9.3f ms per frame (modes 3 and 4, whole picture)\n",
                  perPlugin);
    out << line;
    std::snprintf(line, sizeof line, "Network alone (ORT):   %9.3f ms per frame (F16 input %s, prepared once)\n",
                  perDirect, direct.shape.c_str());
    out << line;
    std::snprintf(line, sizeof line, "Plug-in overhead:      %9.3f x the network time (%+.1f%%; goal <= +5%%)\n", ratio,
                  (ratio - 1.0) * 100.0);
    out << line;
    return EXIT_OK;
}

}  // namespace QCli
