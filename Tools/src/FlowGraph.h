#pragma once
// Coarse-to-fine Lucas–Kanade optical flow as an ONNX subgraph, shared by the flow and the
// retiming stand-ins.
//
// For a batch of luminance pairs (N x 1 x H x W each) it gives the forward flow N x 2 x H x W
// (x, then y displacement, in pixels of the input): I1(p + flow(p)) ~ I0(p).
//
//   pyramid   `levels` levels, each the previous one blurred with [1 2 1] / 4 and averaged over
//             2x2 blocks (an odd last row or column dropped)
//   per level from the coarsest: the flow of the level above, resized to this level and scaled
//             by the ratio of the sizes (zero at the top); then `iterations` of
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
#include <string>
#include <vector>

#include "GraphBuilder.h"

namespace qpkg {

struct FlowParams {
    int levels = 5;                                // pictures need sides of 2^(levels - 1) at least
    std::vector<int> iterations{3, 4, 4, 5, 6};  // per level, finest first (last repeats)
    float windowSigma = 2.0f;                      // Gaussian window, pixels of the level
    int64_t windowRadius = 4;
    float lambda = 2e-5f;
    float relativeLambda = 0.05f;
    float maxStep = 2.0f;
    int medianPasses = 2;
};

const FlowParams& defaultFlowParams();

// Rec. 709 luminance of an N x 3 x H x W RGB tensor: N x 1 x H x W.
std::string luminance(GraphBuilder& g, const std::string& rgb);

// Pixel positions of one picture size, computed at run time from a tensor of that size.
struct PictureGeometry {
    std::string size;      // [h, w] I64
    std::string extent;    // 1 x 2 x 1 x 1: w, h
    std::string last;      // 1 x 2 x 1 x 1: w - 1, h - 1
    std::string position;  // 1 x 2 x h x w: x, y of each pixel
    std::string grid;      // 1 x h x w x 2: the same in GridSample's -1..1 (pixel centres)
    std::string toNormal;  // [2]: 2 / w, 2 / h, pixels to GridSample units
};
PictureGeometry geometryOf(GraphBuilder& g, const std::string& like);

// x (N x C x h x w) sampled at p + flow(p), flow N x 2 x h x w in pixels: bilinear, edges repeated.
std::string warpByFlow(GraphBuilder& g, const PictureGeometry& geo, const std::string& x, const std::string& flow);

// Forward flow of the luminance pairs lum0 -> lum1 (N x 1 x h x w each, any h, w of at least
// 2^(levels - 1)): N x 2 x h x w, pixels.
std::string pyramidalFlow(GraphBuilder& g, const std::string& lum0, const std::string& lum1,
                          const FlowParams& p = defaultFlowParams());

}  // namespace qpkg
