#include "Host/Media/ImageSink.h"

#include "Host/Media/ImageWriter.h"
#include "ML/Exception.h"

namespace QMedia {

ImageSink::ImageSink(const std::filesystem::path& path, const ImageWriteOptions& options)
    : path_(path), options_(options) {
    checkImageOutput(path);
}

void ImageSink::write(int frame, const Frame& pixels) {
    if (written_)
        ML_THROW("Output " + path_.string() +
                 " is a single image and takes one frame; name a sequence like name.%04d.exr for more");
    writeImage(path_, pixels, options_);
    written_ = true;
}

void ImageSink::finish() {
    if (!written_) ML_THROW("No frame was written to " + path_.string());
}

}  // namespace QMedia
