#pragma once
// Shared pieces of the depth tests: one host for the whole executable (the plug-in keeps the
// first logger and folders it sees for the life of the process), call settings for a depth
// render, and the expected values of the package's stand-in networks.
#include <array>
#include <filesystem>
#include <memory>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"

namespace depthtest {

constexpr int kDepthTarget = 9;
// fp16 tensors plus U8 input quantisation.
constexpr float kTolerance = 4e-3f;
// Written into outputs before a render, to see which pixels the plug-in touched.
constexpr float kSentinel = -7.25f;

std::filesystem::path packageDir();

// The process-wide host; its logger is the one the plug-in logs to.
QHost::Host& host();

// Settings for a depth render of frame in the given mode, with the package's folders.
std::shared_ptr<QHost::CallSettings> depthSettings(ML::u32 frame, int mode = 4);

// 1 - Rec. 709 luminance of an RGB colour in 0..1.
float expectedDepth(float r, float g, float b);
// The colour ramp of the colorize network for depth d.
std::array<float, 3> expectedRamp(float d);

using ImagePtr = ML::Ptr<QHost::OwnedImage>;

// Image with every element of every pixel set to value (U8: value * 255, rounded).
ImagePtr filledImage(const ML::Rect& rect, ML::u32 format, ML::u32 layout, ML::u32 type, float value);
// Sets the pixels of rect (clipped to the image) to an RGB colour; a fourth channel gets 1.
void paint(QHost::OwnedImage& image, const ML::Rect& rect, float r, float g, float b);
// One element as float, whatever the data type (U8 scaled to 0..1).
float valueAt(const QHost::OwnedImage& image, ML::i32 x, ML::i32 y, ML::u32 channel = 0);

}  // namespace depthtest
