#include "Host/Cli/ImageBridge.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "Host/Media/FrameConvert.h"

namespace QCli {

ML::Ptr<QHost::OwnedImage> toHostImage(const QMedia::Frame& frame) {
    return toHostImage(frame, ML::Rect{0, 0, frame.width(), frame.height()});
}

ML::Ptr<QHost::OwnedImage> toHostImage(const QMedia::Frame& frame, const ML::Rect& rect) {
    if (rect.x0 < 0 || rect.y0 < 0 || rect.x1 > frame.width() || rect.y1 > frame.height() || rect.x0 > rect.x1 ||
        rect.y0 > rect.y1)
        throw std::invalid_argument("input rectangle lies outside the frame");
    const QMedia::Frame rgb =
        frame.channels() == 3 || frame.channels() == 4 ? frame : QMedia::convertChannels(frame, frame.channels() == 2 ? 4 : 3);
    const ML::u32 format = rgb.channels() == 4 ? ML::ImageImp::RGBA : ML::ImageImp::RGB;
    auto image = QHost::OwnedImage::make(rect, format, ML::ImageImp::HWC, rgb.type());
    const std::size_t pixelBytes = rgb.pixelBytes();
    for (int y = rect.y0; y < rect.y1; ++y)
        std::memcpy(image->element(rect.x0, y), rgb.row(y) + static_cast<std::size_t>(rect.x0) * pixelBytes,
                    pixelBytes * static_cast<std::size_t>(rect.width()));
    return image;
}

ML::Ptr<QHost::OwnedImage> makeOutputImage(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 dataType,
                                           ML::u32 layout) {
    return QHost::OwnedImage::make(rect, channelFormat, layout, dataType);
}

QMedia::Frame toFrame(const QHost::OwnedImage& image, int width, int height) {
    const ML::Rect all = image.getRect();
    const ML::Rect rect{std::max(all.x0, 0), std::max(all.y0, 0), std::min(all.x1, width), std::min(all.y1, height)};
    QMedia::Frame frame(width, height, static_cast<int>(image.channels()),
                        static_cast<ML::DataType>(image.getDataType()));
    const std::size_t bytes = image.elementBytes();
    const std::size_t pixelBytes = bytes * image.channels();
    const bool interleaved = image.getMemoryLayout() == ML::ImageImp::HWC || image.channels() == 1;
    for (int y = rect.y0; y < rect.y1; ++y) {
        std::uint8_t* row = frame.row(y) + static_cast<std::size_t>(rect.x0) * pixelBytes;
        if (rect.x0 >= rect.x1) break;
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
