#include "Sampler.h"

#include <functional>

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

// The output grid along one axis: positions 0, 1, ... n - 1 as a 1-D F32 tensor, and the last
// source position (source extent - 1) as a 0-D F32 value.
struct AxisGrid {
    std::string positions, last;
};

// Where the output extents come from: called once per axis (3 = width, then 2 = height) with the
// source tensor.
using GridOf = std::function<AxisGrid(GraphBuilder&, const std::string& source, int axis)>;

// Linear interpolation along one axis of x: output position t reads the source at
// (t + dstOffset + 0.5 - origin) / scale + origin - 0.5 - srcOffset.
std::string sampleAxis(GraphBuilder& g, const std::string& x, int axis, const AxisGrid& grid,
                       const std::string& dstOffset, const std::string& srcOffset, const std::string& origin,
                       const std::string& scale) {
    const std::string shift = g.op("Sub", {g.addScalar(dstOffset, 0.5f), origin});
    const std::string back = g.op("Sub", {g.addScalar(origin, -0.5f), srcOffset});
    const std::string pos = g.op("Add", {g.op("Div", {g.op("Add", {grid.positions, shift}), scale}), back});

    const std::string clamped = g.op("Min", {g.op("Max", {pos, g.scalarF32(0.0f)}), grid.last});
    const std::string f0 = g.op("Floor", {clamped});
    const std::string f1 = g.op("Min", {g.addScalar(f0, 1.0f), grid.last});
    const std::string w = g.op("Sub", {clamped, f0});

    const std::string i0 = g.cast(f0, ML::F32, ML::I64);
    const std::string i1 = g.cast(f1, ML::F32, ML::I64);
    const std::string v0 = g.op("Gather", {x, i0}, {attrInt("axis", axis)});
    const std::string v1 = g.op("Gather", {x, i1}, {attrInt("axis", axis)});
    std::vector<int64_t> wShape{1, 1, 1, 1};
    wShape[static_cast<size_t>(axis)] = -1;
    const std::string wb = g.op("Reshape", {w, g.constI64(wShape, {4})});
    return g.op("Add", {v0, g.op("Mul", {g.op("Sub", {v1, v0}), wb})});
}

// Both samplers: inputs "input" and "params" (and whatever gridOf adds), output "output".
onnx::ModelProto buildSampler(const std::string& name, ML::u32 dataType, const Dims& inDims, const Dims& outDims,
                              bool splitParameters, const GridOf& gridOf) {
    GraphBuilder g(name);
    const std::string x = g.cast(g.input("input", dataType, inDims), dataType, ML::F32);
    const std::string params =
        g.input("params", ML::F32, Dims{Dim::fixed(1), Dim::fixed(splitParameters ? 13 : 7), Dim::fixed(1), Dim::fixed(1)});
    const SamplerParams p = readParams(g, params, splitParameters);

    const AxisGrid gx = gridOf(g, x, 3);
    const AxisGrid gy = gridOf(g, x, 2);
    const std::string rows = sampleAxis(g, x, 3, gx, p.a, p.c, p.originX, p.scale);
    const std::string out = sampleAxis(g, rows, 2, gy, p.b, p.d, p.originY, p.scale);
    g.output(g.cast(out, ML::F32, dataType), "output", dataType, outDims);
    return g.build();
}

}  // namespace

std::string samplerName(ML::u32 dataType, const TensorSize& size) {
    return "upres_sampler_" + typeText(dataType) + "_" + sizeText(size);
}

std::string dynamicSamplerName(ML::u32 dataType) { return "upres_sampler_dynamic_" + typeText(dataType); }

onnx::ModelProto buildSamplerNetwork(ML::u32 dataType, const TensorSize& size, bool splitParameters) {
    const Dims dims{Dim::fixed(size.n), Dim::named("C"), Dim::fixed(size.h), Dim::fixed(size.w)};
    // Source and output have the extents of the name.
    const GridOf fixed = [&](GraphBuilder& g, const std::string&, int axis) {
        const int64_t n = axis == 3 ? size.w : size.h;
        std::vector<float> positions(static_cast<size_t>(n));
        for (int64_t i = 0; i < n; ++i) positions[static_cast<size_t>(i)] = static_cast<float>(i);
        return AxisGrid{g.constF32(positions, {n}), g.scalarF32(static_cast<float>(n - 1))};
    };
    return buildSampler(samplerName(dataType, size), dataType, dims, dims, splitParameters, fixed);
}

onnx::ModelProto buildDynamicSamplerNetwork(ML::u32 dataType) {
    const Dims in{Dim::fixed(1), Dim::fixed(3), Dim::named("Hs"), Dim::named("Ws")};
    const Dims out{Dim::fixed(1), Dim::fixed(3), Dim::named("H"), Dim::named("W")};
    // The output extents come from the "size" input (width, height); the source's from its shape.
    std::string size;
    const GridOf dynamic = [&](GraphBuilder& g, const std::string& source, int axis) {
        if (size.empty()) {
            const std::string in = g.input("size", ML::I32, Dims{Dim::fixed(1), Dim::fixed(2), Dim::fixed(1), Dim::fixed(1)});
            size = g.cast(g.op("Reshape", {in, g.constI64({2}, {1})}), ML::I32, ML::F32);
        }
        const std::string n = g.element(size, axis == 3 ? 0 : 1);
        const std::string positions = g.op("Range", {g.scalarF32(0.0f), n, g.scalarF32(1.0f)});
        const std::string extent = g.cast(g.element(g.op("Shape", {source}), axis), ML::I64, ML::F32);
        return AxisGrid{positions, g.addScalar(extent, -1.0f)};
    };
    return buildSampler(dynamicSamplerName(dataType), dataType, in, out, false, dynamic);
}

void writeSamplerNetwork(const std::filesystem::path& modelFolder, ML::u32 dataType, const TensorSize& size,
                         bool splitParameters) {
    makeFolder(modelFolder);
    writeModel(buildSamplerNetwork(dataType, size, splitParameters),
               modelFolder / (samplerName(dataType, size) + ".onnx"));
}

void writeDynamicSamplerNetwork(const std::filesystem::path& modelFolder, ML::u32 dataType) {
    makeFolder(modelFolder);
    writeModel(buildDynamicSamplerNetwork(dataType), modelFolder / (dynamicSamplerName(dataType) + ".onnx"));
}

}  // namespace qpkg
