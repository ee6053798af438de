#include "Adapters.h"

#include "ImportError.h"
#include "ML/ImageImp.h"

namespace qpkg::tfjs {

namespace {

// An adapter for a network computing in low..high at both ends.
Adapter adapter(std::string name, std::string family, float high, int64_t scale, int64_t areaDownscale = 1) {
    Adapter a;
    a.name = std::move(name);
    a.family = std::move(family);
    a.inHigh = a.outHigh = high;
    a.scale = scale;
    a.areaDownscale = areaDownscale;
    return a;
}

// Upscaling: 1x3xHxW F16 RGB in 0..1 -> 1x3x(sH)x(sW) F16 RGB in 0..1. UpscalerJS's "rdn"
// networks (medium) compute in 0..255, its "rrdn" ones (thick) in 0..1.
const std::vector<Adapter> kUpscaling{
    adapter("esrgan-medium-x2", "upscaling", 255, 2),
    adapter("esrgan-medium-x4", "upscaling", 255, 4),
    adapter("esrgan-thick-x2", "upscaling", 1, 2),
    adapter("esrgan-thick-x4", "upscaling", 1, 4),
};

// Enhancement: 1x3xHxW F16 RGB in 0..1 -> the same size. An x2 upscaler run on the image
// area-downscaled by 2 restores detail at the same size.
const std::vector<Adapter> kEnhancement{
    adapter("esrgan-medium-enhance", "enhancement", 255, 2, 2),
};

// Face detection: 1x3x768x1280 F16 RGB in 0..1 -> candidate rows (FaceDetector.h). BlazeFace's
// "back" network (256x256, input in -1..1) rather than the 128x128 "front" one: the picture is
// stretched from 1280x768, and faces a few percent of the frame wide (a player in a stadium)
// would be a handful of pixels at 128. Its 896 anchors: 16x16 cells of stride 16 with 2 anchors
// each (the 512-anchor outputs), then 8x8 cells of stride 32 with 6 each (the 384-anchor ones).
// The front network (128x128: strides 8 and 16) stays available by name for comparison.
Adapter faceDetector(std::string name, int64_t size, std::vector<AnchorLevel> levels) {
    Adapter a;
    a.name = std::move(name);
    a.family = "face-detector";
    a.inLow = -1.0f;
    a.fixedHeight = a.fixedWidth = size;
    a.anchors = std::move(levels);
    return a;
}

const std::vector<Adapter> kFaceDetection = [] {
    std::vector<Adapter> table{faceDetector("blazeface-back", 256, {{16, 2}, {32, 6}}),
                                 faceDetector("blazeface-front", 128, {{8, 2}, {16, 6}})};
    Adapter nms;
    nms.name = "blazeface-nms";
    nms.family = "face-detector";
    nms.nms = true;
    table.push_back(nms);
    return table;
}();

// Face embedding: 1x3x112x112 F16 RGB in 0..1 -> 1x512 F16. HSE FaceRes (a MobileNet whose
// pooled 1024 features serve as a face descriptor beside its age and gender heads) takes
// 224x224 RGB in 0..255; its features are projected to 512. MobileFaceNet (112x112, 192 values)
// imports too, but it hardly tells faces apart: two different faces score a cosine of 0.9999 with
// input in 0..1 or -1..1 and 0.96 on average in 0..255, as close as two shots of one face.
Adapter faceEmbedding(std::string name, int64_t size, float high, std::string output) {
    Adapter a;
    a.name = std::move(name);
    a.family = "face-embedding";
    a.inHigh = high;
    a.fixedHeight = a.fixedWidth = size;
    a.output = std::move(output);
    return a;
}

const std::vector<Adapter> kFaceEmbedding{
    faceEmbedding("faceres-embedding", 224, 255.0f, "global_pooling/Mean"),
    faceEmbedding("mobilefacenet-embedding", 112, 1.0f, ""),
};

}  // namespace

const std::vector<FamilyContract>& familyContracts() {
    static const std::vector<FamilyContract> table{
        {"upscaling", "image", "output", ML::F16, false, 3, 0.0f, 1.0f, false},
        {"enhancement", "image", "output", ML::F16, false, 3, 0.0f, 1.0f, true},
        {"face-detector", "input", "raw", ML::F16, false, 3, 0.0f, 1.0f, false},
        {"face-embedding", "crop", "embedding", ML::F16, false, 3, 0.0f, 1.0f, false},
    };
    return table;
}

const std::vector<Adapter>& adapters() {
    static const std::vector<Adapter> table = [] {
        std::vector<Adapter> all;
        for (const std::vector<Adapter>* family : {&kUpscaling, &kEnhancement, &kFaceDetection, &kFaceEmbedding})
            all.insert(all.end(), family->begin(), family->end());
        return all;
    }();
    return table;
}

const Adapter& adapterNamed(const std::string& name) {
    std::string names;
    for (const Adapter& a : adapters()) {
        if (a.name == name) return a;
        names += (names.empty() ? "" : ", ") + a.name;
    }
    throw ImportError("unknown adapter '" + name + "' (adapters: " + names + ")");
}

const FamilyContract& familyOf(const Adapter& adapter) {
    for (const FamilyContract& f : familyContracts())
        if (f.family == adapter.family) return f;
    throw ImportError("adapter " + adapter.name + " names unknown family " + adapter.family);
}

onnx::ModelProto importAdapted(const Model& model, const Adapter& adapter, const ImportOptions& options) {
    const FamilyContract& family = familyOf(adapter);
    if (adapter.nms) return faceNmsNetwork(adapter.name);
    if (family.family == "face-detector")
        return importFaceDetector(model, adapter.name, {adapter.fixedHeight, adapter.inLow, adapter.inHigh, adapter.anchors});
    if (family.family == "face-embedding")
        return importFaceEmbedding(model, adapter.name, {adapter.fixedHeight, adapter.inLow, adapter.inHigh, adapter.output},
                                   family.type);
    const std::string where = model.file.string() + " (adapter " + adapter.name + ")";

    // The network's one image input and the output taken.
    std::vector<TensorSignature> netInputs;
    for (const TensorSignature& s : networkInputs(model, options))
        if (!options.inputConstants.count(s.name)) netInputs.push_back(s);
    if (netInputs.size() != 1 || netInputs[0].shape.size() != 4)
        throw ImportError(where + ": the network must have one 4-D input besides constants");
    const TensorSignature& netIn = netInputs[0];
    if (netIn.shape[1] >= 0 && netIn.shape[1] != family.channels)
        throw ImportError(where + ": the network takes " + std::to_string(netIn.shape[1]) + " channels, the family " +
                          std::to_string(family.channels));
    std::string outName = adapter.output;
    if (outName.empty()) {
        for (const TensorSignature& s : networkOutputs(model, options)) {
            if (s.shape.size() != 4) continue;
            if (!outName.empty()) throw ImportError(where + ": the network has more than one 4-D output");
            outName = s.name;
        }
        if (outName.empty()) throw ImportError(where + ": the network has no 4-D output");
    }

    const bool fixed = adapter.fixedHeight > 0 && adapter.fixedWidth > 0;
    const int64_t sizeRatio = family.sameSize ? 1 : adapter.scale;  // family output / input
    if (!fixed && adapter.scale != sizeRatio * adapter.areaDownscale)
        throw ImportError(where + ": scale " + std::to_string(adapter.scale) + " after a downscale by " +
                          std::to_string(adapter.areaDownscale) + " does not give the family's size");

    GraphBuilder g(adapter.name);
    const Dim h = Dim::named("H"), w = Dim::named("W");
    const Dim outH = family.sameSize ? h : Dim::named("outH"), outW = family.sameSize ? w : Dim::named("outW");
    const Dim n = Dim::fixed(1), c = Dim::fixed(family.channels);
    const Dims inDims = family.channelsLast ? Dims{n, h, w, c} : Dims{n, c, h, w};
    const Dims outDims = family.channelsLast ? Dims{n, outH, outW, c} : Dims{n, c, outH, outW};

    std::string x = g.cast(g.input(family.inputName, family.type, inDims), family.type, ML::F32);
    if (family.channelsLast) x = g.transposeLayout(x, ML::Image::HWC, ML::Image::CHW);
    // Family range to network range: x' = x * a + b.
    auto remap = [&g](std::string v, float fromLow, float fromHigh, float toLow, float toHigh) {
        const float a = (toHigh - toLow) / (fromHigh - fromLow), b = toLow - fromLow * a;
        if (a != 1.0f) v = g.mulScalar(v, a);
        if (b != 0.0f) v = g.addScalar(v, b);
        return v;
    };
    x = remap(x, family.low, family.high, adapter.inLow, adapter.inHigh);
    const std::string imageSize = g.op("Slice", {g.op("Shape", {x}), g.constI64({2}, {1}), g.constI64({4}, {1})});

    if (adapter.areaDownscale > 1) {
        // Windows overhanging odd edges average what they cover; the result is cropped below.
        const int64_t k = adapter.areaDownscale;
        x = g.op("AveragePool", {x},
                 {attrInts("kernel_shape", {k, k}), attrInts("strides", {k, k}), attrInt("ceil_mode", 1),
                  attrInt("count_include_pad", 0)});
    }
    auto resizeTo = [&g](const std::string& v, const std::string& sizeHW) {
        const std::string nc = g.op("Slice", {g.op("Shape", {v}), g.constI64({0}, {1}), g.constI64({2}, {1})});
        return g.op("Resize", {v, "", "", g.op("Concat", {nc, sizeHW}, {attrInt("axis", 0)})},
                    {attrString("mode", "linear"), attrString("coordinate_transformation_mode", "half_pixel")});
    };
    if (fixed) x = resizeTo(x, g.constI64({adapter.fixedHeight, adapter.fixedWidth}, {2}));
    if (netIn.elemType == onnx::TensorProto::INT32) x = g.cast(g.op("Round", {x}), ML::F32, ML::I32);
    else if (netIn.elemType != onnx::TensorProto::FLOAT)
        throw ImportError(where + ": the network's input type is not supported");

    const std::map<std::string, std::string> outputs = importInto(g, model, {{netIn.name, x}}, options);
    const auto it = outputs.find(outName);
    if (it == outputs.end()) throw ImportError(where + ": the network has no output " + outName);
    std::string y = it->second;

    // The family's output size: the image's, times the scale unless same-size.
    const std::string outSize = sizeRatio == 1 ? imageSize : g.op("Mul", {imageSize, g.constI64({sizeRatio}, {1})});
    if (fixed) y = resizeTo(y, outSize);
    else if (adapter.areaDownscale > 1)
        y = g.op("Slice", {y, g.constI64({0, 0}, {2}), outSize, g.constI64({2, 3}, {2})});
    y = g.clip(remap(y, adapter.outLow, adapter.outHigh, family.low, family.high), family.low, family.high);
    if (family.channelsLast) y = g.transposeLayout(y, ML::Image::CHW, ML::Image::HWC);
    y = family.type == ML::U8 ? g.toU8(y) : g.cast(y, ML::F32, family.type);
    g.output(y, family.outputName, family.type, outDims);
    try {
        return g.build();
    } catch (const std::exception& e) {
        throw ImportError(where + ": the ONNX checker refused the adapted graph: " + e.what());
    }
}

}  // namespace qpkg::tfjs
