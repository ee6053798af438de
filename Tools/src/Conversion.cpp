#include "Conversion.h"

#include "GraphBuilder.h"
#include "FusedNetwork.h"
#include "PackageFiles.h"

namespace qpkg {

namespace {

int elementSize(ML::u32 dataType) { return dataType == ML::U8 ? 1 : dataType == ML::F16 ? 2 : 4; }

int channelAxis(ML::u32 layout) { return layout == ML::Image::CHW ? 1 : 3; }

Dims tensorDims(const ImageFormat& f) {
    const Dim c = Dim::fixed(channelCount(f.channels));
    if (f.layout == ML::Image::CHW) return {Dim::named("N"), c, Dim::named("H"), Dim::named("W")};
    return {Dim::named("N"), Dim::named("H"), Dim::named("W"), c};
}

// Pixel values from one element type to another: U8 is 0..255 for 0..1; floats cast plainly.
std::string convertValues(GraphBuilder& g, const std::string& x, ML::u32 from, ML::u32 to) {
    if (from == to) return x;
    if (from != ML::U8 && to != ML::U8) return g.cast(x, from, to);
    std::string f = g.cast(x, from, ML::F32);
    if (from == ML::U8) f = g.divScalar(f, 255.0f);
    if (to == ML::U8) return g.toU8(g.mulScalar(f, 255.0f));
    return g.cast(f, ML::F32, to);
}

}  // namespace

std::vector<ChannelSource> channelMapping(ML::u32 fromChannels, ML::u32 toChannels) {
    const std::string src = channelsText(fromChannels);
    const std::string dst = channelsText(toChannels);
    std::vector<ChannelSource> out;
    for (char c : dst) {
        ChannelSource s;
        const auto at = src.find(c);
        if (at != std::string::npos) {
            s.sourceIndex = static_cast<int>(at);
        } else if (c == 'A') {
            s.kind = ChannelSource::Fill;
            s.fill = 1.0;
        } else if (fromChannels == ML::Image::R) {
            s.sourceIndex = 0;
        } else {
            s.kind = ChannelSource::Fill;
            s.fill = 0.0;
        }
        out.push_back(s);
    }
    return out;
}

std::string conversionName(const ImageFormat& from, const ImageFormat& to) {
    return formatKey(from) + "_TO_" + formatKey(to);
}

namespace {

onnx::ModelProto buildFusedConversionNetwork(const ImageFormat& from, const ImageFormat& to) {
    std::vector<int64_t> sources;
    std::vector<float> fills;
    for (const ChannelSource& s : channelMapping(from.channels, to.channels)) {
        sources.push_back(s.kind == ChannelSource::Copy ? s.sourceIndex : -1);
        fills.push_back(s.kind == ChannelSource::Fill ? static_cast<float>(s.fill) : 0.0f);
    }
    return buildFusedNetwork(conversionName(from, to), {{"input", from.dataType, tensorDims(from)}},
                             "ConvertImage_" + typeText(from.dataType) + "_" + typeText(to.dataType),
                             {attrString("from_layout", layoutText(from.layout)),
                              attrString("to_layout", layoutText(to.layout)), attrInts("sources", sources),
                              attrFloatList("fills", fills)},
                             {"output", to.dataType, tensorDims(to)});
}

}  // namespace

onnx::ModelProto buildConversionNetwork(const ImageFormat& from, const ImageFormat& to, bool portable) {
    if (!portable) return buildFusedConversionNetwork(from, to);
    GraphBuilder g(conversionName(from, to));
    std::string cur = g.input("input", from.dataType, tensorDims(from));
    ML::u32 layout = from.layout;

    const std::vector<ChannelSource> mapping = channelMapping(from.channels, to.channels);
    std::vector<int64_t> copies;
    for (const ChannelSource& s : mapping)
        if (s.kind == ChannelSource::Copy) copies.push_back(s.sourceIndex);

    // 1. Pick, reorder or repeat the source channels that are kept, in destination order.
    bool identity = static_cast<int>(copies.size()) == channelCount(from.channels);
    for (size_t i = 0; identity && i < copies.size(); ++i) identity = copies[i] == static_cast<int64_t>(i);
    if (!identity)
        cur = g.op("Gather", {cur, g.constI64(copies, {static_cast<int64_t>(copies.size())})},
                   {attrInt("axis", channelAxis(layout))});

    // 2. Values, with the layout change done on whichever side has the smaller elements.
    const bool transposeFirst = elementSize(from.dataType) <= elementSize(to.dataType);
    if (transposeFirst) {
        cur = g.transposeLayout(cur, layout, to.layout);
        layout = to.layout;
    }
    cur = convertValues(g, cur, from.dataType, to.dataType);

    // 3. Constant channels (alpha, missing colours), inserted between runs of kept channels.
    bool anyFill = false;
    for (const ChannelSource& s : mapping) anyFill = anyFill || s.kind == ChannelSource::Fill;
    if (anyFill) {
        const int axis = channelAxis(layout);
        const std::string planeShape =
            g.op("Shape", {g.op("Slice", {cur, g.constI64({0}, {1}), g.constI64({1}, {1}), g.constI64({axis}, {1})})});
        const double unit = to.dataType == ML::U8 ? 255.0 : 1.0;
        std::vector<std::string> pieces;
        int64_t used = 0;
        for (size_t i = 0; i < mapping.size();) {
            if (mapping[i].kind == ChannelSource::Fill) {
                pieces.push_back(g.op("ConstantOfShape", {planeShape},
                                      {attrScalarTensor("value", to.dataType, mapping[i].fill * unit)}));
                ++i;
                continue;
            }
            size_t end = i;
            while (end < mapping.size() && mapping[end].kind == ChannelSource::Copy) ++end;
            const int64_t run = static_cast<int64_t>(end - i);
            if (used == 0 && run == static_cast<int64_t>(copies.size()))
                pieces.push_back(cur);
            else
                pieces.push_back(g.op("Slice", {cur, g.constI64({used}, {1}), g.constI64({used + run}, {1}),
                                                g.constI64({axis}, {1})}));
            used += run;
            i = end;
        }
        cur = g.op("Concat", pieces, {attrInt("axis", axis)});
    }

    cur = g.transposeLayout(cur, layout, to.layout);
    g.output(cur, "output", to.dataType, tensorDims(to));
    return g.build();
}

std::vector<FormatPair> allConversionPairs() {
    std::vector<FormatPair> pairs;
    const std::vector<ImageFormat> formats = allImageFormats();
    for (const ImageFormat& a : formats)
        for (const ImageFormat& b : formats)
            if (a != b) pairs.emplace_back(a, b);
    return pairs;
}

FormatPair parseConversionName(const std::string& name) {
    const auto at = name.find("_TO_");
    if (at == std::string::npos)
        throw UsageError("bad conversion name '" + name + "' (expected <format>_TO_<format>, e.g. HWC-U8-RGBA_TO_CHW-F16-RGB)");
    const ImageFormat from = parseFormatKey(name.substr(0, at));
    const ImageFormat to = parseFormatKey(name.substr(at + 4));
    if (from == to) throw UsageError("conversion '" + name + "' converts a format to itself");
    return {from, to};
}

void writeConversionNetworks(const std::filesystem::path& modelFolder, const std::vector<FormatPair>& pairs,
                             bool portable) {
    const std::filesystem::path folder = modelFolder / "imgcvt";
    makeFolder(folder);
    for (const FormatPair& p : pairs)
        writeModel(buildConversionNetwork(p.first, p.second, portable),
                   folder / (conversionName(p.first, p.second) + ".onnx"));
}

}  // namespace qpkg
