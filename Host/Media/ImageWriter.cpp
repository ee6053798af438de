#include "Host/Media/ImageWriter.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "Host/Media/CheckedOutputFile.h"
#include "Host/Media/FrameConvert.h"
#include "Host/Media/PendingFile.h"
#include "ML/Exception.h"

namespace QMedia {
namespace {

// What one file format can store.
struct FormatRules {
    std::vector<BitDepth> depths;  // empty: anything (the format's writer picks the nearest)
    bool colourOnly = false;       // no alpha channel
};

FormatRules rulesFor(const std::string& format) {
    if (format == "png") return {{BitDepth::U8, BitDepth::U16}, false};
    if (format == "jpeg") return {{BitDepth::U8}, true};
    if (format == "tiff") return {{BitDepth::U8, BitDepth::U16, BitDepth::F32}, false};
    if (format == "openexr") return {{BitDepth::F16, BitDepth::F32}, false};
    return {};
}

BitDepth depthOfFrame(ML::DataType type) {
    switch (type) {
    case ML::U8: return BitDepth::U8;
    case ML::F16: return BitDepth::F16;
    default: return BitDepth::F32;
    }
}

BitDepth autoDepth(const std::string& format, ML::DataType type) {
    if (format == "png") return type == ML::U8 ? BitDepth::U8 : BitDepth::U16;
    if (format == "jpeg") return BitDepth::U8;
    if (format == "tiff") return type == ML::U8 ? BitDepth::U8 : BitDepth::F32;
    if (format == "openexr") return type == ML::F32 ? BitDepth::F32 : BitDepth::F16;
    return depthOfFrame(type);
}

OIIO::TypeDesc fileType(BitDepth depth) {
    switch (depth) {
    case BitDepth::U8: return OIIO::TypeDesc::UINT8;
    case BitDepth::U16: return OIIO::TypeDesc::UINT16;
    case BitDepth::F16: return OIIO::TypeDesc::HALF;
    default: return OIIO::TypeDesc::FLOAT;
    }
}

OIIO::TypeDesc memoryType(ML::DataType type) {
    switch (type) {
    case ML::U8: return OIIO::TypeDesc::UINT8;
    case ML::F16: return OIIO::TypeDesc::HALF;
    default: return OIIO::TypeDesc::FLOAT;
    }
}

OIIO::ImageSpec makeSpec(const Frame& frame, BitDepth depth) {
    OIIO::ImageSpec imageSpec(frame.width(), frame.height(), frame.channels(), fileType(depth));
    switch (frame.channels()) {
    case 1: imageSpec.channelnames = {"Y"}; imageSpec.alpha_channel = -1; break;
    case 2: imageSpec.channelnames = {"Y", "A"}; imageSpec.alpha_channel = 1; break;
    case 3: imageSpec.channelnames = {"R", "G", "B"}; imageSpec.alpha_channel = -1; break;
    default: imageSpec.channelnames = {"R", "G", "B", "A"}; imageSpec.alpha_channel = 3; break;
    }
    return imageSpec;
}

std::string oiioError(const std::string& e, const std::string& fallback) { return e.empty() ? fallback : e; }

std::unique_ptr<OIIO::ImageOutput> createOutput(const std::filesystem::path& path) {
    auto out = OIIO::ImageOutput::create(path.string());
    if (!out)
        ML_THROW("Could not write image " + path.string() + ": " +
                 oiioError(OIIO::geterror(), "no image format for this file extension"));
    return out;
}

// The requested depth, or the format's choice for Auto; throws when the format cannot store it.
BitDepth chooseDepth(const std::filesystem::path& path, const std::string& format, const FormatRules& rules,
                     ML::DataType frameType, BitDepth requested) {
    const BitDepth depth = requested == BitDepth::Auto ? autoDepth(format, frameType) : requested;
    if (rules.depths.empty() || std::find(rules.depths.begin(), rules.depths.end(), depth) != rules.depths.end())
        return depth;
    std::string list;
    for (BitDepth d : rules.depths) list += std::string(list.empty() ? "" : ", ") + bitDepthName(d);
    ML_THROW("Could not write image " + path.string() + ": " + format + " files cannot store bit depth " +
             bitDepthName(depth) + " (use " + list + ")");
}

}  // namespace

void checkImageOutput(const std::filesystem::path& path) {
    checkOutputFolder(path);
    createOutput(path);
}

void writeImage(const std::filesystem::path& path, const Frame& frame, const ImageWriteOptions& options) {
    if (frame.empty()) ML_THROW("Cannot write an empty frame to " + path.string());
    PendingFile file(path);
    std::unique_ptr<CheckedOutputFile> sink;  // declared first: it outlives the writer using it
    auto out = createOutput(path);
    const std::string format = out->format_name();
    const FormatRules rules = rulesFor(format);

    const BitDepth depth = chooseDepth(path, format, rules, frame.type(), options.bitDepth);

    const Frame* pixels = &frame;
    Frame withoutAlpha;
    if (rules.colourOnly && (frame.channels() == 2 || frame.channels() == 4)) {
        withoutAlpha = convertChannels(frame, frame.channels() - 1);
        pixels = &withoutAlpha;
    }

    OIIO::ImageSpec imageSpec = makeSpec(*pixels, depth);
    if (format == "jpeg") {
        if (options.jpegQuality < 1 || options.jpegQuality > 100)
            ML_THROW("JPEG quality must be 1 to 100, not " + std::to_string(options.jpegQuality));
        imageSpec.attribute("Compression", "jpeg:" + std::to_string(options.jpegQuality));
    }

    // The picture goes through a file of ours, so that a write error is never missed.
    // (A format without I/O proxies writes by name and reports what it notices itself.)
    if (out->supports("ioproxy")) {
        std::string openError;
        sink = CheckedOutputFile::create(file.tempPath(), openError);
        if (!sink) ML_THROW("Could not write image " + path.string() + ": cannot create file (" + openError + ")");
        OIIO::Filesystem::IOProxy* proxy = sink.get();
        imageSpec.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &proxy);
    }
    // Pixels go to the file as given: straight alpha is not divided out.
    imageSpec.attribute("oiio:UnassociatedAlpha", 1);

    if (!out->open(file.tempPath().string(), imageSpec))
        ML_THROW("Could not write image " + path.string() + ": " + oiioError(out->geterror(), "cannot create file"));
    const bool written = out->write_image(memoryType(pixels->type()), pixels->data());
    const std::string writeError = written ? std::string() : out->geterror();
    const bool closed = out->close();
    if (!written || !closed)
        ML_THROW("Could not write image " + path.string() + ": " +
                 oiioError(written ? out->geterror() : writeError, "writing failed"));
    out.reset();
    if (sink && !sink->finish())
        ML_THROW("Could not write image " + path.string() + ": the file could not be written completely");
    file.commit();
}

}  // namespace QMedia
