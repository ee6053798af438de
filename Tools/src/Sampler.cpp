#include "Sampler.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

// The six integers and the scale, as 0-D F32 values.
struct SamplerParams {
    std::string a, b, c, d, originX, originY, scale;
};

SamplerParams readParams(GraphBuilder& g, const std::string& params, bool split) {
    const int64_t count = split ? 13 : 7;
    const std::string p = g.op("Reshape", {params, g.constI64({count}, {1})});
    auto integer = [&](int64_t i) {
        if (!split) return g.element(p, i);
        // value = (value / 256) * 256 + value % 256, with both parts truncated toward zero.
        return g.op("Add", {g.mulScalar(g.element(p, 2 * i), 256.0f), g.element(p, 2 * i + 1)});
    };
    SamplerParams s;
    s.a = integer(0);
    s.b = integer(1);
    s.c = integer(2);
    s.d = integer(3);
    s.originX = integer(4);
    s.originY = integer(5);
    s.scale = g.element(p, count - 1);
    return s;
}

// Linear interpolation along one axis of x (extent n): output position t reads the source at
// (t + dstOffset + 0.5 - origin) / scale + origin - 0.5 - srcOffset.
std::string sampleAxis(GraphBuilder& g, const std::string& x, int axis, int64_t n, const std::string& dstOffset,
                       const std::string& srcOffset, const std::string& origin, const std::string& scale) {
    std::vector<float> positions(static_cast<size_t>(n));
    for (int64_t i = 0; i < n; ++i) positions[static_cast<size_t>(i)] = static_cast<float>(i);
    const std::string t = g.constF32(positions, {n});

    const std::string shift = g.op("Sub", {g.addScalar(dstOffset, 0.5f), origin});
    const std::string back = g.op("Sub", {g.addScalar(origin, -0.5f), srcOffset});
    const std::string pos = g.op("Add", {g.op("Div", {g.op("Add", {t, shift}), scale}), back});

    const float last = static_cast<float>(n - 1);
    const std::string clamped = g.clip(pos, 0.0f, last);
    const std::string f0 = g.op("Floor", {clamped});
    const std::string f1 = g.op("Min", {g.addScalar(f0, 1.0f), g.scalarF32(last)});
    const std::string w = g.op("Sub", {clamped, f0});

    const std::string i0 = g.cast(f0, ML::F32, ML::I64);
    const std::string i1 = g.cast(f1, ML::F32, ML::I64);
    const std::string v0 = g.op("Gather", {x, i0}, {attrInt("axis", axis)});
    const std::string v1 = g.op("Gather", {x, i1}, {attrInt("axis", axis)});
    std::vector<int64_t> wShape{1, 1, 1, 1};
    wShape[static_cast<size_t>(axis)] = n;
    const std::string wb = g.op("Reshape", {w, g.constI64(wShape, {4})});
    return g.op("Add", {v0, g.op("Mul", {g.op("Sub", {v1, v0}), wb})});
}

}  // namespace

std::string samplerName(ML::u32 dataType, const TensorSize& size) {
    return "upres_sampler_" + typeText(dataType) + "_" + sizeText(size);
}

onnx::ModelProto buildSamplerNetwork(ML::u32 dataType, const TensorSize& size, bool splitParameters) {
    GraphBuilder g(samplerName(dataType, size));
    const Dims dims{Dim::fixed(size.n), Dim::named("C"), Dim::fixed(size.h), Dim::fixed(size.w)};
    const std::string x = g.cast(g.input("input", dataType, dims), dataType, ML::F32);
    const std::string params =
        g.input("params", ML::F32, Dims{Dim::fixed(1), Dim::fixed(splitParameters ? 13 : 7), Dim::fixed(1), Dim::fixed(1)});
    const SamplerParams p = readParams(g, params, splitParameters);

    const std::string rows = sampleAxis(g, x, 3, size.w, p.a, p.c, p.originX, p.scale);
    const std::string out = sampleAxis(g, rows, 2, size.h, p.b, p.d, p.originY, p.scale);
    g.output(g.cast(out, ML::F32, dataType), "output", dataType, dims);
    return g.build();
}

void writeSamplerNetwork(const std::filesystem::path& modelFolder, ML::u32 dataType, const TensorSize& size,
                         bool splitParameters) {
    makeFolder(modelFolder);
    writeModel(buildSamplerNetwork(dataType, size, splitParameters),
               modelFolder / (samplerName(dataType, size) + ".onnx"));
}

}  // namespace qpkg
