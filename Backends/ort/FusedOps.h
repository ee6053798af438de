#pragma once
// The operators of the "ai.quillon" domain that the package's fused helper networks use, as
// ONNX Runtime CPU kernels:
//   ConvertImage_<from>_<to> (from, to: U8, F16, F32): one input, one output, 4D. Attributes
//   "from_layout" and "to_layout" ("HWC" or "CHW"), "sources" (ints, per output channel the
//   input channel, or -1 for a constant) and "fills" (floats, the constants in 0..1 units).
//   ResizeImage_<type>: inputs the image and its target shape (I64, N, C, H, W whatever the
//   layout; H and W are used), one output. Attribute "layout" ("HWC" or "CHW"). Bilinear with
//   half-pixel centres and clamped edges, no antialiasing.
#include <onnxruntime_cxx_api.h>

namespace ML::OrtBackend {

inline constexpr const char* kFusedDomain = "ai.quillon";

// Makes the domain's operators known to sessions made with options. The kernels split their work
// over threads threads (the first call sets it for the process).
void addFusedOperators(Ort::SessionOptions& options, int threads);

}  // namespace ML::OrtBackend
