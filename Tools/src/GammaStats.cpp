#include "GammaStats.h"

#include "Formats.h"
#include "GraphBuilder.h"
#include "PackageFiles.h"

namespace qpkg {

std::string gammaName(ML::u32 dataType) { return "CONVERT_GAMMA_" + typeText(dataType); }

std::string statsName(ML::u32 dataType) { return "GET_IMAGE_STATS_" + typeText(dataType); }

onnx::ModelProto buildGammaNetwork(ML::u32 dataType) {
    GraphBuilder g(gammaName(dataType));
    // The plug-in hands its work tensors over flat, as [element count].
    const std::string x = g.input("input", dataType, Dims{Dim::named("E")});
    const std::string from = g.input("source_gamma", dataType, Dims{Dim::fixed(1)});
    const std::string to = g.input("target_gamma", dataType, Dims{Dim::fixed(1)});

    // Decoding with the source gamma and encoding with the target gamma is one power.
    // Equal gammas give the exponent 1 exactly, and so the input unchanged.
    const std::string e = g.op("Div", {g.cast(from, dataType, ML::F32), g.cast(to, dataType, ML::F32)});
    const std::string y = g.signedPow(g.cast(x, dataType, ML::F32), e);
    g.output(g.cast(y, ML::F32, dataType), "output", dataType, Dims{Dim::named("E")});
    return g.build();
}

onnx::ModelProto buildStatsNetwork(ML::u32 dataType) {
    GraphBuilder g(statsName(dataType));
    const Dims dims{Dim::named("N"), Dim::named("C"), Dim::named("H"), Dim::named("W")};
    const std::string x32 = g.cast(g.input("input", dataType, dims), dataType, ML::F32);
    const std::string one = g.constI64({1}, {1});
    const std::string lo = g.op("Reshape", {g.op("ReduceMin", {x32}, {attrInt("keepdims", 0)}), one});
    const std::string hi = g.op("Reshape", {g.op("ReduceMax", {x32}, {attrInt("keepdims", 0)}), one});
    const std::string both = g.op("Concat", {lo, hi}, {attrInt("axis", 0)});
    g.output(g.cast(both, ML::F32, dataType), "output", dataType, Dims{Dim::fixed(2)});
    return g.build();
}

void writeGammaAndStatsNetworks(const std::filesystem::path& modelFolder) {
    const std::filesystem::path folder = modelFolder / "imgcvt";
    makeFolder(folder);
    for (ML::u32 type : allFloatTypes()) {
        writeModel(buildGammaNetwork(type), folder / (gammaName(type) + ".onnx"));
        writeModel(buildStatsNetwork(type), folder / (statsName(type) + ".onnx"));
    }
}

}  // namespace qpkg
