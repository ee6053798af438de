#pragma once
// Format conversion networks "imgcvt/<A>_TO_<B>": one input and one output, dynamic batch,
// height and width, N,H,W,C tensors for HWC and N,C,H,W for CHW. The rules are tabled in
// Tools/README.md.
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <onnx/onnx_pb.h>

#include "Formats.h"

namespace qpkg {

// Where one channel of a converted image comes from.
struct ChannelSource {
    enum Kind { Copy, Fill };
    Kind kind = Copy;
    int sourceIndex = 0;  // Copy: channel of the source
    double fill = 0.0;    // Fill: value in 0..1 units (1 is 255 in U8)
};

// The channel rule: a destination channel takes the source channel of the same name; a
// missing alpha is 1 (opaque); a missing colour channel repeats R when the source is R alone
// (a grey value), else is 0.
std::vector<ChannelSource> channelMapping(ML::u32 fromChannels, ML::u32 toChannels);

// "<A>_TO_<B>"
std::string conversionName(const ImageFormat& from, const ImageFormat& to);

// portable: standard ONNX operators only, for any ONNX runtime. Otherwise one fused
// ConvertImage_<from type>_<to type> node of the fused domain does it all in one pass.
onnx::ModelProto buildConversionNetwork(const ImageFormat& from, const ImageFormat& to, bool portable = false);

using FormatPair = std::pair<ImageFormat, ImageFormat>;
// Every ordered pair of different formats.
std::vector<FormatPair> allConversionPairs();
// Parses "<A>_TO_<B>"; UsageError for unknown names or equal formats.
FormatPair parseConversionName(const std::string& name);

// Writes <modelFolder>/imgcvt/<A>_TO_<B>.onnx for each pair.
void writeConversionNetworks(const std::filesystem::path& modelFolder, const std::vector<FormatPair>& pairs,
                             bool portable = false);

}  // namespace qpkg
