#include "FaceDetector.h"

#include "ImportError.h"

namespace qpkg::tfjs {

namespace {

// Fraction of the eye-to-eye vector from the mouth centre to each mouth corner. In the usual
// five-point alignment template (112x112: eyes 35.2 px apart, mouth corners 29.2 px apart) the
// corners lie 0.415 eye distances either side of the mouth centre, along the eye line.
constexpr float kMouthCornerOffset = 0.415f;

std::string slice(GraphBuilder& g, const std::string& x, int64_t from, int64_t to, int64_t axis) {
    return g.op("Slice", {x, g.constI64({from}, {1}), g.constI64({to}, {1}), g.constI64({axis}, {1})});
}

}  // namespace

onnx::ModelProto importFaceDetector(const Model& model, const std::string& name, const FaceDecoder& decoder) {
    const std::string where = model.file.string() + " (adapter " + name + ")";
    const std::vector<TensorSignature> inputs = networkInputs(model);
    if (inputs.size() != 1 || inputs[0].shape.size() != 4 || inputs[0].elemType != onnx::TensorProto::FLOAT)
        throw ImportError(where + ": the network must have one 4-D float input");
    const TensorSignature& netIn = inputs[0];
    if (netIn.shape[1] != 3 || netIn.shape[2] != decoder.size || netIn.shape[3] != decoder.size)
        throw ImportError(where + ": the network does not take 3 x " + std::to_string(decoder.size) + " x " +
                          std::to_string(decoder.size));

    // Each anchor level has a score output [1, n, 1] and a regression output [1, n, 16] of the
    // level's anchor count; the levels differ in count, which pairs them.
    const std::vector<TensorSignature> outputs = networkOutputs(model);
    struct Level {
        std::string scores, boxes;
        int64_t cells = 0, count = 0;
    };
    std::vector<Level> levels;
    int64_t anchors = 0;
    for (const AnchorLevel& a : decoder.levels) {
        Level l;
        l.cells = decoder.size / a.stride;
        l.count = l.cells * l.cells * a.perCell;
        for (const TensorSignature& s : outputs) {
            if (s.shape.size() != 3 || s.shape[1] != l.count) continue;
            if (s.shape[2] == 1) l.scores = s.name;
            if (s.shape[2] == 16) l.boxes = s.name;
        }
        if (l.scores.empty() || l.boxes.empty())
            throw ImportError(where + ": no score and regression outputs of " + std::to_string(l.count) +
                              " anchors (stride " + std::to_string(a.stride) + ", " + std::to_string(a.perCell) +
                              " per cell)");
        levels.push_back(l);
        anchors += l.count;
    }
    if (anchors > kFaceRows) throw ImportError(where + ": more anchors than the family's rows");

    GraphBuilder g(name);
    const Dim one = Dim::fixed(1);
    std::string x = g.cast(g.input("input", ML::F16, {one, Dim::fixed(3), Dim::fixed(kFaceInputHeight),
                                                      Dim::fixed(kFaceInputWidth)}),
                           ML::F16, ML::F32);
    // To the network's size: an area average where the sizes divide (1280x768 to 256x256 is 5x3),
    // otherwise a linear resize.
    if (kFaceInputHeight % decoder.size == 0 && kFaceInputWidth % decoder.size == 0) {
        const int64_t ky = kFaceInputHeight / decoder.size, kx = kFaceInputWidth / decoder.size;
        x = g.op("AveragePool", {x}, {attrInts("kernel_shape", {ky, kx}), attrInts("strides", {ky, kx})});
    } else {
        x = g.op("Resize", {x, "", "", g.constI64({1, 3, decoder.size, decoder.size}, {4})},
                 {attrString("mode", "linear"), attrString("coordinate_transformation_mode", "half_pixel")});
    }
    x = g.addScalar(g.mulScalar(x, decoder.inHigh - decoder.inLow), decoder.inLow);

    const std::map<std::string, std::string> net = importInto(g, model, {{netIn.name, x}});
    std::vector<std::string> scoreParts, boxParts;
    for (const Level& l : levels) {
        scoreParts.push_back(net.at(l.scores));
        boxParts.push_back(net.at(l.boxes));
    }
    const std::string logits = g.op("Concat", scoreParts, {attrInt("axis", 1)});  // [1, A, 1]
    const std::string regression = g.op("Concat", boxParts, {attrInt("axis", 1)});  // [1, A, 16]

    // Regression values are network pixels relative to the anchor centre (box centre, box size,
    // then six keypoints): add the centres, then scale to input pixels.
    std::vector<float> centres;
    centres.reserve(static_cast<size_t>(anchors * 16));
    for (size_t i = 0; i < levels.size(); ++i) {
        const int64_t stride = decoder.levels[i].stride, cells = levels[i].cells;
        for (int64_t cy = 0; cy < cells; ++cy)
            for (int64_t cx = 0; cx < cells; ++cx)
                for (int64_t a = 0; a < decoder.levels[i].perCell; ++a)
                    for (int64_t k = 0; k < 16; ++k) {
                        const float ax = (float(cx) + 0.5f) * float(stride), ay = (float(cy) + 0.5f) * float(stride);
                        centres.push_back(k == 2 || k == 3 ? 0.0f : k % 2 == 0 ? ax : ay);
                    }
    }
    std::vector<float> scale(16);
    for (int64_t k = 0; k < 16; ++k)
        scale[size_t(k)] = float(k % 2 == 0 ? kFaceInputWidth : kFaceInputHeight) / float(decoder.size);
    const std::string points =
        g.op("Mul", {g.op("Add", {regression, g.constF32(centres, {1, anchors, 16})}), g.constF32(scale, {16})});

    const std::string centre = slice(g, points, 0, 2, 2);
    const std::string half = g.mulScalar(slice(g, points, 2, 4, 2), 0.5f);
    const std::string score = g.op("Sigmoid", {logits});
    auto keypoint = [&](int64_t k) { return slice(g, points, 4 + 2 * k, 6 + 2 * k, 2); };
    // BlazeFace's keypoints: the subject's right eye, left eye, nose tip, mouth centre, right and
    // left ear tragion. The five-point face template wants the eyes, the nose tip and the two
    // mouth corners: the eyes and nose are taken as they are (the subject's right eye is the
    // image-left one of a facing subject), the ears are dropped, and the corners are estimated
    // from the mouth centre along the eye line, so that they follow the head's roll and the
    // template's proportions. Repeating the mouth centre instead would pull a similarity fit's
    // scale down by the missing corner spread.
    const std::string eyeA = keypoint(0), eyeB = keypoint(1), nose = keypoint(2), mouth = keypoint(3);
    const std::string spread = g.mulScalar(g.op("Sub", {eyeB, eyeA}), kMouthCornerOffset);
    const std::string cornerA = g.op("Sub", {mouth, spread}), cornerB = g.op("Add", {mouth, spread});
    const std::string zeros = g.constF32(std::vector<float>(size_t(anchors), 0.0f), {1, anchors, 1});
    const std::string rows = g.op("Concat",
                                  {g.op("Sub", {centre, half}), g.op("Add", {centre, half}), score, zeros, eyeA, score,
                                   eyeB, score, nose, score, cornerA, score, cornerB, score},
                                  {attrInt("axis", 2)});
    const std::string raw = g.op("Pad", {rows, g.constI64({0, 0, 0, 0, kFaceRows - anchors, 0}, {6})});
    const std::string above = g.op("Cast", {g.op("Greater", {score, g.scalarF32(kFaceScoreThreshold)})},
                                   {attrInt("to", onnx::TensorProto::FLOAT)});
    const std::string count = g.op("ReduceSum", {above, g.constI64({1, 2}, {2})}, {attrInt("keepdims", 0)});
    g.output(raw, "raw", ML::F32, {one, Dim::fixed(kFaceRows), Dim::fixed(kFaceColumns)});
    g.output(count, "count", ML::F32, {one});
    try {
        return g.build();
    } catch (const std::exception& e) {
        throw ImportError(where + ": the ONNX checker refused the detector graph: " + e.what());
    }
}

onnx::ModelProto detectorNmsNetwork(const std::string& name, int64_t rows, int64_t columns, int64_t keep, float iou,
                                    float minScore) {
    GraphBuilder g(name);
    const std::string raw = g.input("raw", ML::F32, {Dim::fixed(1), Dim::fixed(rows), Dim::fixed(columns)});
    // Corners in x, y order: NonMaxSuppression takes either diagonal pair, and IoU does not care
    // which axis comes first.
    const std::string boxes = slice(g, raw, 0, 4, 2);                                               // [1, N, 4]
    const std::string scores = g.op("Transpose", {slice(g, raw, 4, 5, 2)}, {attrInts("perm", {0, 2, 1})});  // [1, 1, N]
    const std::string selected = g.op("NonMaxSuppression", {boxes, scores, g.constI64({keep}, {1}),
                                                            g.constF32({iou}, {1}), g.constF32({minScore}, {1})});
    // selected: [K, 3], batch, class, box.
    const std::string index = g.op("Gather", {selected, g.constI64({2}, {})}, {attrInt("axis", 1)});  // [K]
    std::string kept = g.op("Gather", {g.op("Squeeze", {raw, g.constI64({0}, {1})}), index}, {attrInt("axis", 0)});
    // Best first, whatever order the runtime selected them in.
    const std::string k = g.op("Shape", {index});
    const std::string order =
        g.ops("TopK", {g.op("Gather", {kept, g.constI64({4}, {})}, {attrInt("axis", 1)}), k}, 2,
              {attrInt("axis", 0), attrInt("largest", 1), attrInt("sorted", 1)})[1];
    kept = g.op("Gather", {kept, order}, {attrInt("axis", 0)});
    const std::string pads =
        g.op("Concat", {g.constI64({0, 0}, {2}), g.op("Sub", {g.constI64({keep}, {1}), k}), g.constI64({0}, {1})},
             {attrInt("axis", 0)});
    g.output(g.op("Pad", {kept, pads}), "nms", ML::F32, {Dim::fixed(keep), Dim::fixed(columns)});
    return g.build();
}

onnx::ModelProto faceNmsNetwork(const std::string& name) {
    return detectorNmsNetwork(name, kFaceRows, kFaceColumns, kFaceNmsRows, kFaceIouThreshold, kFaceScoreThreshold);
}

}  // namespace qpkg::tfjs
