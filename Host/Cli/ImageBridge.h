#pragma once
// Pixels between media frames and the host images handed to the plug-in.
#include "Host/Media/Frame.h"
#include "Host/OwnedImage.h"

namespace QCli {

// A host image (HWC, rectangle (0,0)-(width,height)) holding the frame as RGB or RGBA in the
// frame's own element type; gray frames become RGB.
ML::Ptr<QHost::OwnedImage> toHostImage(const QMedia::Frame& frame);
// The same for the part of the frame inside `rect` only, the image's rectangle being `rect`.
// Throws std::invalid_argument when the rectangle reaches outside the frame.
ML::Ptr<QHost::OwnedImage> toHostImage(const QMedia::Frame& frame, const ML::Rect& rect);

// A zero-filled host image for an output: rectangle, channel format, data type and layout as given.
ML::Ptr<QHost::OwnedImage> makeOutputImage(const ML::Rect& rect, ML::u32 channelFormat, ML::u32 dataType,
                                           ML::u32 layout = ML::ImageImp::HWC);

// A frame of width x height, zero outside the image's rectangle, holding the image's pixels
// inside it (channels in stored order, interleaved, the image's data type), whatever the
// image's layout. Pixels of the image outside the frame are left out.
QMedia::Frame toFrame(const QHost::OwnedImage& image, int width, int height);

}  // namespace QCli
