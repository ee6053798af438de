#include "SegmentationStandIn.h"

#include <algorithm>

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

constexpr int64_t kFeatures = 9;  // used channels of feat4
constexpr float kFar = 1.0e4f;    // a squared distance no prompt reaches

Dims shape(std::initializer_list<int64_t> extents) {
    Dims d;
    for (int64_t e : extents) d.push_back(Dim::fixed(e));
    return d;
}

// Mean over k x k neighbours (k odd) at the same size, edges averaging what they have.
std::string smooth(GraphBuilder& g, const std::string& x, int64_t k) {
    const int64_t r = k / 2;
    return g.op("AveragePool", {x},
                {attrInts("kernel_shape", {k, k}), attrInts("pads", {r, r, r, r}), attrInt("count_include_pad", 0)});
}
std::string maxPool(GraphBuilder& g, const std::string& x, int64_t k, int64_t stride) {
    const int64_t r = stride == 1 ? k / 2 : 0;
    return g.op(
        "MaxPool", {x},
        {attrInts("kernel_shape", {k, k}), attrInts("strides", {stride, stride}), attrInts("pads", {r, r, r, r})});
}
std::string toFloat(GraphBuilder& g, const std::string& x) {
    return g.op("Cast", {x}, {attrInt("to", onnx::TensorProto::FLOAT)});
}
std::string sub(GraphBuilder& g, const std::string& a, const std::string& b) { return g.op("Sub", {a, b}); }
std::string mul(GraphBuilder& g, const std::string& a, const std::string& b) { return g.op("Mul", {a, b}); }
std::string add(GraphBuilder& g, const std::string& a, const std::string& b) { return g.op("Add", {a, b}); }
std::string oneMinus(GraphBuilder& g, const std::string& x) { return sub(g, g.scalarF32(1.0f), x); }

// CIE Lab (D65) of sRGB values 0..1, as N x 3 x H x W: L times
// kSegmentLightnessWeight, a and b, all over 100.
std::string lab(GraphBuilder& g, const std::string& rgb) {
    const std::string x = g.clip(rgb, 0.0f, 1.0f);
    const std::string linear =
        g.op("Where",
             {g.op("Greater", {x, g.scalarF32(0.04045f)}),
              g.op("Pow", {g.divScalar(g.addScalar(x, 0.055f), 1.055f), g.scalarF32(2.4f)}), g.divScalar(x, 12.92f)});
    // sRGB primaries to XYZ, each row over the white point's component.
    const float xyz[9] = {0.4124f / 0.95047f, 0.3576f / 0.95047f, 0.1805f / 0.95047f,  //
                          0.2126f,            0.7152f,            0.0722f,             //
                          0.0193f / 1.08883f, 0.1192f / 1.08883f, 0.9505f / 1.08883f};
    const std::string t = g.op("Conv", {linear, g.constF32(std::vector<float>(xyz, xyz + 9), {3, 3, 1, 1})});
    const std::string f = g.op("Where", {g.op("Greater", {t, g.scalarF32(0.008856f)}),
                                         g.op("Pow", {g.op("Max", {t, g.scalarF32(1e-6f)}), g.scalarF32(1.0f / 3.0f)}),
                                         g.addScalar(g.mulScalar(t, 7.787f), 16.0f / 116.0f)});
    const float l = kSegmentLightnessWeight / 100.0f;
    const std::vector<float> m{0.0f, 116.0f * l, 0.0f, 5.0f, -5.0f, 0.0f, 0.0f, 2.0f, -2.0f};
    return g.op("Conv", {f, g.constF32(m, {3, 3, 1, 1}), g.constF32({-16.0f * l, 0.0f, 0.0f}, {3})});
}

// Column and row of every cell of an h x w grid, each as a 1 x 1 x h x w constant, scaled.
std::pair<std::string, std::string> cellPositions(GraphBuilder& g, int64_t h, int64_t w, float sx, float sy,
                                                  float offset) {
    std::vector<float> xs, ys;
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            xs.push_back((static_cast<float>(x) + offset) * sx);
            ys.push_back((static_cast<float>(y) + offset) * sy);
        }
    return {g.constF32(xs, {1, 1, h, w}), g.constF32(ys, {1, 1, h, w})};
}

// Reduction over one axis (ReduceSum takes its axes as an input, the others as an attribute).
std::string reduce(GraphBuilder& g, const std::string& type, const std::string& x, int64_t axis, bool keep = true) {
    if (type == "ReduceSum") return g.op(type, {x, g.constI64({axis}, {1})}, {attrInt("keepdims", keep ? 1 : 0)});
    return g.op(type, {x}, {attrInts("axes", {axis}), attrInt("keepdims", keep ? 1 : 0)});
}

}  // namespace

onnx::ModelProto buildSegmentationEncoder(int64_t h, int64_t w) {
    GraphBuilder g(std::string(kSegmentationStandInId) + "_enc");
    const int64_t h4 = h / 4, w4 = w / 4;
    const std::string image = g.inputF16("image", shape({1, 3, h, w}));
    const std::string colour = lab(g, g.averagePool(image, 4));
    const std::string smoothed = g.mulScalar(smooth(g, colour, 5), kSegmentSmoothWeight);
    const std::string luma =
        g.op("Conv", {g.clip(image, 0.0f, 1.0f), g.constF32({0.2126f, 0.7152f, 0.0722f}, {1, 3, 1, 1})});
    const std::string mean = g.averagePool(luma, 4);
    const std::string spread =
        g.op("Sqrt", {g.addScalar(g.op("Relu", {sub(g, g.averagePool(mul(g, luma, luma), 4), mul(g, mean, mean))}), 1e-8f)});
    const std::string texture = g.mulScalar(smooth(g, spread, 3), kSegmentTextureWeight);
    const auto [px, py] = cellPositions(g, h4, w4, kSegmentPositionWeight / static_cast<float>(w4),
                                        kSegmentPositionWeight / static_cast<float>(h4), 0.5f);
    const std::string features = g.op("Concat", {colour, smoothed, texture, px, py}, {attrInt("axis", 1)});
    g.outputF16(g.padChannels(features, kFeatures, 32), "feat4", shape({1, 32, h4, w4}));
    g.outputF16(g.padChannels(g.averagePool(features, 2), kFeatures, 64), "feat8", shape({1, 64, h / 8, w / 8}));
    g.outputF16(g.padChannels(g.averagePool(features, 4), kFeatures, 256), "feat16", shape({1, 256, h / 16, w / 16}));
    return g.build();
}

onnx::ModelProto buildSegmentationDecoder(int64_t h, int64_t w, int64_t n, int64_t batch) {
    GraphBuilder g(std::string(kSegmentationStandInId) + (batch == 1 ? "_dec_single" : "_dec_batch"));
    const int64_t h4 = h / 4, w4 = w / 4, h16 = h / 16, w16 = w / 16, cells = h4 * w4, m = n + 1;
    g.input("feat16", ML::F16, shape({1, 256, h16, w16}));
    const std::string feat4 = g.inputF16("feat4", shape({1, 32, h4, w4}));
    g.input("feat8", ML::F16, shape({1, 64, h / 8, w / 8}));
    const std::string coords = g.inputF16("promptCoords", shape({batch, n, 2}));
    const std::string labels = g.inputF16("promptLabels", shape({batch, n}));
    const std::string valid = g.inputF16("promptValid", shape({batch, n}));
    g.input("maskInput", ML::F16, shape({1, 1, h4, w4}));
    g.input("hasMaskInput", ML::F16, shape({1, 1}));

    // Entries by label; boxes by their corners (one box: with several, their corners average).
    const auto labelled = [&](float label) {
        return mul(g, toFloat(g, g.op("Less", {g.op("Abs", {g.addScalar(labels, -label)}), g.scalarF32(0.5f)})), valid);
    };
    const std::string positive = labelled(1.0f), negative = labelled(0.0f), topLeft = labelled(2.0f),
                      bottomRight = labelled(3.0f);
    const std::string px = g.op("Gather", {coords, g.constI64({0}, {})}, {attrInt("axis", 2)});
    const std::string py = g.op("Gather", {coords, g.constI64({1}, {})}, {attrInt("axis", 2)});
    const std::string corners = g.op("Max", {reduce(g, "ReduceSum", topLeft, 1), g.scalarF32(1.0f)});
    const auto corner = [&](const std::string& v, const std::string& which) {
        return g.op("Div", {reduce(g, "ReduceSum", mul(g, v, which), 1), corners});
    };
    const std::string x0 = corner(px, topLeft), y0 = corner(py, topLeft), x1 = corner(px, bottomRight),
                      y1 = corner(py, bottomRight);
    const std::string hasBox = reduce(g, "ReduceMax", topLeft, 1);
    const std::string hasPositive = reduce(g, "ReduceMax", positive, 1);
    // The box's centre stands for the object when no point does.
    const std::string centreIsPositive = mul(g, hasBox, oneMinus(g, hasPositive));
    const auto cat = [&](const std::string& a, const std::string& b) {
        return g.op("Concat", {a, b}, {attrInt("axis", 1)});
    };
    const std::string xs = cat(px, g.mulScalar(add(g, x0, x1), 0.5f));
    const std::string ys = cat(py, g.mulScalar(add(g, y0, y1), 0.5f));
    const std::string positives = cat(positive, centreIsPositive);
    const std::string negatives =
        cat(add(g, negative, add(g, topLeft, bottomRight)), g.mulScalar(centreIsPositive, 0.0f));

    // Features at the prompts' cells, and squared distances of every cell to each: B x m x cells.
    const std::string features =
        g.op("Reshape", {g.sliceAxis(feat4, 1, 0, kFeatures), g.constI64({kFeatures, cells}, {2})});
    const std::string column = g.clip(g.op("Floor", {g.divScalar(xs, 4.0f)}), 0.0f, static_cast<float>(w4 - 1));
    const std::string row = g.clip(g.op("Floor", {g.divScalar(ys, 4.0f)}), 0.0f, static_cast<float>(h4 - 1));
    const std::string cell = add(g, g.mulScalar(row, static_cast<float>(w4)), column);
    const std::string index =
        g.op("Cast", {g.op("Reshape", {cell, g.constI64({-1}, {1})})}, {attrInt("to", onnx::TensorProto::INT64)});
    const std::string sampled =
        g.op("Transpose", {g.op("Gather", {features, index}, {attrInt("axis", 1)})}, {attrInts("perm", {1, 0})});
    const std::string cross = g.op("MatMul", {sampled, features});
    const std::string squares = add(g, reduce(g, "ReduceSum", mul(g, sampled, sampled), 1),
                                    reduce(g, "ReduceSum", mul(g, features, features), 0));
    const std::string distances = g.op(
        "Reshape", {g.op("Relu", {sub(g, squares, g.mulScalar(cross, 2.0f))}), g.constI64({batch, m, cells}, {3})});
    const auto nearest = [&](const std::string& which) {
        const std::string away = g.mulScalar(g.op("Unsqueeze", {oneMinus(g, which), g.constI64({2}, {1})}), kFar);
        return reduce(g, "ReduceMin", add(g, distances, away), 1, false);
    };
    const std::string toPositive = nearest(positives), toNegative = nearest(negatives);
    std::string score = g.op("Min", {sub(g, g.scalarF32(kSegmentReach), toPositive), sub(g, toNegative, toPositive)});

    // Outside the box nothing belongs to the object.
    std::vector<float> cx, cy;
    for (int64_t y = 0; y < h4; ++y)
        for (int64_t x = 0; x < w4; ++x)
            cx.push_back(4.0f * static_cast<float>(x) + 2.0f), cy.push_back(4.0f * static_cast<float>(y) + 2.0f);
    const std::string cellX = g.constF32(cx, {1, cells}), cellY = g.constF32(cy, {1, cells});
    const auto atLeast = [&](const std::string& a, const std::string& b) {
        return toFloat(g, g.op("GreaterOrEqual", {a, b}));
    };
    const std::string inside =
        mul(g, mul(g, atLeast(cellX, x0), atLeast(x1, cellX)), mul(g, atLeast(cellY, y0), atLeast(y1, cellY)));
    score = sub(g, score, g.mulScalar(mul(g, hasBox, oneMinus(g, inside)), kFar));

    // Seeds: the cells of the positive prompts.
    std::vector<float> ids(static_cast<size_t>(cells));
    for (int64_t i = 0; i < cells; ++i) ids[static_cast<size_t>(i)] = static_cast<float>(i);
    const std::string hit =
        toFloat(g, g.op("Equal", {g.op("Unsqueeze", {cell, g.constI64({2}, {1})}), g.constF32(ids, {1, 1, cells})}));
    const std::string seeds =
        reduce(g, "ReduceMax", mul(g, hit, g.op("Unsqueeze", {positives, g.constI64({2}, {1})})), 1, false);

    // Flood fill from the seeds over coarse cells where the object goes on.
    const std::string grid = g.constI64({batch, 1, h4, w4}, {4});
    const std::string score4 = g.op("Reshape", {score, grid});
    const std::string passable = toFloat(
        g, g.op("Greater", {g.averagePool(toFloat(g, g.op("Greater", {score4, g.scalarF32(0.0f)})), 4), g.scalarF32(0.2f)}));
    const std::string seed16 = maxPool(g, g.op("Reshape", {seeds, grid}), 4, 4);
    std::string reached = seed16;
    for (int64_t i = 0; i < h16 + w16; ++i)
        reached = g.op("Max", {seed16, mul(g, maxPool(g, reached, 3, 1), passable)});
    const std::string reach = g.op("Resize", {maxPool(g, reached, 3, 1), "", g.constF32({1.0f, 1.0f, 4.0f, 4.0f}, {4})},
                                   {attrString("mode", "nearest")});
    const std::string cut = g.op("Min", {score4, g.scalarF32(-kSegmentReach)});
    const std::string kept = add(g, mul(g, reach, score4), mul(g, oneMinus(g, reach), cut));
    const std::string logits =
        g.clip(g.mulScalar(smooth(g, kept, 3), kSegmentLogitScale / kSegmentReach), -16.0f, 16.0f);
    g.outputF16(logits, "lowResLogits", shape({batch, 1, h4, w4}));
    return g.build();
}

onnx::ModelProto buildMaskColorizer() {
    GraphBuilder g("mask_colorizer");
    const Dims rgb{Dim::fixed(1), Dim::fixed(3), Dim::named("H"), Dim::named("W")};
    const Dims plane{Dim::fixed(1), Dim::fixed(1), Dim::named("H"), Dim::named("W")};
    const std::string color = g.inputF16("color", rgb);
    const std::string mask = g.clip(g.inputF16("mask", plane), 0.0f, 1.0f);
    const std::string tint = g.constF32({0.15f, 0.45f, 1.0f}, {1, 3, 1, 1});
    const std::string out =
        add(g, mul(g, color, g.addScalar(g.mulScalar(mask, -0.5f), 1.0f)), g.mulScalar(mul(g, mask, tint), 0.5f));
    g.outputF16(g.clip(out, 0.0f, 1.0f), "output", rgb);
    return g.build();
}

std::vector<std::string> segmentationStandInModelIds() {
    const std::string id = kSegmentationStandInId;
    return {id + "_enc", id + "_dec_single", id + "_dec_batch"};
}

void writeSegmentationStandIns(const std::filesystem::path& modelFolder) {
    makeFolder(modelFolder);
    const std::string id = kSegmentationStandInId;
    const int64_t e = kSegmentationExec, n = kSegmentationMaxPoints;
    writeModel(buildSegmentationEncoder(e, e), modelFolder / (id + "_enc.onnx"));
    writeModel(buildSegmentationDecoder(e, e, n, 1), modelFolder / (id + "_dec_single.onnx"));
    writeModel(buildSegmentationDecoder(e, e, n, kSegmentationBatch), modelFolder / (id + "_dec_batch.onnx"));
    makeFolder(modelFolder / "imgcvt");
    writeModel(buildMaskColorizer(), modelFolder / "imgcvt" / "mask_colorizer.onnx");
}

}  // namespace qpkg
