#pragma once
// Conversions of a whole frame to another element type or channel count.
#include "Host/Media/Frame.h"

namespace QMedia {

// Element type change. U8 <-> float maps 0..255 to 0..1; float -> U8 clamps and rounds.
// F32 -> F16 rounds to the nearest half. The same type gives a copy.
Frame convertType(const Frame& frame, ML::DataType type);

// Channel count change, keeping the element type. Counts are read as 1 gray, 2 gray+alpha,
// 3 RGB, 4 RGBA. Gray becomes RGB by repetition, RGB becomes gray by Rec. 709 luma, a missing
// alpha is opaque (1) and a dropped alpha is simply left out.
Frame convertChannels(const Frame& frame, int channels);

}  // namespace QMedia
