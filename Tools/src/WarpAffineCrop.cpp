#include "WarpAffineCrop.h"

#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

onnx::ModelProto buildWarpAffineCrop(ML::u32 dataType) {
    const int64_t n = kWarpAffineCropSize;
    GraphBuilder g(kWarpAffineCropName);
    const std::string source =
        g.input("source", dataType, {Dim::fixed(1), Dim::fixed(3), Dim::named("H"), Dim::named("W")});
    const std::string m = g.cast(g.input("matrix", dataType, {Dim::fixed(2), Dim::fixed(3)}), dataType, ML::F32);

    // The crop's pixels as columns (u, v, 1); mapped, they are the source points (x, y).
    std::vector<float> homogeneous(static_cast<size_t>(3 * n * n));
    for (int64_t v = 0; v < n; ++v)
        for (int64_t u = 0; u < n; ++u) {
            const auto i = static_cast<size_t>(v * n + u);
            homogeneous[i] = static_cast<float>(u);
            homogeneous[static_cast<size_t>(n * n) + i] = static_cast<float>(v);
            homogeneous[static_cast<size_t>(2 * n * n) + i] = 1.0f;
        }
    const std::string points = g.op("MatMul", {m, g.constF32(homogeneous, {3, n * n})});  // 2 x n*n

    // The part of the source under the crop, per axis (x, then y): from the floor of the
    // smallest coordinate to two past the floor of the largest, clamped to the frame and at
    // least one pixel wide.
    const float last = static_cast<float>(n - 1);
    const std::string corners = g.op("MatMul", {m, g.constF32({0, last, 0, last, 0, 0, last, last, 1, 1, 1, 1}, {3, 4})});
    const std::string low = g.op("Floor", {g.op("ReduceMin", {corners}, {attrInts("axes", {1}), attrInt("keepdims", 0)})});
    const std::string high = g.op("Floor", {g.op("ReduceMax", {corners}, {attrInts("axes", {1}), attrInt("keepdims", 0)})});
    const std::string shape = g.op("Shape", {source});
    const std::string extent = g.cast(g.op("Gather", {shape, g.constI64({3, 2}, {2})}), ML::I64, ML::F32);  // W, H
    const std::string zero = g.constF32({0.0f, 0.0f}, {2});
    const std::string start = g.op("Min", {g.op("Max", {low, zero}), g.addScalar(extent, -1.0f)});
    const std::string end =
        g.op("Min", {g.op("Max", {g.addScalar(high, 2.0f), g.addScalar(start, 1.0f)}), extent});
    const std::string window =
        g.op("Slice", {source, g.cast(start, ML::F32, ML::I64), g.cast(end, ML::F32, ML::I64), g.constI64({3, 2}, {2})});
    const std::string part = g.cast(window, dataType, ML::F32);

    // Grid positions relative to the part, normalised so that -1 and 1 are its outer edges
    // (GridSample without align_corners): (2 (p - start) + 1) / size - 1.
    const std::string size = g.op("Reshape", {g.op("Sub", {end, start}), g.constI64({2, 1}, {2})});
    const std::string relative = g.op("Sub", {points, g.op("Reshape", {start, g.constI64({2, 1}, {2})})});
    const std::string normalised =
        g.addScalar(g.op("Div", {g.addScalar(g.mulScalar(relative, 2.0f), 1.0f), size}), -1.0f);
    const std::string grid = g.op("Reshape", {g.op("Transpose", {normalised}, {attrInts("perm", {1, 0})}),
                                              g.constI64({1, n, n, 2}, {4})});
    const std::string crop = g.op("GridSample", {part, grid},
                                  {attrString("mode", "bilinear"), attrString("padding_mode", "zeros"),
                                   attrInt("align_corners", 0)});
    g.output(g.cast(crop, ML::F32, dataType), "crop", dataType,
             {Dim::fixed(1), Dim::fixed(3), Dim::fixed(n), Dim::fixed(n)});
    return g.build();
}

void writeWarpAffineCrop(const std::filesystem::path& modelFolder, ML::u32 dataType) {
    makeFolder(modelFolder);
    writeModel(buildWarpAffineCrop(dataType), modelFolder / (std::string(kWarpAffineCropName) + ".onnx"));
}

}  // namespace qpkg
