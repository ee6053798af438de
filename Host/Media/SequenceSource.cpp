#include "Host/Media/SequenceSource.h"

#include <string>
#include <system_error>

#include "Host/Media/ImageReader.h"
#include "ML/Exception.h"

namespace QMedia {

SequenceSource::SequenceSource(const std::filesystem::path& pattern) : pattern_(pattern) {
    const auto range = pattern_.rangeOnDisk();
    if (!range) ML_THROW("No files found for sequence " + pattern.string());
    range_ = *range;
}

Frame SequenceSource::read(int frame) {
    if (!range_.contains(frame))
        ML_THROW("Frame " + std::to_string(frame) + " is outside sequence " + pattern_.pattern().string() +
                 " (frames " + std::to_string(range_.first) + " to " + std::to_string(range_.last) + ")");
    const std::filesystem::path file = pattern_.pathFor(frame);
    std::error_code ec;
    if (!std::filesystem::exists(file, ec))
        ML_THROW("Missing frame " + std::to_string(frame) + " of sequence " + pattern_.pattern().string() + ": " +
                 file.string());
    return readImage(file);
}

}  // namespace QMedia
