#include "PlateDetector.h"

#include "GraphBuilder.h"
#include "Import/FaceDetector.h"
#include "PackageFiles.h"
#include "StandIns.h"

namespace qpkg {

namespace {

// Stands for "no bright pixel" in the coordinate maxima: far outside the picture.
constexpr float kFar = 1.0e4f;

constexpr int64_t kCellsY = kPlateInputH / kPlateStride, kCellsX = kPlateInputW / kPlateStride;

// The maximum of x over a w x h window centred on each cell's centre, parts outside the picture
// left out: [1,1,H,W] -> [1,1,cellsY,cellsX], done as two one-dimensional pools.
std::string windowMax(GraphBuilder& g, const std::string& x, int64_t w, int64_t h) {
    // A window starting at j * stride + stride / 2 - w / 2: pad w / 2 - stride / 2 on each side.
    const int64_t padX = w / 2 - kPlateStride / 2, padY = h / 2 - kPlateStride / 2;
    const std::string rows = g.op("MaxPool", {x},
                                  {attrInts("kernel_shape", {1, w}), attrInts("strides", {1, kPlateStride}),
                                   attrInts("pads", {0, padX, 0, padX})});
    return g.op("MaxPool", {rows},
                {attrInts("kernel_shape", {h, 1}), attrInts("strides", {kPlateStride, 1}),
                 attrInts("pads", {padY, 0, padY, 0})});
}

// The sum of x over the same windows as windowMax (outside the picture counts as 0).
std::string windowSum(GraphBuilder& g, const std::string& x, int64_t w, int64_t h) {
    const int64_t padX = w / 2 - kPlateStride / 2, padY = h / 2 - kPlateStride / 2;
    const std::string rows = g.op("AveragePool", {x},
                                  {attrInts("kernel_shape", {1, w}), attrInts("strides", {1, kPlateStride}),
                                   attrInts("pads", {0, padX, 0, padX}), attrInt("count_include_pad", 1)});
    const std::string mean = g.op("AveragePool", {rows},
                                  {attrInts("kernel_shape", {h, 1}), attrInts("strides", {kPlateStride, 1}),
                                   attrInts("pads", {padY, 0, padY, 0}), attrInt("count_include_pad", 1)});
    return g.mulScalar(mean, static_cast<float>(w * h));
}

struct Box {
    std::string x1, y1, x2, y2;  // x2, y2 one past the last bright pixel
};

// The bounding box of the bright pixels (m = 1) in each cell's w x h window; an empty window
// gives x1, y1 = kFar and x2, y2 = 1 - kFar.
Box brightBox(GraphBuilder& g, const std::string& m, const std::string& xs, const std::string& ys, int64_t w,
              int64_t h) {
    // m (v + kFar) - kFar: v where bright, -kFar elsewhere.
    auto masked = [&](const std::string& v) { return g.addScalar(g.op("Mul", {m, g.addScalar(v, kFar)}), -kFar); };
    auto largest = [&](const std::string& v) { return windowMax(g, masked(v), w, h); };
    Box b;
    b.x1 = g.op("Neg", {largest(g.op("Neg", {xs}))});
    b.y1 = g.op("Neg", {largest(g.op("Neg", {ys}))});
    b.x2 = g.addScalar(largest(xs), 1.0f);
    b.y2 = g.addScalar(largest(ys), 1.0f);
    return b;
}

std::string toFloat(GraphBuilder& g, const std::string& boolean) {
    return g.op("Cast", {boolean}, {attrInt("to", onnx::TensorProto::FLOAT)});
}

std::string same(GraphBuilder& g, const std::string& a, const std::string& b) {
    return toFloat(g, g.op("Less", {g.op("Abs", {g.op("Sub", {a, b})}), g.scalarF32(0.5f)}));
}

std::string atLeast(GraphBuilder& g, const std::string& a, float v) {
    return toFloat(g, g.op("Not", {g.op("Less", {a, g.scalarF32(v)})}));
}

}  // namespace

onnx::ModelProto buildPlateDetector() {
    GraphBuilder g(std::string(kPlateStandInId) + "_detector");
    const Dim one = Dim::fixed(1);
    const std::string rgb = g.cast(
        g.input("input", ML::F16, {one, Dim::fixed(3), Dim::fixed(kPlateInputH), Dim::fixed(kPlateInputW)}), ML::F16,
        ML::F32);
    const std::string luma =
        g.op("Conv", {rgb, g.constF32({kLumaWeights[0], kLumaWeights[1], kLumaWeights[2]}, {1, 3, 1, 1})});
    const std::string m = toFloat(g, g.op("Greater", {luma, g.scalarF32(kPlateBright)}));  // [1,1,H,W]

    std::vector<float> xv, yv;
    for (int64_t x = 0; x < kPlateInputW; ++x) xv.push_back(static_cast<float>(x));
    for (int64_t y = 0; y < kPlateInputH; ++y) yv.push_back(static_cast<float>(y));
    const std::string xs = g.constF32(xv, {1, 1, 1, kPlateInputW}), ys = g.constF32(yv, {1, 1, kPlateInputH, 1});

    const Box b = brightBox(g, m, xs, ys, kPlateWindowW, kPlateWindowH);
    const Box wide = brightBox(g, m, xs, ys, kPlateWindowW + 2 * kPlateMargin, kPlateWindowH + 2 * kPlateMargin);
    const std::string width = g.op("Sub", {b.x2, b.x1}), height = g.op("Sub", {b.y2, b.y1});
    // Empty windows have negative extents: the size tests reject them before the division matters.
    const std::string area = g.op("Max", {g.op("Mul", {width, height}), g.scalarF32(1.0f)});
    const std::string fill = g.op("Div", {windowSum(g, m, kPlateWindowW, kPlateWindowH), area});
    const std::string aspect = g.op("Div", {width, g.op("Max", {height, g.scalarF32(1.0f)})});

    std::string valid = g.op("Mul", {same(g, b.x1, wide.x1), same(g, b.y1, wide.y1)});
    valid = g.op("Mul", {valid, same(g, b.x2, wide.x2)});
    valid = g.op("Mul", {valid, same(g, b.y2, wide.y2)});
    valid = g.op("Mul", {valid, atLeast(g, width, kPlateMinWidth)});
    valid = g.op("Mul", {valid, atLeast(g, height, kPlateMinHeight)});
    valid = g.op("Mul", {valid, atLeast(g, aspect, kPlateMinAspect)});
    valid = g.op("Mul", {valid, atLeast(g, g.op("Neg", {aspect}), -kPlateMaxAspect)});
    valid = g.op("Mul", {valid, atLeast(g, fill, kPlateMinFill)});

    // Every column times valid, so that rejected cells are zero rows.
    auto keep = [&](const std::string& v) { return g.op("Mul", {v, valid}); };
    const std::string x1 = keep(b.x1), y1 = keep(b.y1), x2 = keep(b.x2), y2 = keep(b.y2);
    const std::string score = keep(g.op("Min", {fill, g.scalarF32(1.0f)}));
    const std::string zero = g.op("Mul", {score, g.scalarF32(0.0f)});
    const std::string planes = g.op("Concat",
                                    {x1, y1, x2, y2, score, zero,   // box, score, class
                                     x1, y1, score, x2, y1, score,  // top-left, top-right
                                     x1, y2, score, x2, y2, score},  // bottom-left, bottom-right
                                    {attrInt("axis", 1)});          // [1, 18, cellsY, cellsX]
    const int64_t cells = kCellsY * kCellsX;
    const std::string rows = g.op("Transpose", {g.op("Reshape", {planes, g.constI64({1, kPlateColumns, cells}, {3})})},
                                  {attrInts("perm", {0, 2, 1})});  // [1, cells, 18]
    const std::string raw = g.op("Pad", {rows, g.constI64({0, 0, 0, 0, kPlateRows - cells, 0}, {6})});
    const std::string above = toFloat(g, g.op("Greater", {score, g.scalarF32(kPlateScoreThreshold)}));
    const std::string count =
        g.op("ReduceSum", {g.op("Reshape", {above, g.constI64({1, cells}, {2})}), g.constI64({1}, {1})},
             {attrInt("keepdims", 0)});
    g.output(raw, "raw", ML::F32, {one, Dim::fixed(kPlateRows), Dim::fixed(kPlateColumns)});
    g.output(count, "count", ML::F32, {one});
    return g.build();
}

onnx::ModelProto buildPlateNms() {
    return tfjs::detectorNmsNetwork(std::string(kPlateStandInId) + "_nms", kPlateRows, kPlateColumns, kPlateNmsRows,
                                    kPlateIouThreshold, kPlateScoreThreshold);
}

std::vector<std::string> plateStandInModelIds() {
    const std::string id = kPlateStandInId;
    return {id + "_detector", id + "_nms"};
}

void writePlateStandIn(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    const std::vector<std::string> ids = plateStandInModelIds();
    writeModel(buildPlateDetector(), modelFolder / (ids[0] + ".onnx"));
    writeModel(buildPlateNms(), modelFolder / (ids[1] + ".onnx"));
}

}  // namespace qpkg
