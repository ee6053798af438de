#pragma once
// Where an upscaled frame's pixels come from: the output rectangle to render and the part of the
// input frame to hand over, for a scale about an origin point (output o = (i - origin) * scale +
// origin on each axis).
#include <optional>

#include "ML/Rect.h"

namespace QCli {

struct ScaledRegion {
    ML::Rect output;  // what the plug-in renders; may reach a little past the output frame
    ML::Rect input;   // inside the input frame
};

// Without a region of interest the output covers every pixel of the output frame (the input
// frame's size times `scale`, rounded down) that the input reaches, widened to the next input
// pixel's image on each side, so that its edges lie on the scale's grid about the origin as a
// tiled upscaler needs. With one, the output is that region. The input is the smallest part of
// the input frame that the output needs. Throws UsageError when no output pixel falls inside
// the output frame.
ScaledRegion scaledRegion(int inputWidth, int inputHeight, float scale, int originX, int originY,
                          const std::optional<ML::Rect>& roi);

}  // namespace QCli
