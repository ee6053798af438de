#include "Host/Cli/FrameRenderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <sstream>

#include "Host/BufferText.h"
#include "Host/Cli/CliError.h"
#include "Host/Cli/ImageBridge.h"
#include "Host/Cli/ScaledRegion.h"
#include "Host/Cli/Targets.h"

namespace QCli {

namespace {

// Layout of an output image. A one-channel image is the same in memory either way; it is
// described as planar, which the plug-in's resize path for single-channel outputs handles
// (its interleaved single-channel resize currently fails at the backend).
// The detection effects draw their mask in place, which takes interleaved images.
ML::u32 outputLayout(int target, ML::u32 format) {
    return format == ML::ImageImp::R && !isDetectionTarget(target) ? ML::ImageImp::CHW : ML::ImageImp::HWC;
}

// Channel format of the output images: depth writes one channel (R) and a colour view (RGB);
// other effects give pictures like their input.
ML::u32 outputFormat(int target, int id, const QHost::OwnedImage& input) {
    if (target == TARGET_DEPTH) return id == 0 ? ML::ImageImp::R : ML::ImageImp::RGB;
    if (target == TARGET_OPTICAL_FLOW) return id == 0 ? ML::ImageImp::RG : ML::ImageImp::RGB;
    if ((isDetectionTarget(target) || target == TARGET_MASK_PROPAGATION || target == TARGET_INTERACTIVE_SEGMENTATION) &&
        id == 0)
        return ML::ImageImp::R;  // the objects' mask
    return input.getChannelFormat();
}

// The denoiser, retiming and the detection effects' blurred picture hand back the input's own
// pixels, tile by tile, so those outputs are of the input's type; other outputs are floats.
ML::u32 outputType(int target, int id, const QHost::OwnedImage& input) {
    const bool copiesInput =
        target == TARGET_DENOISE || target == TARGET_RETIMING || (isDetectionTarget(target) && id == 1);
    return copiesInput ? input.getDataType() : ML::F32;
}

bool isJsonPath(const std::filesystem::path& path) { return path.extension() == ".json"; }

// Removes the call's settings from the watch however the render ends.
struct Watched {
    CancelWatch& watch;
    std::shared_ptr<QHost::CallSettings> settings;
    Watched(CancelWatch& w, std::shared_ptr<QHost::CallSettings> s) : watch(w), settings(std::move(s)) {
        watch.add(settings);
    }
    ~Watched() { watch.remove(settings); }
};

}  // namespace

std::map<int, std::vector<float>> segmentationBuffers(const SegmentationPrompt& prompt) {
    std::map<int, std::vector<float>> buffers;
    if (!prompt.positive.empty()) buffers[kPositivePointsBuffer] = prompt.positive;
    if (!prompt.negative.empty()) buffers[kNegativePointsBuffer] = prompt.negative;
    if (!prompt.box.empty()) buffers[kBoxBuffer] = prompt.box;
    return buffers;
}

void checkPromptInPicture(const std::map<int, std::vector<float>>& buffers, int width, int height) {
    const auto text = [](float v) {
        std::ostringstream s;
        s << v;
        return s.str();
    };
    const std::string picture = " lies outside the picture (" + std::to_string(width) + "x" + std::to_string(height) + ")";
    for (int id : {kPositivePointsBuffer, kNegativePointsBuffer}) {
        const auto found = buffers.find(id);
        if (found == buffers.end()) continue;
        const std::vector<float>& xy = found->second;
        for (std::size_t i = 0; i + 1 < xy.size(); i += 2)
            if (xy[i] < 0 || xy[i + 1] < 0 || xy[i] >= static_cast<float>(width) || xy[i + 1] >= static_cast<float>(height))
                throw CliError(EXIT_USAGE, "point " + text(xy[i]) + "," + text(xy[i + 1]) + picture);
    }
    const auto box = buffers.find(kBoxBuffer);
    if (box != buffers.end() && box->second.size() == 4) {
        const std::vector<float>& b = box->second;
        if (b[0] >= static_cast<float>(width) || b[1] >= static_cast<float>(height) || b[2] <= 0 || b[3] <= 0)
            throw CliError(EXIT_USAGE,
                           "box " + text(b[0]) + "," + text(b[1]) + "," + text(b[2]) + "," + text(b[3]) + picture);
    }
}

RenderRequest renderRequestFor(const Options& o) {
    RenderRequest request;
    request.target = o.target;
    request.model = o.model;
    request.backend = o.backend;
    request.device = o.device;
    request.roi = o.roi;
    request.params = o.params;
    if (o.target == 2) {  // upres: the output is the factor's size
        for (const ParamSetting& p : o.params) {
            if (p.id == 200 && p.index == 0 && p.setsFloat) request.outputScale = p.floatValue;
            if (p.id == 202 && p.index == 0 && p.setsInt) request.originX = p.intValue;
            if (p.id == 203 && p.index == 0 && p.setsInt) request.originY = p.intValue;
        }
    }
    request.buffers = o.buffers;
    if (o.target == TARGET_INTERACTIVE_SEGMENTATION) request.inputBuffers = segmentationBuffers(o.prompt);
    return request;
}

FrameRenderer::FrameRenderer(Session& session, CancelWatch& cancel, RenderRequest request)
    : session_(session), cancel_(cancel), request_(std::move(request)) {}

FrameResult FrameRenderer::render(int frame, const QMedia::Frame& inputFrame, const NeighbourFrames& neighbours,
                                  const std::vector<ParamSetting>& params) {
    auto settings = session_.newSettings(3, request_.target);
    const auto frameNumber = static_cast<ML::u32>(frame);
    settings->setFrame(frameNumber);
    settings->setModelIndex(request_.model);
    settings->setBackend(request_.backend);
    if (request_.device) settings->setDeviceId(*request_.device);
    for (const ParamSetting& p : request_.params) applyParam(*settings, p);
    for (const ParamSetting& p : params) applyParam(*settings, p);
    if (request_.roi) settings->setRoi(frameNumber, *request_.roi);

    const float scale = request_.outputScale;
    const int width = static_cast<int>(std::floor(static_cast<float>(inputFrame.width()) * scale));
    const int height = static_cast<int>(std::floor(static_cast<float>(inputFrame.height()) * scale));
    // Outputs cover the region of interest only; the rest of the written frame stays zero.
    ML::Rect outRect{0, 0, width, height};
    ML::Rect inRect = outRect;
    if (scale != 1.0f) {
        // Like a compositing host, hand over the part of the input that the output needs.
        const ScaledRegion region =
            scaledRegion(inputFrame.width(), inputFrame.height(), scale, request_.originX, request_.originY, request_.roi);
        outRect = region.output;
        inRect = region.input;
        if (!request_.roi) settings->setRoi(frameNumber, outRect);  // the host's default is the input's rectangle
    } else if (request_.roi) {
        outRect = *request_.roi;
    }
    if (request_.target == TARGET_INTERACTIVE_SEGMENTATION)
        checkPromptInPicture(request_.inputBuffers, inputFrame.width(), inputFrame.height());
    const auto input = toHostImage(inputFrame, inRect);
    const ML::u32 format0 = outputFormat(request_.target, 0, *input);
    auto output = makeOutputImage(outRect, format0, outputType(request_.target, 0, *input), outputLayout(request_.target, format0));
    settings->setInputImage(frameNumber, input);
    // Frame numbers are the plug-in's unsigned ones: frame -1 is 2^32 - 1 there.
    for (const auto& [number, picture] : neighbours)
        settings->setInputImage(static_cast<ML::u32>(number), toHostImage(picture, inRect));
    if (request_.sourceFrame) {
        const auto read = request_.sourceFrame;
        const auto mask = request_.keyframeMask;
        settings->setInputImageProvider([read, mask, inRect](ML::u32 number, ML::ResourceId id, const ML::Rect*) {
            if (id.id == 2 && mask) return mask(static_cast<std::int32_t>(number), id.index);
            if (id.id != 0) return ML::Ptr<ML::Image>();
            return ML::Ptr<ML::Image>(toHostImage(read(static_cast<std::int32_t>(number)), inRect));
        });
    }
    // Mask propagation writes the object's mask as image (2, 0).
    settings->setOutputImage(frameNumber, output,
                             request_.target == TARGET_MASK_PROPAGATION ? ML::ResourceId{2, 0} : ML::ResourceId{0, -1});
    for (const auto& [id, values] : request_.inputBuffers) {
        ML::Ptr<ML::Buffer> buffer(new ML::BufferImp(values.size() * sizeof(float)));
        std::memcpy(buffer->getData(), values.data(), values.size() * sizeof(float));
        settings->setInputBuffer(frameNumber, buffer, {id, -1});
    }
    // Only the buffers asked for exist: effects skip the work of outputs nobody reads.
    settings->setCreateOutputBuffers(false);
    for (const BufferOutput& b : request_.buffers)
        settings->setOutputBuffer(frameNumber, ML::Ptr<ML::Buffer>(new ML::BufferImp()), {b.id, b.index});
    ML::Ptr<QHost::OwnedImage> output1;
    if (request_.wantOutput1) {
        const ML::u32 format1 = outputFormat(request_.target, 1, *input);
        output1 = makeOutputImage(outRect, format1, outputType(request_.target, 1, *input), outputLayout(request_.target, format1));
        settings->setOutputImage(frameNumber, output1, {1, -1});
    }

    Watched watched(cancel_, settings);
    double pluginSeconds = 0;
    for (int mode : {3, 4}) {
        settings->setMode(mode);
        const auto start = std::chrono::steady_clock::now();
        const int result = session_.run(settings);
        pluginSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (result == 1 || (result == 0 && interrupted())) throw CliError(EXIT_CANCELLED, "cancelled");
        if (result != 0) {
            const std::string what = "frame " + std::to_string(frame) + ": " + targetName(request_.target) + " failed";
            const std::string why = session_.lastPluginError();
            const std::string detail = "plug-in result " + std::to_string(result) + (why.empty() ? "" : ": " + why);
            throw CliError(exitCodeForResult(result), why.empty() ? what : what + ": " + plainReason(why), detail);
        }
    }

    FrameResult result;
    result.pluginSeconds = pluginSeconds;
    result.progress = settings->progress();
    result.output = toFrame(*output, width, height);
    if (output1) result.output1 = toFrame(*output1, width, height);
    for (const BufferOutput& b : request_.buffers) {
        const auto buffer = settings->outputBuffer(frameNumber, {b.id, b.index});
        if (!buffer) {
            result.buffers.emplace_back(std::nullopt);
        } else {
            result.buffers.emplace_back(isJsonPath(b.path) ? QHost::bufferText(buffer) : QHost::bufferBytes(buffer));
        }
    }
    return result;
}

}  // namespace QCli
