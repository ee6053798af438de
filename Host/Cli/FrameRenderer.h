#pragma once
// One frame through the plug-in as a host does it: a call in mode 3 (prepare), then one in
// mode 4 (render) with the same settings, and the outputs taken back as frames.
// render() may run on several threads at once.
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Host/Cli/Cancellation.h"
#include "Host/Cli/Options.h"
#include "Host/Cli/Session.h"
#include "Host/Media/Frame.h"

namespace QCli {

struct RenderRequest {
    int target = 9;
    int model = 0;
    std::string backend;
    std::optional<std::uint32_t> device;
    std::optional<ML::Rect> roi;
    std::vector<ParamSetting> params;
    bool wantOutput1 = false;
    // Output size over input size (upscaling), about the origin point.
    float outputScale = 1.0f;
    int originX = 0, originY = 0;
    std::vector<BufferOutput> buffers;
    // Input buffers handed over with every frame, by id (index -1): the prompt of interactive
    // segmentation.
    std::map<int, std::vector<float>> inputBuffers;
    // Any source frame by number (frames past the clip's ends repeat its first or last), for
    // effects that may ask for frames beyond those handed over; thread-safe. Empty: none.
    std::function<QMedia::Frame(int)> sourceFrame;
    // Mask propagation: the mask of object `index` on keyframe `frame` (null: none).
    std::function<ML::Ptr<ML::Image>(int frame, int index)> keyframeMask;
};

using NeighbourFrames = std::map<int, QMedia::Frame>;

struct FrameResult {
    QMedia::Frame output;   // output image 0
    QMedia::Frame output1;  // output image 1, empty unless asked for
    // Bytes of each requested buffer, in the order of RenderRequest::buffers; nullopt when
    // the plug-in did not produce it.
    std::vector<std::optional<std::string>> buffers;
    double pluginSeconds = 0;     // wall time inside the plug-in's calls (modes 3 and 4)
    std::vector<float> progress;  // the plug-in's progress reports, in order
};

// Input buffers of interactive segmentation: positive points, negative points, the box.
constexpr int kPositivePointsBuffer = 900, kNegativePointsBuffer = 901, kBoxBuffer = 902;
std::map<int, std::vector<float>> segmentationBuffers(const SegmentationPrompt& prompt);
// Refuses (usage error) a point outside the picture of width x height, or a box beside it: the
// plug-in would take it as it is and select nothing.
void checkPromptInPicture(const std::map<int, std::vector<float>>& buffers, int width, int height);

// The request that the options ask for: target, model, backend, region, parameters and buffer
// outputs; for upscaling, the factor and origin of its parameters 200, 202 and 203.
RenderRequest renderRequestFor(const Options& o);

class FrameRenderer {
public:
    FrameRenderer(Session& session, CancelWatch& cancel, RenderRequest request);

    // Throws CliError with the exit code of the plug-in's result and its error text.
    // `neighbours` are the other frames the effect reads, by frame number.
    // `params` are set on top of the request's for this frame only.
    FrameResult render(int frame, const QMedia::Frame& input, const NeighbourFrames& neighbours = {},
                       const std::vector<ParamSetting>& params = {});

private:
    Session& session_;
    CancelWatch& cancel_;
    RenderRequest request_;
};

}  // namespace QCli
