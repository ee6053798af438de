#include "FlowGraph.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "StandIns.h"

namespace qpkg {

namespace {

std::string padEdges(GraphBuilder& g, const std::string& x, int64_t n) {
    return g.op("Pad", {x, g.constI64({0, 0, n, n, 0, 0, n, n}, {8})}, {attrString("mode", "edge")});
}

// Channels [from, from + count) of an N x C x h x w tensor.
std::string channels(GraphBuilder& g, const std::string& x, int64_t from, int64_t count) {
    return g.op("Slice", {x, g.constI64({from}, {1}), g.constI64({from + count}, {1}), g.constI64({1}, {1})});
}

// The window of the same c channels at h x w read from x shifted by (dy, dx) in an edge padding
// of one pixel.
std::string shifted(GraphBuilder& g, const std::string& padded, int64_t dy, int64_t dx, int64_t h, int64_t w) {
    return g.op("Slice", {padded, g.constI64({1 + dy, 1 + dx}, {2}), g.constI64({1 + dy + h, 1 + dx + w}, {2}),
                          g.constI64({2, 3}, {2})});
}

// The 3x3 median of every channel, edges repeated: the 19-exchange network for nine values.
std::string median3x3(GraphBuilder& g, const std::string& x, int64_t h, int64_t w) {
    const std::string padded = padEdges(g, x, 1);
    std::vector<std::string> p;
    for (int64_t dy = -1; dy <= 1; ++dy)
        for (int64_t dx = -1; dx <= 1; ++dx) p.push_back(shifted(g, padded, dy, dx, h, w));
    auto sort = [&](int a, int b) {
        const std::string lo = g.op("Min", {p[a], p[b]});
        p[b] = g.op("Max", {p[a], p[b]});
        p[a] = lo;
    };
    const int pairs[19][2] = {{1, 2}, {4, 5}, {7, 8}, {0, 1}, {3, 4}, {6, 7}, {1, 2}, {4, 5}, {7, 8}, {0, 3},
                              {5, 8}, {4, 7}, {3, 6}, {1, 4}, {2, 5}, {4, 7}, {4, 2}, {6, 4}, {4, 2}};
    for (const auto& s : pairs) sort(s[0], s[1]);
    return p[4];
}

// [1 2 1] / 4 in both directions on each of c channels, edges repeated.
std::string binomial3x3(GraphBuilder& g, const std::string& x, int64_t c) {
    const float t[3] = {0.25f, 0.5f, 0.25f};
    std::vector<float> k;
    for (int64_t i = 0; i < c; ++i)
        for (float a : t)
            for (float b : t) k.push_back(a * b);
    return g.op("Conv", {padEdges(g, x, 1), g.constF32(k, {c, 1, 3, 3})}, {attrInt("group", c)});
}

// d/dx and d/dy of a one-channel tensor: N x 2 x h x w.
std::string gradients(GraphBuilder& g, const std::string& x) {
    const float d[3] = {-0.5f, 0.0f, 0.5f}, s[3] = {0.25f, 0.5f, 0.25f};
    std::vector<float> k;
    for (int y = 0; y < 3; ++y)
        for (int xx = 0; xx < 3; ++xx) k.push_back(s[y] * d[xx]);
    for (int y = 0; y < 3; ++y)
        for (int xx = 0; xx < 3; ++xx) k.push_back(d[y] * s[xx]);
    return g.op("Conv", {padEdges(g, x, 1), g.constF32(k, {2, 1, 3, 3})});
}

// The Gaussian window (weights summing to 1) over each of c channels, separably, edges repeated.
std::string window(GraphBuilder& g, const std::string& x, int64_t c, const FlowParams& p) {
    const int64_t r = p.windowRadius, n = 2 * r + 1;
    std::vector<float> taps;
    float sum = 0;
    for (int64_t i = -r; i <= r; ++i) {
        taps.push_back(std::exp(-0.5f * float(i * i) / (p.windowSigma * p.windowSigma)));
        sum += taps.back();
    }
    for (float& t : taps) t /= sum;
    std::vector<float> k;
    for (int64_t i = 0; i < c; ++i) k.insert(k.end(), taps.begin(), taps.end());
    const std::string padded = padEdges(g, x, r);
    const std::string across = g.op("Conv", {padded, g.constF32(k, {c, 1, 1, n})}, {attrInt("group", c)});
    return g.op("Conv", {across, g.constF32(k, {c, 1, n, 1})}, {attrInt("group", c)});
}

}  // namespace

const FlowParams& defaultFlowParams() {
    static const FlowParams p;
    return p;
}

std::vector<std::pair<int64_t, int64_t>> flowPyramid(int64_t h, int64_t w, const FlowParams& p) {
    if (h < 1 || w < 1) throw std::logic_error("flow needs a picture");
    std::vector<std::pair<int64_t, int64_t>> levels{{h, w}};
    while (static_cast<int>(levels.size()) < p.maxLevels) {
        const auto [lh, lw] = levels.back();
        if (lh % 2 || lw % 2 || std::min(lh, lw) / 2 < p.minLevelSide) break;
        levels.emplace_back(lh / 2, lw / 2);
    }
    return levels;
}

std::string luminance(GraphBuilder& g, const std::string& rgb) {
    return g.op("Conv", {rgb, g.constF32({kLumaWeights[0], kLumaWeights[1], kLumaWeights[2]}, {1, 3, 1, 1})});
}

std::string SampleGrids::at(GraphBuilder& g, int64_t h, int64_t w) {
    const auto found = grids_.find({h, w});
    if (found != grids_.end()) return found->second;
    // GridSample wants x, y in -1..1 with pixel centres at (2i + 1) / n - 1.
    std::vector<float> base;
    base.reserve(static_cast<size_t>(h * w * 2));
    for (int64_t y = 0; y < h; ++y)
        for (int64_t xx = 0; xx < w; ++xx) {
            base.push_back(float(2 * xx + 1) / float(w) - 1.0f);
            base.push_back(float(2 * y + 1) / float(h) - 1.0f);
        }
    return grids_[{h, w}] = g.constF32(base, {1, h, w, 2});
}

std::string warpByFlow(GraphBuilder& g, SampleGrids& grids, const std::string& x, const std::string& flow, int64_t h,
                       int64_t w) {
    const std::string nhwc = g.op("Transpose", {flow}, {attrInts("perm", {0, 2, 3, 1})});
    const std::string grid =
        g.op("Add", {g.op("Mul", {nhwc, g.constF32({2.0f / float(w), 2.0f / float(h)}, {2})}),
                     grids.at(g, h, w)});
    return g.op("GridSample", {x, grid},
                {attrInt("align_corners", 0), attrString("mode", "bilinear"), attrString("padding_mode", "border")});
}

std::string pyramidalFlow(GraphBuilder& g, SampleGrids& grids, const std::string& lum0, const std::string& lum1, int64_t h, int64_t w,
                          const FlowParams& p) {
    const auto levels = flowPyramid(h, w, p);
    std::vector<std::string> i0{binomial3x3(g, lum0, 1)}, i1{binomial3x3(g, lum1, 1)};
    const std::vector<int64_t> pool{2, 2};
    for (size_t l = 1; l < levels.size(); ++l) {
        for (auto* pyr : {&i0, &i1})
            pyr->push_back(g.op("AveragePool", {binomial3x3(g, pyr->back(), 1)},
                                {attrInts("kernel_shape", pool), attrInts("strides", pool)}));
    }
    const std::string lambda = g.scalarF32(p.lambda);
    std::string flow;
    for (size_t l = levels.size(); l-- > 0;) {
        const auto [lh, lw] = levels[l];
        if (flow.empty()) {
            // Zero flow of the coarsest level's shape: 0 * the first two gradient planes.
            flow = g.mulScalar(gradients(g, i0[l]), 0.0f);
        } else {
            flow = g.mulScalar(g.op("Resize", {flow, "", g.constF32({1, 1, 2, 2}, {4})},
                                    {attrString("mode", "linear"),
                                     attrString("coordinate_transformation_mode", "half_pixel")}),
                               2.0f);
        }
        // Bounds that keep p + flow(p) inside the picture: beyond the edge the warped picture is
        // flat, the error stays and the flow would run on with every step.
        const std::string pos = g.op(
            "Transpose",
            {g.addScalar(g.op("Mul", {g.addScalar(grids.at(g, lh, lw), 1.0f),
                                      g.constF32({0.5f * float(lw), 0.5f * float(lh)}, {2})}),
                         -0.5f)},
            {attrInts("perm", {0, 3, 1, 2})});
        const std::string lowest = g.op("Neg", {pos});
        const std::string highest = g.op("Sub", {g.constF32({float(lw - 1), float(lh - 1)}, {1, 2, 1, 1}), pos});
        const std::string grad0 = gradients(g, i0[l]);
        const int iters = p.iterations[std::min(l, p.iterations.size() - 1)];
        for (int it = 0; it < iters; ++it) {
            const std::string warped = warpByFlow(g, grids, i1[l], flow, lh, lw);
            const std::string grad = g.mulScalar(g.op("Add", {grad0, gradients(g, warped)}), 0.5f);
            const std::string gx = channels(g, grad, 0, 1), gy = channels(g, grad, 1, 1);
            const std::string e = g.op("Sub", {warped, i0[l]});
            const std::string products =
                g.op("Concat", {g.op("Mul", {gx, gx}), g.op("Mul", {gx, gy}), g.op("Mul", {gy, gy}),
                                g.op("Mul", {gx, e}), g.op("Mul", {gy, e})},
                     {attrInt("axis", 1)});
            const std::string sums = window(g, products, 5, p);
            // lambda grows with the window's contrast, which bounds the condition of A: along an
            // edge the step stays small instead of following the noise.
            const std::string xx = channels(g, sums, 0, 1), yy = channels(g, sums, 2, 1);
            const std::string damp = g.op("Add", {g.mulScalar(g.op("Add", {xx, yy}), p.relativeLambda), lambda});
            const std::string a = g.op("Add", {xx, damp});
            const std::string b = channels(g, sums, 1, 1);
            const std::string c = g.op("Add", {yy, damp});
            const std::string bx = channels(g, sums, 3, 1), by = channels(g, sums, 4, 1);
            const std::string det = g.op("Sub", {g.op("Mul", {a, c}), g.op("Mul", {b, b})});
            // -A^-1 b with A^-1 = [c, -b; -b, a] / det.
            const std::string du = g.op("Div", {g.op("Sub", {g.op("Mul", {b, by}), g.op("Mul", {c, bx})}), det});
            const std::string dv = g.op("Div", {g.op("Sub", {g.op("Mul", {b, bx}), g.op("Mul", {a, by})}), det});
            const std::string step = g.clip(g.op("Concat", {du, dv}, {attrInt("axis", 1)}), -p.maxStep, p.maxStep);
            flow = g.op("Max", {g.op("Min", {g.op("Add", {flow, step}), highest}), lowest});
        }
        for (int i = 0; i < p.medianPasses; ++i) flow = median3x3(g, flow, lh, lw);
    }
    return flow;
}

}  // namespace qpkg
