#pragma once
// A media frame as the packed RGB U8 host image a host hands the plug-in (grey repeated).
#include <algorithm>

#include "Host/Media/Frame.h"
#include "Host/OwnedImage.h"

namespace testpkg {

inline ML::Ptr<QHost::OwnedImage> picture(const QMedia::Frame& frame) {
    auto image = QHost::OwnedImage::make({0, 0, frame.width(), frame.height()}, ML::Image::RGB, ML::Image::HWC, ML::U8);
    for (int y = 0; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x)
            for (int c = 0; c < 3; ++c)
                image->at<ML::u8>(x, y, c) =
                    static_cast<ML::u8>(255.0f * frame.sample(x, y, std::min(c, frame.channels() - 1)) + 0.5f);
    return image;
}

}  // namespace testpkg
