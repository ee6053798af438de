#include "Host/Cli/ImageBridge.h"

#include <cstring>
#include <stdexcept>

#include "Host/Media/FrameConvert.h"

namespace QCli {

ML::Ptr<QHost::OwnedImage> toHostImage(const QMedia::Frame& frame) {
    const QMedia::Frame rgb =
        frame.channels() == 3 || frame.channels() == 4 ? frame : QMedia::convertChannels(frame, frame.channels() == 2 ? 4 : 3);
    const ML::u32 format = rgb.channels() == 4 ? ML::ImageImp::RGBA : ML::ImageImp::RGB;
    ML::Rect rect;
    rect.x1 = rgb.width();
    rect.y1 = rgb.height();
    auto image = QHost::OwnedImage::make(rect, format, ML::ImageImp::HWC, rgb.type());
    for (int y = 0; y < rgb.height(); ++y) std::memcpy(image->element(0, y), rgb.row(y), rgb.rowBytes());
    return image;
}

ML::Ptr<QHost::OwnedImage> makeOutputImage(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 dataType,
                                           ML::u32 layout) {
    return QHost::OwnedImage::make(rect, channelFormat, layout, dataType);
}

QMedia::Frame toFrame(const QHost::OwnedImage& image, int width, int height) {
    const ML::Rect rect = image.getRect();
    if (rect.x0 < 0 || rect.y0 < 0 || rect.x1 > width || rect.y1 > height)
        throw std::invalid_argument("output image lies outside the frame");
    QMedia::Frame frame(width, height, static_cast<int>(image.channels()),
                        static_cast<ML::DataType>(image.getDataType()));
    const std::size_t bytes = image.elementBytes();
    const std::size_t pixelBytes = bytes * image.channels();
    const bool interleaved = image.getMemoryLayout() == ML::ImageImp::HWC || image.channels() == 1;
    for (int y = rect.y0; y < rect.y1; ++y) {
        std::uint8_t* row = frame.row(y) + static_cast<std::size_t>(rect.x0) * pixelBytes;
        if (interleaved) {
            std::memcpy(row, image.element(rect.x0, y), pixelBytes * static_cast<std::size_t>(rect.width()));
            continue;
        }
        for (int x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image.channels(); ++c)
                std::memcpy(row + static_cast<std::size_t>(x - rect.x0) * pixelBytes + c * bytes, image.element(x, y, c),
                            bytes);
    }
    return frame;
}

}  // namespace QCli
