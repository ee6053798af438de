#pragma once
// Pixel conversions behind the fused helper operators: layout (HWC, CHW), element type (U8,
// F16, F32) and channel order in one pass over memory. Plain C++ with an AVX2/F16C variant
// chosen when the processor has it; rows are split over a few threads.
#include <cstdint>
#include <vector>

namespace ML::OrtBackend {

enum class PixelType { U8, F16, F32 };

// U8 values are 0..255 for 0..1. U8 to float divides by 255; float to U8 multiplies by 255,
// maps NaN to 0, rounds half to even and clamps to 0..255. Floats convert to each other plainly,
// F16 rounding to nearest even.
struct ImageConversion {
    PixelType from = PixelType::U8;
    PixelType to = PixelType::U8;
    bool fromPlanar = false;  // CHW, else HWC
    bool toPlanar = false;
    int fromChannels = 1;
    std::vector<int> sources;  // per destination channel: the source channel, or -1 for a constant
    std::vector<float> fills;  // per destination channel: the constant, in 0..1 units
};

// One input sample of an output row or column: the two source indices and the weight of the second.
struct Tap {
    int64_t i0 = 0, i1 = 0;
    float w = 0.0f;
};

// A resize as the row loops see it.
struct ImageResizeJob {
    PixelType type = PixelType::F32;
    bool planar = true;
    const uint8_t* input = nullptr;
    uint8_t* output = nullptr;
    int64_t channels = 1, inHeight = 0, inWidth = 0, outHeight = 0, outWidth = 0;
    std::vector<Tap> rowTaps, columns;
    // One element a pixel: the columns in groups of eight as the vectorised loop reads them. A
    // group's base is its first column's first tap, or -1 where the group's taps are not all
    // neighbours within 16 elements from the base inside the row; offsets are each column's first
    // tap from the base. Weights are the columns' own.
    std::vector<int32_t> groupBases, groupOffsets;
    std::vector<float> columnWeights;
};

// Which row loops run: the best this processor has, or the plain ones (to compare them).
enum class KernelVariant { Best, Plain };

// Converts batch images of height x width from input to output (both packed). Work is split
// over at most threads threads, the caller's included.
void convertImage(const ImageConversion& conversion, const void* input, void* output, int64_t batch, int64_t height,
                  int64_t width, int threads, KernelVariant variant = KernelVariant::Best);

// Scales batch images of height x width and the given channels to outHeight x outWidth in one
// element type: bilinear with half-pixel centres and clamped edges, no antialiasing, in F32
// (U8 in its 0..255 units, rounded half to even). Rows are split over at most threads threads.
void resizeImage(PixelType type, bool planar, const void* input, void* output, int64_t batch, int64_t channels,
                 int64_t height, int64_t width, int64_t outHeight, int64_t outWidth, int threads,
                 KernelVariant variant = KernelVariant::Best);

// Copies bytes from input to output (not overlapping); large copies are split over at most threads
// threads, the caller's included.
void copyBytes(void* output, const void* input, uint64_t bytes, int threads);

// Whether the vectorised variant runs on this processor.
bool imageKernelsVectorised();

}  // namespace ML::OrtBackend
