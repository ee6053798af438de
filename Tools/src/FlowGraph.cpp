#include "FlowGraph.h"

#include <algorithm>
#include <cmath>
#include <limits>
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

// The h x w window of x (padded by one pixel on each side) whose top left corner is at
// (1 + dy, 1 + dx): ends counted from the far edge, so that any size works.
std::string shifted(GraphBuilder& g, const std::string& padded, int64_t dy, int64_t dx) {
    auto end = [](int64_t d) { return d == 1 ? std::numeric_limits<int64_t>::max() : d - 1; };
    return g.op("Slice", {padded, g.constI64({1 + dy, 1 + dx}, {2}), g.constI64({end(dy), end(dx)}, {2}),
                          g.constI64({2, 3}, {2})});
}

// The 3x3 median of every channel, edges repeated: the 19-exchange network for nine values.
std::string median3x3(GraphBuilder& g, const std::string& x) {
    const std::string padded = padEdges(g, x, 1);
    std::vector<std::string> p;
    for (int64_t dy = -1; dy <= 1; ++dy)
        for (int64_t dx = -1; dx <= 1; ++dx) p.push_back(shifted(g, padded, dy, dx));
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

std::string luminance(GraphBuilder& g, const std::string& rgb) {
    return g.op("Conv", {rgb, g.constF32({kLumaWeights[0], kLumaWeights[1], kLumaWeights[2]}, {1, 3, 1, 1})});
}

PictureGeometry geometryOf(GraphBuilder& g, const std::string& like) {
    PictureGeometry geo;
    const std::string shape = g.op("Shape", {like});
    geo.size = g.op("Slice", {shape, g.constI64({2}, {1}), g.constI64({4}, {1}), g.constI64({0}, {1})});
    const std::string h = g.op("Gather", {shape, g.constI64({2}, {})});
    const std::string w = g.op("Gather", {shape, g.constI64({3}, {})});
    const std::string hf = g.cast(h, ML::I64, ML::F32), wf = g.cast(w, ML::I64, ML::F32);
    const std::string zero = g.constI64({0}, {}), one = g.constI64({1}, {});
    const std::string xs = g.cast(g.op("Range", {zero, w, one}), ML::I64, ML::F32);
    const std::string ys = g.cast(g.op("Range", {zero, h, one}), ML::I64, ML::F32);
    const std::string plane = g.op("Concat", {g.constI64({1, 1}, {2}), geo.size}, {attrInt("axis", 0)});
    const std::string px = g.op("Expand", {g.op("Reshape", {xs, g.constI64({1, 1, 1, -1}, {4})}), plane});
    const std::string py = g.op("Expand", {g.op("Reshape", {ys, g.constI64({1, 1, -1, 1}, {4})}), plane});
    geo.position = g.op("Concat", {px, py}, {attrInt("axis", 1)});
    const std::string wh = g.op("Concat", {g.op("Reshape", {wf, g.constI64({1}, {1})}),
                                           g.op("Reshape", {hf, g.constI64({1}, {1})})},
                                {attrInt("axis", 0)});
    geo.extent = g.op("Reshape", {wh, g.constI64({1, 2, 1, 1}, {4})});
    geo.last = g.addScalar(geo.extent, -1.0f);
    // GridSample wants x, y in -1..1 with pixel centres at (2i + 1) / n - 1.
    const std::string normal =
        g.addScalar(g.op("Div", {g.mulScalar(g.addScalar(geo.position, 0.5f), 2.0f), geo.extent}), -1.0f);
    geo.grid = g.op("Transpose", {normal}, {attrInts("perm", {0, 2, 3, 1})});
    geo.toNormal = g.op("Div", {g.scalarF32(2.0f), wh});
    return geo;
}

std::string warpByFlow(GraphBuilder& g, const PictureGeometry& geo, const std::string& x, const std::string& flow) {
    const std::string nhwc = g.op("Transpose", {flow}, {attrInts("perm", {0, 2, 3, 1})});
    const std::string grid = g.op("Add", {g.op("Mul", {nhwc, geo.toNormal}), geo.grid});
    return g.op("GridSample", {x, grid},
                {attrInt("align_corners", 0), attrString("mode", "bilinear"), attrString("padding_mode", "border")});
}

std::string pyramidalFlow(GraphBuilder& g, const std::string& lum0, const std::string& lum1, const FlowParams& p) {
    std::vector<std::string> i0{binomial3x3(g, lum0, 1)}, i1{binomial3x3(g, lum1, 1)};
    const std::vector<int64_t> pool{2, 2};
    for (int l = 1; l < p.levels; ++l) {
        for (auto* pyr : {&i0, &i1})
            pyr->push_back(g.op("AveragePool", {binomial3x3(g, pyr->back(), 1)},
                                {attrInts("kernel_shape", pool), attrInts("strides", pool)}));
    }
    const std::string lambda = g.scalarF32(p.lambda);
    std::string flow;
    PictureGeometry coarser;
    for (size_t l = i0.size(); l-- > 0;) {
        const PictureGeometry geo = geometryOf(g, i0[l]);
        if (flow.empty()) {
            // Zero flow of the coarsest level's shape: 0 * the two gradient planes.
            flow = g.mulScalar(gradients(g, i0[l]), 0.0f);
        } else {
            // To this level's size (twice the coarser one, one more where a side was odd), the
            // displacements scaled by the same factors.
            const std::string sizes =
                g.op("Concat", {g.op("Slice", {g.op("Shape", {flow}), g.constI64({0}, {1}), g.constI64({2}, {1}),
                                               g.constI64({0}, {1})}),
                                geo.size},
                     {attrInt("axis", 0)});
            const std::string up = g.op("Resize", {flow, "", "", sizes},
                                        {attrString("mode", "linear"),
                                         attrString("coordinate_transformation_mode", "half_pixel")});
            flow = g.op("Mul", {up, g.op("Div", {geo.extent, coarser.extent})});
        }
        // Bounds that keep p + flow(p) inside the picture: beyond the edge the warped picture is
        // flat, the error stays and the flow would run on with every step.
        const std::string lowest = g.op("Neg", {geo.position});
        const std::string highest = g.op("Sub", {geo.last, geo.position});
        const std::string grad0 = gradients(g, i0[l]);
        const int iters = p.iterations[std::min(l, p.iterations.size() - 1)];
        for (int it = 0; it < iters; ++it) {
            const std::string warped = warpByFlow(g, geo, i1[l], flow);
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
        for (int i = 0; i < p.medianPasses; ++i) flow = median3x3(g, flow);
        coarser = geo;
    }
    return flow;
}

}  // namespace qpkg
