#include "MaskPropagationStandIn.h"

#include <stdexcept>

#include "GraphBuilder.h"
#include "ML/ImageImp.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

const Dim kOne = Dim::fixed(1);

Dims nchw(Dim c, const std::string& h, const std::string& w) { return {kOne, c, Dim::named(h), Dim::named(w)}; }
Dims nhwc(const std::string& h, const std::string& w, Dim c) { return {kOne, Dim::named(h), Dim::named(w), c}; }




// Opponent colour of N x 3 x H x W RGB: luma, red - green, (red + green) / 2 - blue.
std::string opponent(GraphBuilder& g, const std::string& rgb) {
    const std::vector<float> m{1.0f / 3, 1.0f / 3, 1.0f / 3, 1.0f, -1.0f, 0.0f, 0.5f, 0.5f, -1.0f};
    return g.op("Conv", {rgb, g.constF32(m, {3, 3, 1, 1})});
}

// Row and column in cells of an N x C x H x W tensor, as two N x 1 x H x W planes.
std::pair<std::string, std::string> cellPosition(GraphBuilder& g, const std::string& like) {
    const std::string shape = g.op("Shape", {like});
    const std::string h = g.op("Cast", {g.element(shape, 2)}, {attrInt("to", onnx::TensorProto::FLOAT)});
    const std::string w = g.op("Cast", {g.element(shape, 3)}, {attrInt("to", onnx::TensorProto::FLOAT)});
    const std::string rows = g.op("Range", {g.scalarF32(0.0f), h, g.scalarF32(1.0f)});
    const std::string cols = g.op("Range", {g.scalarF32(0.0f), w, g.scalarF32(1.0f)});
    const std::string zero = g.mulScalar(g.sliceAxis(like, 1, 0, 1), 0.0f);
    const std::string y = g.op("Add", {zero, g.op("Unsqueeze", {rows, g.constI64({1}, {1})})});
    const std::string x = g.op("Add", {zero, cols});
    return {y, x};
}

onnx::ModelProto posEnc() {
    GraphBuilder g("qt_get_pos_enc");
    const std::string readout = g.input("readout", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    // Whatever the readout holds (it may be uninitialised), only its shape is used.
    const std::string zeros = g.op("ConstantOfShape", {g.op("Shape", {readout})},
                                   {attrScalarTensor("value", ML::F32, 0.0)});
    const auto [y, x] = cellPosition(g, zeros);
    const std::string pe = g.padChannels(g.op("Concat", {y, x}, {attrInt("axis", 1)}), 2, 256, 1);
    g.outputF16(g.transposeLayout(pe, ML::Image::CHW, ML::Image::HWC), "posEnc", nhwc("H16", "W16", Dim::fixed(256)));
    return g.build();
}

onnx::ModelProto queryEncoder() {
    GraphBuilder g("qt_qe");
    const std::string image = g.inputF16("image", nchw(Dim::fixed(3), "H", "W"));
    const std::string colour = opponent(g, image);
    const std::string c16 = g.averagePool(colour, 16);
    const auto [y, x] = cellPosition(g, c16);
    const std::string pos = g.mulScalar(g.op("Concat", {y, x}, {attrInt("axis", 1)}), kPositionWeight);
    const std::string key = g.op("Concat", {g.mulScalar(c16, kColourWeight), pos}, {attrInt("axis", 1)});
    const std::string keyHwc = g.transposeLayout(g.padChannels(key, 5, 64, 1), ML::Image::CHW, ML::Image::HWC);
    g.outputF16(g.padChannels(g.averagePool(colour, 8), 3, 512, 1), "feat8", nchw(Dim::fixed(512), "H8", "W8"));
    g.outputF16(g.padChannels(g.averagePool(colour, 4), 3, 256, 1), "feat4", nchw(Dim::fixed(256), "H4", "W4"));
    g.outputF16(g.padChannels(c16, 3, 256, 1), "feat16", nchw(Dim::fixed(256), "H16", "W16"));
    g.outputF16(keyHwc, "queryKey", nhwc("H16", "W16", Dim::fixed(64)));
    const std::string shrink = g.addScalar(g.mulScalar(g.sliceAxis(keyHwc, 3, 0, 1), 0.0f), kSharpness);
    g.outputF16(shrink, "queryShrinkage", nhwc("H16", "W16", kOne));
    g.outputF16(g.addScalar(g.mulScalar(keyHwc, 0.0f), 1.0f), "querySelection", nhwc("H16", "W16", Dim::fixed(64)));
    return g.build();
}

onnx::ModelProto maskEncoder() {
    GraphBuilder g("qt_me");
    g.input("image", ML::F16, nchw(Dim::fixed(3), "H", "W"));
    g.input("feat16", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    const std::string sensory = g.input("sensoryIn", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    const std::string mask = g.clip(g.inputF16("oneMask", nchw(kOne, "H", "W")), 0.0f, 1.0f);
    g.input("oneOthers", ML::F16, nchw(kOne, "H", "W"));
    const std::string cover = g.averagePool(mask, 16);
    const std::string value = g.op("Concat", {cover, g.op("Sub", {g.scalarF32(1.0f), cover})}, {attrInt("axis", 1)});
    g.outputF16(g.transposeLayout(g.padChannels(value, 2, 256, 1), ML::Image::CHW, ML::Image::HWC), "maskValue",
          nhwc("H16", "W16", Dim::fixed(256)));
    g.output(g.op("Identity", {sensory}), "sensoryOut", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    return g.build();
}

onnx::ModelProto summary() {
    GraphBuilder g("qt_mo");
    const std::string mask = g.inputF16("oneMask", nchw(kOne, "H", "W"));
    g.input("maskValue", ML::F16, nhwc("H16", "W16", Dim::fixed(256)));
    g.input("posEnc", ML::F16, nhwc("H16", "W16", Dim::fixed(256)));
    // The object's area fraction in every element: the summary is not read by the stand-ins.
    const std::string area = g.op("ReduceMean", {mask}, {attrInts("axes", {2, 3}), attrInt("keepdims", 1)});
    const std::string block = g.op("Expand", {area, g.constI64({1, 1, 16, 257}, {4})});
    g.outputF16(block, "summaryOut", {kOne, kOne, Dim::fixed(16), Dim::fixed(257)});
    return g.build();
}

onnx::ModelProto maskOthers() {
    GraphBuilder g("qt_get_mask_others");
    const std::string masks = g.inputF16("allMasks", nchw(Dim::named("O"), "H", "W"));
    const std::string sum = g.op("ReduceSum", {masks, g.constI64({1}, {1})}, {attrInt("keepdims", 1)});
    g.outputF16(g.clip(g.op("Sub", {sum, masks}), 0.0f, 1.0f), "allOthers", nchw(Dim::named("O"), "H", "W"));
    return g.build();
}

onnx::ModelProto readout() {
    GraphBuilder g("qt_get_readout");
    const Dim thw = Dim::named("THW");
    const std::string memKey = g.inputF16("memKey", {kOne, thw, Dim::fixed(64)});
    const std::string queryKey = g.inputF16("queryKey", nhwc("H16", "W16", Dim::fixed(64)));
    const std::string memShrink = g.inputF16("memShrinkage", {kOne, thw, kOne});
    g.input("querySelection", ML::F16, nhwc("H16", "W16", Dim::fixed(64)));
    const std::string memValue = g.inputF16("memValue", {kOne, thw, Dim::fixed(256)});
    const std::string memEmpty = g.inputF16("memEmpty", {kOne, Dim::named("T"), kOne});

    const std::string q = g.op("Reshape", {queryKey, g.constI64({1, -1, 64}, {3})});  // 1, HW, 64
    const std::string qT = g.op("Transpose", {q}, {attrInts("perm", {0, 2, 1})});
    // -|m - q|^2 = 2 m.q - |m|^2 - |q|^2; the last term is the same for every memory cell.
    const std::string dot = g.op("MatMul", {memKey, qT});  // 1, THW, HW
    const std::string mm = g.op("ReduceSum", {g.op("Mul", {memKey, memKey}), g.constI64({2}, {1})},
                                {attrInt("keepdims", 1)});
    const std::string sim = g.op("Mul", {g.op("Sub", {g.mulScalar(dot, 2.0f), mm}), memShrink});
    // Empty slots: -1e4 on all their cells.
    const std::string simShape = g.op("Shape", {sim});
    const std::string perSlot = g.op("Concat", {g.constI64({1}, {1}), g.op("Slice", {g.op("Shape", {memEmpty}),
                                     g.constI64({1}, {1}), g.constI64({2}, {1})}),
                                     g.constI64({-1}, {1}), g.op("Slice", {simShape, g.constI64({2}, {1}),
                                     g.constI64({3}, {1})})}, {attrInt("axis", 0)});
    const std::string slots = g.op("Add", {g.op("Reshape", {sim, perSlot}),
                                           g.mulScalar(g.op("Unsqueeze", {memEmpty, g.constI64({3}, {1})}), -1e4f)});
    const std::string weights = g.op("Softmax", {g.op("Reshape", {slots, simShape})}, {attrInt("axis", 1)});
    const std::string used = g.sliceAxis(memValue, 2, 0, 2);  // 1, THW, 2
    const std::string read = g.op("MatMul", {g.op("Transpose", {weights}, {attrInts("perm", {0, 2, 1})}), used});
    const std::string outShape = g.op("Concat", {g.op("Slice", {g.op("Shape", {queryKey}), g.constI64({0}, {1}),
                                      g.constI64({3}, {1})}), g.constI64({2}, {1})}, {attrInt("axis", 0)});
    const std::string hwc = g.op("Reshape", {read, outShape});
    const std::string chw = g.padChannels(g.transposeLayout(hwc, ML::Image::HWC, ML::Image::CHW), 2, 256, 1);
    const std::string aux = g.op("ReduceSum", {weights, g.constI64({2}, {1})}, {attrInt("keepdims", 0)});
    g.outputF16(g.op("Reshape", {aux, g.constI64({-1}, {1})}), "readoutAux", {thw});
    g.outputF16(chw, "readout", nchw(Dim::fixed(256), "H16", "W16"));
    return g.build();
}

onnx::ModelProto fuser() {
    GraphBuilder g("qt_f");
    g.input("feat16", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    const std::string readout = g.input("readout", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    g.input("sensoryIn", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    g.input("zeroMask16", ML::F16, nchw(kOne, "H16", "W16"));
    g.input("zeroOthers16", ML::F16, nchw(kOne, "H16", "W16"));
    g.output(g.op("Identity", {readout}), "fused", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    return g.build();
}

onnx::ModelProto transformer() {
    GraphBuilder g("qt_ot");
    const std::string fused = g.input("fused", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    g.input("summaryIn", ML::F16, {kOne, kOne, Dim::fixed(16), Dim::fixed(257)});
    g.input("summaryExtraIn", ML::F16, {kOne, kOne, Dim::fixed(16), Dim::fixed(257)});
    g.input("posEnc", ML::F16, nhwc("H16", "W16", Dim::fixed(256)));
    g.output(g.op("Identity", {fused}), "refined", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    return g.build();
}

onnx::ModelProto decoder() {
    GraphBuilder g("qt_md");
    g.input("feat8", ML::F16, nchw(Dim::fixed(512), "H8", "W8"));
    const std::string feat4 = g.input("feat4", ML::F16, nchw(Dim::fixed(256), "H4", "W4"));
    const std::string refined = g.inputF16("refined", nchw(Dim::fixed(256), "H16", "W16"));
    const std::string sensory = g.input("sensoryIn", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    const std::string cover = g.sliceAxis(refined, 1, 0, 1), background = g.sliceAxis(refined, 1, 1, 2);
    const std::string p = g.op("Div", {cover, g.addScalar(g.op("Add", {cover, background}), 1e-4f)});
    const std::string logit16 = g.mulScalar(g.addScalar(p, -0.5f), kLogitScale);
    const std::string size4 = g.op("Slice", {g.op("Shape", {feat4}), g.constI64({2}, {1}), g.constI64({4}, {1})});
    const std::string sizes = g.op("Concat", {g.constI64({1, 1}, {2}), size4}, {attrInt("axis", 0)});
    const std::string logit4 =
        g.op("Resize", {logit16, "", "", sizes}, {attrString("mode", "linear"),
                                                   attrString("coordinate_transformation_mode", "half_pixel")});
    g.outputF16(logit4, "logits4", nchw(kOne, "H4", "W4"));
    g.output(g.op("Identity", {sensory}), "sensoryOut", ML::F16, nchw(Dim::fixed(256), "H16", "W16"));
    return g.build();
}

onnx::ModelProto masks(bool antiAliased) {
    GraphBuilder g(antiAliased ? "qt_get_masks_aa" : "qt_get_masks");
    const std::string logits = g.inputF16("allLogits", nchw(Dim::named("O"), "H", "W"));
    const std::string m = antiAliased ? g.op("Sigmoid", {logits})
                                      : g.op("Cast", {g.op("Greater", {logits, g.scalarF32(0.0f)})},
                                             {attrInt("to", onnx::TensorProto::FLOAT)});
    g.outputF16(m, "allMasks", nchw(Dim::named("O"), "H", "W"));
    return g.build();
}

onnx::ModelProto colorizer() {
    GraphBuilder g("qt_mask_colorizer");
    const std::string rgb = g.inputF16("color", nchw(Dim::fixed(3), "H", "W"));
    const std::string m = g.clip(g.inputF16("masks", nchw(Dim::named("O"), "H", "W")), 0.0f, 1.0f);
    std::vector<float> palette;
    const float base[6][3] = {{1, 0.2f, 0.2f}, {0.2f, 1, 0.2f}, {0.2f, 0.4f, 1}, {1, 1, 0.2f}, {1, 0.2f, 1}, {0.2f, 1, 1}};
    for (int i = 0; i < 64; ++i)
        for (int c = 0; c < 3; ++c) palette.push_back(base[i % 6][c] * (i < 6 ? 1.0f : 0.7f));
    const std::string o = g.op("Slice", {g.op("Shape", {m}), g.constI64({1}, {1}), g.constI64({2}, {1})});
    const std::string colours = g.op("Slice", {g.constF32(palette, {64, 3}), g.constI64({0}, {1}), o});
    const std::string mHwc = g.transposeLayout(m, ML::Image::CHW, ML::Image::HWC);
    const std::string tint = g.transposeLayout(g.op("MatMul", {mHwc, colours}), ML::Image::HWC, ML::Image::CHW);
    const std::string cover = g.clip(g.op("ReduceSum", {m, g.constI64({1}, {1})}, {attrInt("keepdims", 1)}), 0.0f, 1.0f);
    // Half of the picture under an object gives way to the object's colour.
    const std::string out = g.op("Add", {g.op("Mul", {rgb, g.addScalar(g.mulScalar(cover, -0.5f), 1.0f)}),
                                         g.mulScalar(tint, 0.5f)});
    g.outputF16(g.clip(out, 0.0f, 1.0f), "output", nchw(Dim::fixed(3), "H", "W"));
    return g.build();
}

}  // namespace

std::vector<std::string> maskPropagationStandInNames() {
    return {"get_pos_enc", "qe", "me", "mo", "get_mask_others", "get_readout", "f", "ot", "md",
            "get_masks", "get_masks_aa", "mask_colorizer"};
}

onnx::ModelProto buildMaskPropagationStandIn(const std::string& name) {
    if (name == "get_pos_enc") return posEnc();
    if (name == "qe") return queryEncoder();
    if (name == "me") return maskEncoder();
    if (name == "mo") return summary();
    if (name == "get_mask_others") return maskOthers();
    if (name == "get_readout") return readout();
    if (name == "f") return fuser();
    if (name == "ot") return transformer();
    if (name == "md") return decoder();
    if (name == "get_masks") return masks(false);
    if (name == "get_masks_aa") return masks(true);
    if (name == "mask_colorizer") return colorizer();
    throw std::invalid_argument("no mask propagation stand-in " + name);
}

void writeMaskPropagationStandIns(const std::filesystem::path& modelFolder) {
    const std::filesystem::path folder = modelFolder / "qt";
    makeFolder(folder);
    for (const std::string& name : maskPropagationStandInNames())
        writeModel(buildMaskPropagationStandIn(name), folder / ("qt_" + name + ".onnx"));
}

}  // namespace qpkg
