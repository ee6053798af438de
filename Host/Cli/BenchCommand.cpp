// quillon bench: frames per second of renders through the plug-in, against the target's networks
// run bare with ONNX Runtime as many times as the plug-in ran them, and the plug-in's overhead as
// the ratio of the two. Effects that render frames side by side are timed on two threads too.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <onnxruntime_cxx_api.h>
#include <thread>
#include <vector>

#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Cli/ParamSetting.h"
#include "Host/Cli/SampleImage.h"
#include "Host/Cli/Session.h"
#include "Host/Cli/Targets.h"
#include "Host/OwnedImage.h"
#include "Host/Media/MediaSource.h"

namespace QCli {

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point since) { return std::chrono::duration<double>(Clock::now() - since).count(); }

// One network and how many times the timed frames ran it.
struct NetworkRuns {
    std::filesystem::path file;
    long runs = 0;
    int tileW = 0, tileH = 0;  // the inputs' extents where the network leaves them free
    std::vector<std::vector<int64_t>> shapes;  // every input's shape, where the tile says too little
};

// What the timed frames did, as the bench's targets need it.
struct TimedFrames {
    int frames = 0;
    std::vector<float> progress;  // of the first frame
    QHost::ComputeCache::Stats cache;
    ML::u64 cacheEntries = 0, cacheBytes = 0;
};

struct Networks {
    std::vector<NetworkRuns> runs;
    std::string note;  // what the bare runs leave out, if anything
};

// What the bench does for one target: default picture size and frame count, and the networks.
struct BenchTarget {
    int target;
    int width, height, frames;
    std::function<Networks(Session&, const Options&, const RenderRequest&, const TimedFrames&)> networks;
};

std::string modelIdOf(Session& session, int target, int model) {
    const std::string id = ML::toStd(session.params().getStringPluginParam(target, 102, model));
    if (id.empty()) throw UsageError(targetName(target) + " has no model " + std::to_string(model));
    return id;
}

NetworkRuns networkOf(Session& session, int target, int model, const std::string& file, long runs) {
    NetworkRuns n;
    n.file = session.packageDir() / "models" / (file + ".onnx");
    n.runs = runs;
    n.tileW = session.params().getIntPluginParam(target, 104, model);
    n.tileH = session.params().getIntPluginParam(target, 105, model);
    return n;
}

Networks depthNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    return {{networkOf(session, TARGET_DEPTH, o.model, modelIdOf(session, TARGET_DEPTH, o.model), t.frames)}, ""};
}

// The upscaler's network of the factor itself when the package has one, else of the next larger
// scale (or the largest), run once per tile the plug-in reported.
Networks upresNetworks(Session& session, const Options& o, const RenderRequest& request, const TimedFrames& t) {
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
    const long tiles = std::max<long>(1, static_cast<long>(t.progress.size()) - 1);  // 0, then one report per tile
    return {{networkOf(session, 2, o.model, id + "_" + std::to_string(scale) + "x", tiles * t.frames)},
            exact ? "" : "resampling to the factor counted as plug-in work"};
}

// Stage 2 runs once per tile of every frame; stage 1 once per tile of every result the cache did
// not hold. The tile count comes from the size of the cached results (three half-float planes a tile).
Networks denoiseNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    const std::string id = modelIdOf(session, 1, o.model);
    NetworkRuns stage1 = networkOf(session, 1, o.model, id + "_stage1", 0);
    NetworkRuns stage2 = networkOf(session, 1, o.model, id + "_stage2", 0);
    const ML::u64 tileBytes = ML::u64(2) * 3 * static_cast<ML::u64>(stage1.tileW) * static_cast<ML::u64>(stage1.tileH);
    const long tiles = t.cacheEntries && tileBytes ? static_cast<long>(t.cacheBytes / t.cacheEntries / tileBytes) : 1;
    stage1.runs = tiles * static_cast<long>(t.cache.fills);
    stage2.runs = tiles * t.frames;
    char note[160];
    const ML::u64 lookups = t.cache.hits + t.cache.misses;
    std::snprintf(note, sizeof note, "stage-1 results from the cache: %.0f%% of %llu", lookups ? 100.0 * t.cache.hits / lookups : 0.0,
                  static_cast<unsigned long long>(lookups));
    return {{stage1, stage2}, note};
}

// One run of the flow network a frame, at its execution size.
Networks flowNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    return {{networkOf(session, TARGET_OPTICAL_FLOW, o.model, modelIdOf(session, TARGET_OPTICAL_FLOW, o.model), t.frames)},
            ""};
}

// The interpolation network once per tile the plug-in reported; measuring the motion (a flow
// network and a reduction on the whole frame) and joining the tiles count as plug-in work.
Networks retimingNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    const long tiles = std::max<long>(1, static_cast<long>(t.progress.size()) - 1);  // 0, then one report per tile
    return {{networkOf(session, TARGET_RETIMING, o.model, modelIdOf(session, TARGET_RETIMING, o.model), tiles * t.frames)},
            "measuring the motion and joining the tiles counted as plug-in work"};
}

// The detector once per frame whose rows the plug-in computed, and the suppression network for
// those where it found candidates (their rows are not all zero). Tracking, drawing and the JSON
// count as plug-in work.
Networks detectionNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    const std::string id = modelIdOf(session, o.target, o.model);
    long detected = 0, suppressed = 0;
    for (int f = 1; f <= t.frames; ++f) {
        const ML::Ptr<ML::Buffer> rows = session.host().cache().find("nms_out_" + std::to_string(f) + "_" + id);
        if (!rows) continue;
        ++detected;
        const auto* bytes = static_cast<const unsigned char*>(rows->getData());
        if (std::any_of(bytes, bytes + rows->getSize(), [](unsigned char b) { return b != 0; })) ++suppressed;
    }
    Networks n{{networkOf(session, o.target, o.model, id + "_detector", detected)}, "tracking, shapes and JSON counted as plug-in work"};
    if (suppressed) n.runs.push_back(networkOf(session, o.target, o.model, id + "_nms", suppressed));
    return n;
}

// Mask propagation of one object keyed on the first timed frame, at the execution size (one
// tile, one chunk of masks): per frame the query encoder, the readout, fusion, transformer and
// decoder, the masks and their encoder; every fifth frame the mask encoder for working memory;
// the keyframe's encoding once. The memory's shapes are those of the model's slots.
constexpr int kMaskPropagationExecH = 512, kMaskPropagationExecW = 1024, kMaskPropagationSlots = 5;

Networks maskPropagationNetworks(Session& session, const Options&, const RenderRequest&, const TimedFrames& t) {
    const std::filesystem::path models = session.packageDir() / "models" / "qt";
    const int64_t h = kMaskPropagationExecH, w = kMaskPropagationExecW, h16 = h / 16, w16 = w / 16;
    const int64_t thw = kMaskPropagationSlots * h16 * w16;
    const long n = t.frames;
    const auto run = [&](const char* name, long runs, std::vector<std::vector<int64_t>> shapes) {
        NetworkRuns r;
        r.file = models / (std::string("qt_") + name + ".onnx");
        r.runs = runs;
        r.shapes = std::move(shapes);
        return r;
    };
    const std::vector<int64_t> cells{1, 256, h16, w16}, plane{1, 1, h, w}, summary{1, 1, 16, 257};
    return {{run("qe", n + 1, {{1, 3, h, w}}),
             run("get_readout", n, {{1, thw, 64}, {1, h16, w16, 64}, {1, thw, 1}, {1, h16, w16, 64}, {1, thw, 256},
                                    {1, kMaskPropagationSlots, 1}}),
             run("f", n, {cells, cells, cells, {1, 1, h16, w16}, {1, 1, h16, w16}}),
             run("ot", n, {cells, summary, summary, {1, h16, w16, 256}}),
             run("md", n, {{1, 512, h / 8, w / 8}, {1, 256, h / 4, w / 4}, cells, cells}),
             run("get_masks", n + n / 5, {plane}),
             run("get_mask_others", 1 + n / 5, {plane}),
             run("me", 1 + n / 5, {{1, 3, h, w}, cells, cells, plane, plane}),
             run("rle_encoder", n, {{2100000}})},
            "resampling, the memory's uploads and the masks' copies counted as plug-in work"};
}

// Interactive segmentation of one click per frame: the encoder once per frame that the host had
// not encoded (every timed frame, from an emptied cache) and the single decoder once per render.
Networks segmentationNetworks(Session& session, const Options& o, const RenderRequest&, const TimedFrames& t) {
    const std::string id = modelIdOf(session, o.target, o.model);
    return {{networkOf(session, o.target, o.model, id + "_enc", static_cast<long>(t.cache.fills)),
             networkOf(session, o.target, o.model, id + "_dec_single", t.frames)},
            "resampling the logits and the logits-to-mask tiles counted as plug-in work"};
}

const BenchTarget kBenchTargets[] = {
    {TARGET_INTERACTIVE_SEGMENTATION, 1920, 1080, 10, segmentationNetworks},
    {TARGET_MASK_PROPAGATION, kMaskPropagationExecW, kMaskPropagationExecH, 10, maskPropagationNetworks},
    {TARGET_OPTICAL_FLOW, 1920, 1080, 10, flowNetworks},
    {TARGET_RETIMING, 1920, 1080, 3, retimingNetworks},
    {1, 1920, 1080, 6, denoiseNetworks},
    {2, 640, 360, 3, upresNetworks},
    {TARGET_DEPTH, 1920, 1080, 10, depthNetworks},
    {TARGET_FACE_DETECTION, 1920, 1080, 10, detectionNetworks},
    {TARGET_PLATE_DETECTION, 1920, 1080, 10, detectionNetworks},
};

// The middle frame of a picture, sequence or video (clips often open on black), resampled
// (bilinear) to width x height.
QMedia::Frame benchPicture(const std::filesystem::path& input, int width, int height) {
    QMedia::Frame source;
    try {
        auto media = QMedia::MediaSource::open(input);
        const QMedia::FrameRange range = media->frameRange();
        source = media->read(range.first + (range.last - range.first) / 2);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot read " + input.string(), e, input.string());
    }
    QMedia::Frame picture(width, height, 3, ML::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const float fx = std::clamp((x + 0.5f) * source.width() / width - 0.5f, 0.0f, source.width() - 1.0f);
            const float fy = std::clamp((y + 0.5f) * source.height() / height - 0.5f, 0.0f, source.height() - 1.0f);
            const int x0 = static_cast<int>(fx), y0 = static_cast<int>(fy);
            const int x1 = std::min(x0 + 1, source.width() - 1), y1 = std::min(y0 + 1, source.height() - 1);
            const float ax = fx - x0, ay = fy - y0;
            for (int c = 0; c < 3; ++c) {
                const int sc = std::min(c, source.channels() - 1);
                const float top = source.sample(x0, y0, sc) * (1 - ax) + source.sample(x1, y0, sc) * ax;
                const float bottom = source.sample(x0, y1, sc) * (1 - ax) + source.sample(x1, y1, sc) * ax;
                picture.setSample(x, y, c, top * (1 - ay) + bottom * ay);
            }
        }
    return picture;
}

struct DirectRun {
    double total = 0;
    std::string shape;
};

// An input of the network: the picture sampled to it for an image of three channels (N, 3, H, W),
// 1.0 everywhere for anything else (noise maps, times, scales).
template <class T>
Ort::Value inputTensor(std::vector<T>& data, const std::vector<int64_t>& shape, const QMedia::Frame& picture) {
    int64_t count = 1;
    for (int64_t extent : shape) count *= extent;
    data.assign(static_cast<std::size_t>(count), T(1.0f));
    if (shape.size() == 4 && shape[1] == 3) {
        const int64_t h = shape[2], w = shape[3];
        for (int64_t ch = 0; ch < 3; ++ch)
            for (int64_t y = 0; y < h; ++y)
                for (int64_t x = 0; x < w; ++x) {
                    const int sx = static_cast<int>(x * picture.width() / w);
                    const int sy = static_cast<int>(y * picture.height() / h);
                    const int sc = static_cast<int>(std::min<int64_t>(ch, picture.channels() - 1));
                    data[static_cast<std::size_t>((ch * h + y) * w + x)] = T(picture.sample(sx, sy, sc));
                }
    }
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    return Ort::Value::CreateTensor<T>(memory, data.data(), data.size(), shape.data(), shape.size());
}

// The network alone: inputs of the network's size (F16 or F32, planar), prepared once, run
// `runs` times after one warm-up run.
DirectRun runDirect(const NetworkRuns& n, const QMedia::Frame& picture) {
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
    std::vector<Ort::AllocatedStringPtr> names;
    std::vector<const char*> inputNames, outputNames;
    std::vector<Ort::Value> inputs;
    std::vector<std::vector<Ort::Float16_t>> halves(session.GetInputCount());
    std::vector<std::vector<float>> floats(session.GetInputCount());
    DirectRun run;
    for (std::size_t i = 0; i < session.GetInputCount(); ++i) {
        names.push_back(session.GetInputNameAllocated(i, allocator));
        inputNames.push_back(names.back().get());
        const Ort::TypeInfo type = session.GetInputTypeInfo(i);
        const auto info = type.GetTensorTypeAndShapeInfo();  // a view into `type`
        // Free extents: one image of the tile size.
        std::vector<int64_t> shape = n.shapes.empty() ? info.GetShape() : n.shapes.at(i);
        for (std::size_t d = 0; d < shape.size(); ++d)
            if (shape[d] < 1) shape[d] = shape.size() == 4 && d == 1 ? 3 : shape.size() == 4 && d == 2 ? (n.tileH > 0 ? n.tileH : 256)
                                         : shape.size() == 4 && d == 3 ? (n.tileW > 0 ? n.tileW : 256) : 1;
        inputs.push_back(info.GetElementType() == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT
                             ? inputTensor(floats[i], shape, picture)
                             : inputTensor(halves[i], shape, picture));
        if (i == 0)
            for (std::size_t d = 0; d < shape.size(); ++d) run.shape += (d ? "x" : "") + std::to_string(shape[d]);
    }
    for (std::size_t i = 0; i < session.GetOutputCount(); ++i) {
        names.push_back(session.GetOutputNameAllocated(i, allocator));
        outputNames.push_back(names.back().get());
    }
    const auto once = [&] {
        session.Run(Ort::RunOptions{nullptr}, inputNames.data(), inputs.data(), inputs.size(), outputNames.data(),
                    outputNames.size());
    };
    once();  // warm-up
    for (long i = 0; i < n.runs; ++i) {
        const auto start = Clock::now();
        once();
        run.total += seconds(start);
    }
    return run;
}

// Renders frames first..first + count - 1, `threads` at a time as the render command does;
// returns the wall time.
double renderFrames(FrameRenderer& renderer, const QMedia::Frame& picture,
                    const std::function<NeighbourFrames(int)>& around, int first, int count, int threads) {
    const auto start = Clock::now();
    for (int batch = first; batch < first + count; batch += threads) {
        const int n = std::min(threads, first + count - batch);
        std::vector<FrameResult> results(static_cast<std::size_t>(n));
        std::vector<std::thread> workers;
        for (int k = 1; k < n; ++k)
            workers.emplace_back([&, k] { results[k] = renderer.render(batch + k, picture, around(batch + k)); });
        results[0] = renderer.render(batch, picture, around(batch));
        for (auto& w : workers) w.join();
    }
    return seconds(start);
}

// Seconds of one memcpy of inputBytes and one of outputBytes, the best of a few.
double memcpyFloor(size_t inputBytes, size_t outputBytes) {
    std::vector<unsigned char> a(inputBytes, 1), b(inputBytes), c(outputBytes, 2), d(outputBytes);
    double best = 1e9;
    for (int i = 0; i < 20; ++i) {
        const auto start = std::chrono::steady_clock::now();
        std::memcpy(b.data(), a.data(), inputBytes);
        std::memcpy(d.data(), c.data(), outputBytes);
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        // Keeps the copies from being dropped.
        if (inputBytes && outputBytes) a[static_cast<size_t>(i) % inputBytes] = static_cast<unsigned char>(b[0] + d[0]);
    }
    return best;
}

}  // namespace

int runBench(const Options& o, std::ostream& out, std::ostream& err) {
    const auto* bench = std::find_if(std::begin(kBenchTargets), std::end(kBenchTargets),
                                     [&](const BenchTarget& b) { return b.target == o.target; });
    if (bench == std::end(kBenchTargets))
        throw UsageError("bench measures denoise, upres, optical-flow, mask-propagation, retiming, depth, face-detection, "
                         "plate-detection and interactive-segmentation only");
    const int width = o.benchWidth > 0 ? o.benchWidth : bench->width;
    const int height = o.benchHeight > 0 ? o.benchHeight : bench->height;
    const int frames = o.benchFrames > 0 ? o.benchFrames : bench->frames;

    Session session({o.plugin, o.package, o.verbosity, o.cacheMb << 20}, err);
    CancelWatch cancel;
    Options options = o;
    options.buffers.clear();
    if (o.target == 2 && renderRequestFor(o).outputScale == 1.0f)
        options.params.push_back(parseParam("200:float=2"));  // upscaling by 2 unless --scale says otherwise
    if (o.target == TARGET_OPTICAL_FLOW && neighbourOffsets(o.target, o.params).empty())
        options.params.push_back(parseParam("700:int=1"));  // flow to the next frame unless --offset says otherwise
    // The detection effects track from the first timed frame (the warm-up walks up to it).
    std::vector<ParamSetting> defaults = defaultParams(o.target, QMedia::FrameRange{1, frames});
    options.params.insert(options.params.begin(), defaults.begin(), defaults.end());
    const QMedia::Frame picture = o.input.empty() ? makeSampleImage(width, height) : benchPicture(o.input, width, height);
    RenderRequest request = renderRequestFor(options);
    request.sourceFrame = [&picture](int) { return picture; };  // the one picture stands for every frame
    ML::Ptr<QHost::OwnedImage> keyMask;
    if (o.target == TARGET_MASK_PROPAGATION) {
        // One object, a disc in the middle of frame 1, which starts the walk.
        keyMask = QHost::OwnedImage::make({0, 0, width, height}, ML::Image::R, ML::Image::HWC, ML::F32);
        const float r = 0.2f * static_cast<float>(std::min(width, height));
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                keyMask->at<float>(x, y) = std::hypot(x - width / 2.0f, y - height / 2.0f) <= r ? 1.0f : 0.0f;
        for (const char* p : {"300:int=1", "301:int=1", "302:int=1", "304:int=1"}) request.params.push_back(parseParam(p));
        request.keyframeMask = [&keyMask](int f, int index) {
            return f == 1 && index == 0 ? ML::Ptr<ML::Image>(keyMask) : ML::Ptr<ML::Image>();
        };
    }
    const bool segmentation = o.target == TARGET_INTERACTIVE_SEGMENTATION;
    if (segmentation && o.prompt.empty()) {
        // A click in the middle of the picture unless --point or --box say otherwise.
        SegmentationPrompt click;
        click.positive = {0.5f * static_cast<float>(width), 0.5f * static_cast<float>(height)};
        request.inputBuffers = segmentationBuffers(click);
    }
    FrameRenderer renderer(session, cancel, request);
    const std::string modelId = modelIdOf(session, o.target, o.model);
    out << targetName(o.target) << " (" << modelId << ") of a " << width << "x" << height << " picture";
    if (request.outputScale != 1.0f) out << " scaled by " << request.outputScale;
    out << ", " << frames << " frames, after one warm-up frame\n";

    // The one picture stands for every frame; effects that read neighbours get it for those too.
    // Retiming renders the middle of each pair of frames.
    const bool retiming = o.target == TARGET_RETIMING;
    const std::vector<int> offsets = neighbourOffsets(o.target, options.params);
    const auto around = [&](int frame) {
        NeighbourFrames n;
        if (retiming) n.emplace(frame, picture), n.emplace(frame + 1, picture);
        for (int d : offsets) n.emplace(frame + d, picture);
        return n;
    };
    const auto paramsAt = [&](int frame) {
        std::vector<ParamSetting> params;
        if (retiming) params.push_back(parseParam("400:float=" + std::to_string(frame + 0.5)));
        return params;
    };
    FrameResult first;
    renderer.render(0, picture, around(0), paramsAt(0));  // loads the networks
    session.host().cache().clear();
    session.host().cache().resetStats();
    double plugin = 0;
    for (int i = 0; i < frames; ++i) {
        FrameResult r = renderer.render(i + 1, picture, around(i + 1), paramsAt(i + 1));
        plugin += r.pluginSeconds;
        if (i == 0) first = std::move(r);
    }
    TimedFrames timed;
    timed.frames = frames;
    timed.progress = first.progress;
    timed.cache = session.host().cache().stats();
    timed.cacheEntries = session.host().cache().size();
    timed.cacheBytes = session.host().cache().bytes();

    char line[400];
    std::snprintf(line, sizeof line, "Through the plug-in:   %9.3f ms per frame, %.2f frames/s (modes 3 and 4)\n",
                  plugin / frames * 1000.0, plugin > 0 ? frames / plugin : 0.0);
    out << line;

    if (o.target == TARGET_DENOISE) {
        // Frames of their own numbers, so that the cache holds none of them yet.
        const int base = frames + 100;
        session.host().cache().clear();
        const double one = renderFrames(renderer, picture, around, base, frames, 1);
        session.host().cache().clear();
        const double two = renderFrames(renderer, picture, around, base + 1000, frames, 2);
        std::snprintf(line, sizeof line,
                      "Host threads:          %9.2f frames/s on one, %.2f on two (%.2fx; goal >= 1.6x)\n",
                      frames / one, frames / two, one / two);
        out << line;
    }

    const Networks networks = bench->networks(session, o, request, timed);
    if (isDetectionTarget(o.target)) {
        // The same frames from an emptied cache with tracking off, then once more with tracking
        // on over the cached detections and states: the plug-in's own work per frame.
        RenderRequest untracked = request;
        untracked.params.push_back(parseParam("502:int=0"));
        untracked.params.push_back(parseParam("503:int=0"));
        FrameRenderer plain(session, cancel, untracked);
        session.host().cache().clear();
        double fresh = 0, cached = 0;
        for (int i = 0; i < frames; ++i) fresh += plain.render(i + 1, picture, around(i + 1)).pluginSeconds;
        for (int i = 0; i < frames; ++i) cached += renderer.render(i + 1, picture, around(i + 1)).pluginSeconds;
        std::snprintf(line, sizeof line, "Without tracking:      %9.3f ms per frame, %.2f frames/s\n", fresh / frames * 1000.0,
                      fresh > 0 ? frames / fresh : 0.0);
        out << line;
        std::snprintf(line, sizeof line, "Everything cached:     %9.3f ms per frame (states and detections from the cache)\n",
                      cached / frames * 1000.0);
        out << line;
    }
    if (o.target == TARGET_MASK_PROPAGATION) {
        // The last frame asked for after the host dropped everything: the walk from the keyframe
        // (frame 1) again, every frame on the way computed once.
        session.host().cache().clear();
        const double walk = renderer.render(frames, picture, around(frames), paramsAt(frames)).pluginSeconds;
        std::snprintf(line, sizeof line,
                      "Walk after eviction:   %9.3f ms for frame %d from an empty cache (%d frames walked, %.3f ms each)\n",
                      walk * 1000.0, frames, frames, walk / frames * 1000.0);
        out << line;
    }
    double promptChange = 0;
    if (segmentation) {
        // What an artist waits for after a click: a new prompt on a frame already encoded, a
        // point moved a little each time (the decoder and the logits-to-mask stage, no encoder).
        for (int i = 0; i < frames; ++i) {
            RenderRequest moved = request;
            auto& points = moved.inputBuffers[kPositivePointsBuffer];
            if (points.empty()) points = {0.5f * static_cast<float>(width), 0.5f * static_cast<float>(height)};
            points[0] += static_cast<float>(i + 1);
            FrameRenderer again(session, cancel, moved);
            promptChange += again.render(1, picture, around(1)).pluginSeconds;
        }
        std::snprintf(line, sizeof line,
                      "Prompt change:         %9.3f ms per render, %.2f renders/s (frame encoded; no encoder run)\n",
                      promptChange / frames * 1000.0, promptChange > 0 ? frames / promptChange : 0.0);
        out << line;
    }
    double direct = 0;
    std::vector<double> alone;
    for (const NetworkRuns& n : networks.runs) {
        DirectRun run;
        try {
            run = runDirect(n, picture);
        } catch (const Ort::Exception& e) {
            throw CliError::because(EXIT_BACKEND, "cannot run " + n.file.string() + " with ONNX Runtime", e,
                                    n.file.string());
        }
        direct += run.total;
        alone.push_back(n.runs > 0 ? run.total / static_cast<double>(n.runs) : 0.0);
        std::snprintf(line, sizeof line, "Network alone (ORT):   %9.3f ms per frame (%ld run%s of %s on %s, prepared once)\n",
                      run.total / frames * 1000.0, n.runs, n.runs == 1 ? "" : "s", n.file.filename().c_str(),
                      run.shape.c_str());
        out << line;
    }
    if (segmentation && alone.size() == 2) {
        std::snprintf(line, sizeof line, "Encoder:               %9.3f ms per run (once per frame)\n", alone[0] * 1000.0);
        out << line;
        std::snprintf(line, sizeof line,
                      "Decoder:               %9.3f ms per run (once per prompt); a prompt change costs %.2f x it\n",
                      alone[1] * 1000.0, alone[1] > 0 ? promptChange / frames / alone[1] : 0.0);
        out << line;
    }
    const double ratio = direct > 0 ? plugin / direct : 0.0;
    std::snprintf(line, sizeof line, "Plug-in overhead:      %9.3f x the network time (%+.1f%%; goal <= +5%%)%s%s\n",
                  ratio, (ratio - 1.0) * 100.0, networks.note.empty() ? "" : "; ", networks.note.c_str());
    out << line;
    // Everything but the networks, against the floor of any work on the frame: one copy of its
    // input bytes and one of its output bytes.
    const double floor = memcpyFloor(picture.byteSize(), first.output.byteSize() + first.output1.byteSize());
    const double own = (plugin - direct) / frames;
    std::snprintf(line, sizeof line, "Plug-in work:          %9.3f ms per frame, %.1f x a memcpy of the frame's bytes (%.3f ms)\n",
                  own * 1000.0, floor > 0 ? own / floor : 0.0, floor * 1000.0);
    out << line;
    return EXIT_OK;
}

}  // namespace QCli
