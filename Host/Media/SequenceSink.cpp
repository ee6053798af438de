#include "Host/Media/SequenceSink.h"

#include <algorithm>

#include "Host/Media/ImageWriter.h"
#include "ML/Exception.h"

namespace QMedia {

SequenceSink::SequenceSink(const std::filesystem::path& pattern, const ImageWriteOptions& options)
    : pattern_(pattern), options_(options) {
    checkImageOutput(pattern_.pathFor(0));
}

void SequenceSink::write(int frame, const Frame& pixels) {
    writeImage(pattern_.pathFor(frame), pixels, options_);
    if (!written_)
        written_ = FrameRange{frame, frame};
    else
        written_ = FrameRange{std::min(written_->first, frame), std::max(written_->last, frame)};
}

void SequenceSink::finish() {
    if (!written_) ML_THROW("No frames were written to sequence " + pattern_.pattern().string());
}

}  // namespace QMedia
