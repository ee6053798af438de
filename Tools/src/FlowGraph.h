#pragma once
// Coarse-to-fine Lucas–Kanade optical flow as an ONNX subgraph, shared by the flow and the
// retiming stand-ins.
//
// For a batch of luminance pairs (N x 1 x H x W each) it gives the forward flow N x 2 x H x W
// (x, then y displacement, in pixels of the input): I1(p + flow(p)) ~ I0(p).
//
//   pyramid   each level is the previous one blurred with [1 2 1] / 4 and averaged over 2x2
//             blocks, while both sides are even and the smaller is at least minLevelSide
//   per level from the coarsest: the flow of the level above, resized x2 and doubled (zero at
//             the top); then kIterations of
//               I1w = I1 warped by the flow (GridSample, bilinear, border)
//               g   = (grad I0 + grad I1w) / 2       ([-1 0 1] / 2 x [1 2 1] / 4, edges repeated)
//               e   = I1w - I0
//               A   = W * [gx gx, gx gy; gx gy, gy gy],   b = W * [gx e, gy e]
//               A  += (lambda + relativeLambda trace A) I
//                     (W: a separable Gaussian window of weight 1, edges repeated)
//               flow += clamp(-A^-1 b, -maxStep, maxStep), then limited so that p + flow(p)
//                       stays inside the picture
//             then medianPasses 3x3 medians of each flow component.
// lambda keeps the solve defined in flat areas, where the step goes to zero and the flow of the
// coarser level stands.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "GraphBuilder.h"

namespace qpkg {

struct FlowParams {
    int maxLevels = 5;
    int64_t minLevelSide = 16;
    std::vector<int> iterations{3, 4, 4, 5, 6};  // per level, finest first (last repeats)
    float windowSigma = 2.0f;                      // Gaussian window, pixels of the level
    int64_t windowRadius = 4;
    float lambda = 2e-5f;
    float relativeLambda = 0.05f;
    float maxStep = 2.0f;
    int medianPasses = 2;
};

const FlowParams& defaultFlowParams();

// Sizes of the pyramid's levels, finest (h, w) first.
std::vector<std::pair<int64_t, int64_t>> flowPyramid(int64_t h, int64_t w, const FlowParams& p);

// Rec. 709 luminance of an N x 3 x H x W RGB tensor: N x 1 x H x W.
std::string luminance(GraphBuilder& g, const std::string& rgb);

// Pixel-centre positions of GridSample (1 x h x w x 2, x then y in -1..1), one constant per
// size and graph.
class SampleGrids {
public:
    std::string at(GraphBuilder& g, int64_t h, int64_t w);

private:
    std::map<std::pair<int64_t, int64_t>, std::string> grids_;
};

// x (N x C x h x w) sampled at p + flow(p), flow N x 2 x h x w in pixels: bilinear, edges repeated.
std::string warpByFlow(GraphBuilder& g, SampleGrids& grids, const std::string& x, const std::string& flow, int64_t h,
                       int64_t w);

// Forward flow of the luminance pairs lum0 -> lum1 (N x 1 x h x w each): N x 2 x h x w, pixels.
std::string pyramidalFlow(GraphBuilder& g, SampleGrids& grids, const std::string& lum0, const std::string& lum1, int64_t h, int64_t w,
                          const FlowParams& p = defaultFlowParams());

}  // namespace qpkg
