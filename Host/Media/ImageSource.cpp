#include "Host/Media/ImageSource.h"

#include "Host/Media/ImageReader.h"

namespace QMedia {

ImageSource::ImageSource(const std::filesystem::path& path) : path_(path), image_(readImage(path)) {}

}  // namespace QMedia
