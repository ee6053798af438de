// quillon render: frames of an input through one effect into output files.
#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "Host/Cli/BufferFile.h"
#include "Host/Cli/Cancellation.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/Commands.h"
#include "Host/Cli/FrameRenderer.h"
#include "Host/Cli/FrameWindow.h"
#include "Host/Cli/Progress.h"
#include "Host/Cli/Session.h"
#include "Host/Cli/Targets.h"
#include "Host/Cli/Timing.h"
#include "Host/Media/MediaSink.h"
#include "Host/Media/MediaSource.h"
#include "Host/Media/PendingFile.h"
#include "Host/Media/SequencePattern.h"
#include "Host/OwnedImage.h"

namespace QCli {

namespace {

std::string rangeText(const QMedia::FrameRange& r) {
    return r.first == r.last ? std::to_string(r.first) : std::to_string(r.first) + "-" + std::to_string(r.last);
}

std::unique_ptr<QMedia::MediaSource> openInput(const std::filesystem::path& path) {
    std::error_code error;
    if (QMedia::mediaKindOf(path) != QMedia::MediaKind::Sequence && !std::filesystem::exists(path, error))
        throw CliError(EXIT_HOST, "input not found: " + path.string());
    try {
        return QMedia::MediaSource::open(path);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot read input " + path.string(), e, path.string());
    }
}

QMedia::FrameRange chooseFrames(const Options& o, const QMedia::MediaSource& source) {
    const QMedia::FrameRange available = source.frameRange();
    QMedia::FrameRange frames = o.frames.value_or(available);
    // One image stands for every frame number.
    if (o.frames && source.kind() != QMedia::MediaKind::Image &&
        (!available.contains(frames.first) || !available.contains(frames.last)))
        throw UsageError("frame range " + rangeText(frames) + " is outside the input (frames " + rangeText(available) +
                         ")");
    if (frames.first < 0) throw UsageError("frame range " + rangeText(frames) + " has negative frames");
    return frames;
}

std::unique_ptr<QMedia::MediaSink> createOutput(const std::filesystem::path& path, const Timing& timing,
                                                const QMedia::MediaSource& source) {
    const QMedia::FrameRange& frames = timing.outputs;
    if (QMedia::mediaKindOf(path) == QMedia::MediaKind::Image && frames.count() > 1)
        throw UsageError("output " + path.string() + " is one image but " + std::to_string(frames.count()) +
                         " frames are rendered; name a sequence (name.%04d.exr) or a video");
    QMedia::MediaSinkOptions options;
    if (timing.rate) options.video.frameRate = *timing.rate;
    else if (source.frameRate().valid()) options.video.frameRate = source.frameRate();
    try {
        return QMedia::MediaSink::create(path, options);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot write output " + path.string(), e, path.string());
    }
}

// A JSON buffer written to one file for several frames: the frames' objects in one array, each
// with its "frame" number, written when the clip is done.
bool collectsClip(const BufferOutput& b, const QMedia::FrameRange& frames) {
    return frames.count() > 1 && b.path.extension() == ".json" && !QMedia::SequencePattern::isPattern(b.path);
}

void checkBufferOutputs(const std::vector<BufferOutput>& buffers, const QMedia::FrameRange& frames) {
    for (const BufferOutput& b : buffers) {
        if (frames.count() > 1 && !QMedia::SequencePattern::isPattern(b.path) && !collectsClip(b, frames))
            throw UsageError("buffer output " + b.path.string() + " is one file but " +
                             std::to_string(frames.count()) + " frames are rendered; put a frame number in its name");
        try {
            QMedia::checkOutputFolder(bufferPathFor(b.path, frames.first));
        } catch (const std::exception& e) {
            throw CliError::because(EXIT_HOST, "cannot write " + b.path.string(), e, b.path.string());
        }
    }
}

QMedia::Frame readFrame(QMedia::MediaSource& source, int frame) {
    try {
        return source.read(frame);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot read frame " + std::to_string(frame) + " of " + source.path().string(), e,
                                source.path().string());
    }
}

void checkRoi(const ML::Rect& roi, const QMedia::Frame& input) {
    if (roi.x0 < 0 || roi.y0 < 0 || roi.x1 > input.width() || roi.y1 > input.height())
        throw UsageError("region " + std::to_string(roi.x0) + "," + std::to_string(roi.y0) + "," +
                         std::to_string(roi.x1) + "," + std::to_string(roi.y1) + " is outside the input (" +
                         std::to_string(input.width()) + "x" + std::to_string(input.height()) + ")");
}

void writeFrame(QMedia::MediaSink& sink, int frame, const QMedia::Frame& pixels) {
    try {
        sink.write(frame, pixels);
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot write frame " + std::to_string(frame) + " to " + sink.path().string(), e,
                                sink.path().string());
    }
}

void finishOutput(QMedia::MediaSink& sink) {
    try {
        sink.finish();
    } catch (const std::exception& e) {
        throw CliError::because(EXIT_HOST, "cannot complete " + sink.path().string(), e, sink.path().string());
    }
}

// The keyframes' masks as one-channel float images of the input's size (the first channel of
// each file, 0..1), and the parameters of one object walked from the first keyframe.
struct KeyframeMasks {
    std::map<int, ML::Ptr<QHost::OwnedImage>> masks;
    std::vector<ParamSetting> params;
};

KeyframeMasks readKeyframeMasks(const std::vector<KeyframeMask>& keyframes, int width, int height) {
    if (keyframes.empty()) throw UsageError("mask-propagation needs at least one --keyframe FRAME=PATH");
    KeyframeMasks k;
    const auto param = [&](int id, int index, int value) {
        ParamSetting p;
        p.id = id;
        p.index = index;
        p.setsInt = true;
        p.intValue = value;
        k.params.push_back(p);
    };
    int first = keyframes.front().frame;
    for (size_t i = 0; i < keyframes.size(); ++i) {
        const KeyframeMask& kf = keyframes[i];
        auto source = openInput(kf.path);
        const QMedia::Frame frame = readFrame(*source, source->frameRange().first);
        if (frame.width() != width || frame.height() != height)
            throw UsageError("keyframe mask " + kf.path.string() + " is " + std::to_string(frame.width()) + "x" +
                             std::to_string(frame.height()) + ", the input " + std::to_string(width) + "x" +
                             std::to_string(height));
        auto mask = QHost::OwnedImage::make({0, 0, width, height}, ML::Image::R, ML::Image::HWC, ML::F32);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x) mask->at<float>(x, y) = frame.sample(x, y, 0);
        k.masks[kf.frame] = mask;
        param(302, static_cast<int>(i), kf.frame);
        first = std::min(first, kf.frame);
    }
    param(300, 0, 1);
    param(301, 0, static_cast<int>(keyframes.size()));
    param(304, 0, first);
    return k;
}

}  // namespace

int runRender(const Options& o, std::ostream& out, std::ostream& err) {
    auto source = openInput(o.input);
    const QMedia::FrameRange frames = chooseFrames(o, *source);
    const bool retiming = o.target == TARGET_RETIMING;
    if (!retiming && (o.speed || o.fps)) throw UsageError("--speed and --fps are for retiming only");
    const Timing timing = timingFor(frames, retiming ? o.speed : std::nullopt, retiming ? o.fps : std::nullopt,
                                    source->frameRate());
    auto sink = createOutput(o.output, timing, *source);
    std::unique_ptr<QMedia::MediaSink> sink1;
    if (!o.output1.empty()) sink1 = createOutput(o.output1, timing, *source);
    checkBufferOutputs(o.buffers, timing.outputs);

    Session session({o.plugin, o.package, o.verbosity, o.cacheMb << 20}, err);
    installInterruptHandler();
    CancelWatch cancelWatch;

    RenderRequest request = renderRequestFor(o);
    request.wantOutput1 = static_cast<bool>(sink1);
    std::vector<ParamSetting> params = defaultParams(o.target, frames);
    params.insert(params.end(), request.params.begin(), request.params.end());
    request.params = std::move(params);
    // An image stands for every frame; sequences and videos repeat their ends.
    const QMedia::FrameRange clip = source->kind() == QMedia::MediaKind::Image ? frames : source->frameRange();
    std::mutex sourceMutex;
    if (isDetectionTarget(o.target)) {
        // Tracking after an evicted state, and smoothing windows, read frames besides the rendered one.
        request.sourceFrame = [&](int f) {
            std::lock_guard<std::mutex> lock(sourceMutex);
            return readFrame(*source, std::clamp(f, clip.first, clip.last));
        };
    }
    KeyframeMasks keyframeMasks;
    if (o.target == TARGET_MASK_PROPAGATION) {
        const QMedia::Frame firstFrame = readFrame(*source, frames.first);
        keyframeMasks = readKeyframeMasks(o.keyframes, firstFrame.width(), firstFrame.height());
        request.params.insert(request.params.end(), keyframeMasks.params.begin(), keyframeMasks.params.end());
        // The walk reads keyframes and the frames on its way, in any order of renders.
        request.sourceFrame = [&](int f) {
            std::lock_guard<std::mutex> lock(sourceMutex);
            return readFrame(*source, std::clamp(f, clip.first, clip.last));
        };
        request.keyframeMask = [&](int f, int index) -> ML::Ptr<ML::Image> {
            auto found = keyframeMasks.masks.find(f);
            if (index != 0 || found == keyframeMasks.masks.end()) return nullptr;
            return ML::Ptr<ML::Image>(found->second);
        };
    } else if (!o.keyframes.empty()) {
        throw UsageError("--keyframe is for mask-propagation only");
    }
    FrameRenderer renderer(session, cancelWatch, request);

    const QMedia::FrameRange& outputs = timing.outputs;
    int threads = std::min(o.threads, outputs.count());
    if (threads > 1 && !allowsParallelFrames(o.target)) {
        err << "quillon: " << targetName(o.target) << " renders frames one after the other; --threads ignored\n";
        threads = 1;
    }

    Progress progress(outputs.count(), err, isatty(STDERR_FILENO) != 0);
    struct Finish {
        Progress& p;
        ~Finish() { p.finish(); }
    } finishProgress{progress};

    FrameWindow window(clip, [&](int f) {
        std::lock_guard<std::mutex> lock(sourceMutex);
        return readFrame(*source, f);
    });
    std::vector<nlohmann::json> clipBuffers(o.buffers.size(), nlohmann::json::array());
    const std::vector<int> offsets = neighbourOffsets(o.target, o.params);
    const int reachBack = offsets.empty() ? 0 : std::max(0, -*std::min_element(offsets.begin(), offsets.end()));

    for (int batchStart = outputs.first; batchStart <= outputs.last; batchStart += threads) {
        const int batch = std::min(threads, outputs.last - batchStart + 1);
        std::vector<QMedia::Frame> inputs;
        std::vector<NeighbourFrames> neighbours(static_cast<std::size_t>(batch));
        std::vector<std::vector<ParamSetting>> frameParams(static_cast<std::size_t>(batch));
        for (int k = 0; k < batch; ++k) {
            if (interrupted()) throw CliError(EXIT_CANCELLED, "cancelled");
            const double position = timing.positions[static_cast<std::size_t>(batchStart + k - outputs.first)];
            const int base = static_cast<int>(std::floor(position));
            if (k == 0) window.forgetBefore(base - reachBack);
            inputs.push_back(window.frame(base));
            if (o.roi) checkRoi(*o.roi, inputs.back());
            if (retiming) {
                // The source position, and the two frames around it under their own numbers.
                for (int f : {base, base + 1}) neighbours[k].emplace(f, window.frame(f));
                ParamSetting t;
                t.id = 400;
                t.setsFloat = true;
                t.floatValue = static_cast<float>(position);
                frameParams[k].push_back(t);
            } else {
                for (int d : offsets) neighbours[k].emplace(base + d, window.frame(base + d));
            }
        }

        std::vector<FrameResult> results(static_cast<std::size_t>(batch));
        std::vector<std::exception_ptr> failures(static_cast<std::size_t>(batch));
        auto work = [&](int k) {
            try {
                results[k] = renderer.render(batchStart + k, inputs[k], neighbours[k], frameParams[k]);
            } catch (...) {
                failures[k] = std::current_exception();
            }
        };
        if (batch == 1) {
            work(0);
        } else {
            std::vector<std::thread> workers;
            for (int k = 0; k < batch; ++k) workers.emplace_back(work, k);
            for (auto& w : workers) w.join();
        }
        // A cancellation wins over the failures it may have caused on other threads.
        for (const auto& f : failures) {
            if (!f) continue;
            try {
                std::rethrow_exception(f);
            } catch (const CliError& e) {
                if (e.exitCode() == EXIT_CANCELLED) throw;
            } catch (...) {
            }
        }
        for (const auto& f : failures)
            if (f) std::rethrow_exception(f);

        for (int k = 0; k < batch; ++k) {
            const int frame = batchStart + k;
            writeFrame(*sink, frame, results[k].output);
            if (sink1) writeFrame(*sink1, frame, results[k].output1);
            for (std::size_t b = 0; b < o.buffers.size(); ++b) {
                if (!results[k].buffers[b]) {
                    err << "quillon: warning: frame " << frame << " produced no buffer " << o.buffers[b].id << "\n";
                    continue;
                }
                if (collectsClip(o.buffers[b], outputs)) {
                    nlohmann::json entry = nlohmann::json::parse(*results[k].buffers[b]);
                    entry["frame"] = frame;
                    clipBuffers[b].push_back(std::move(entry));
                } else {
                    writeBufferFile(bufferPathFor(o.buffers[b].path, frame), *results[k].buffers[b]);
                }
            }
            progress.frameDone();
        }
    }
    for (std::size_t b = 0; b < o.buffers.size(); ++b)
        if (collectsClip(o.buffers[b], outputs)) writeBufferFile(o.buffers[b].path, clipBuffers[b].dump() + "\n");
    finishOutput(*sink);
    if (sink1) finishOutput(*sink1);
    progress.finish();

    out << "Rendered " << outputs.count() << (outputs.count() == 1 ? " frame" : " frames") << " of "
        << targetName(o.target) << " to " << o.output.string();
    if (sink1) out << " and " << o.output1.string();
    out << "\n";
    return EXIT_OK;
}

}  // namespace QCli
