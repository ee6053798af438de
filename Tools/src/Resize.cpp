#include "Resize.h"

#include "Formats.h"
#include "FusedNetwork.h"
#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

std::string resizeName(ML::u32 dataType, ML::u32 layout) {
    return "resize_" + typeText(dataType) + "_" + layoutText(layout);
}

onnx::ModelProto buildResizeNetwork(ML::u32 dataType, ML::u32 layout, bool portable) {
    GraphBuilder g(resizeName(dataType, layout));
    const bool chw = layout == ML::Image::CHW;
    const Dims dims = chw ? Dims{Dim::named("N"), Dim::named("C"), Dim::named("H"), Dim::named("W")}
                          : Dims{Dim::named("N"), Dim::named("H"), Dim::named("W"), Dim::named("C")};
    const Dims outDims = chw ? Dims{Dim::named("N"), Dim::named("C"), Dim::named("outH"), Dim::named("outW")}
                             : Dims{Dim::named("N"), Dim::named("outH"), Dim::named("outW"), Dim::named("C")};
    if (!portable)
        return buildFusedNetwork(resizeName(dataType, layout),
                                 {{"input", dataType, dims}, {"shape", ML::I64, Dims{Dim::fixed(4)}}},
                                 "ResizeImage_" + typeText(dataType), {attrString("layout", layoutText(layout))},
                                 {"output", dataType, outDims});
    const std::string x = g.input("input", dataType, dims);
    const std::string target = g.input("shape", ML::I64, Dims{Dim::fixed(4)});

    // Only height and width come from the target shape: batch and channels are never resampled.
    const std::string shape = g.op("Shape", {x});
    const std::string targetHW =
        g.op("Slice", {target, g.constI64({2}, {1}), g.constI64({4}, {1}), g.constI64({0}, {1})});
    auto part = [&](int64_t begin, int64_t end) {
        return g.op("Slice", {shape, g.constI64({begin}, {1}), g.constI64({end}, {1}), g.constI64({0}, {1})});
    };
    const std::string sizes = chw ? g.op("Concat", {part(0, 2), targetHW}, {attrInt("axis", 0)})
                                  : g.op("Concat", {part(0, 1), targetHW, part(3, 4)}, {attrInt("axis", 0)});

    const std::string x32 = g.cast(x, dataType, ML::F32);
    const std::string r = g.op("Resize", {x32, "", "", sizes},
                               {attrString("mode", "linear"), attrString("coordinate_transformation_mode", "half_pixel")});
    const std::string out = dataType == ML::U8 ? g.toU8(r) : g.cast(r, ML::F32, dataType);
    g.output(out, "output", dataType, outDims);
    return g.build();
}

void writeResizeNetworks(const std::filesystem::path& modelFolder, bool portable) {
    const std::filesystem::path folder = modelFolder / "imgcvt";
    makeFolder(folder);
    for (ML::u32 type : allPixelTypes())
        for (ML::u32 layout : allLayouts())
            writeModel(buildResizeNetwork(type, layout, portable), folder / (resizeName(type, layout) + ".onnx"));
}

}  // namespace qpkg
