#include "ImageKernels.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

namespace ML::OrtBackend {

namespace plain {
#include "ImageKernelsBody.inc"
}  // namespace plain

#pragma GCC push_options
#pragma GCC target("avx2,f16c,fma")
namespace avx2 {
#define IMGK_AVX2
#include "ImageKernelsBody.inc"
#undef IMGK_AVX2
}  // namespace avx2
#pragma GCC pop_options

namespace {

using RowsFn = void (*)(const ImageConversion&, const uint8_t*, uint8_t*, int64_t, int64_t, int64_t, int64_t);

RowsFn rowKernel() {
    static const RowsFn fn = imageKernelsVectorised() ? &avx2::convertRows : &plain::convertRows;
    return fn;
}

// Below this many elements per thread a split costs more than it saves.
constexpr int64_t kElementsPerThread = 1 << 16;

}  // namespace

bool imageKernelsVectorised() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("f16c") && __builtin_cpu_supports("fma");
}

void convertImage(const ImageConversion& conversion, const void* input, void* output, int64_t batch, int64_t height,
                  int64_t width, int threads, KernelVariant variant) {
    const int64_t rows = batch * height;
    if (rows <= 0 || width <= 0) return;
    const RowsFn fn = variant == KernelVariant::Plain ? &plain::convertRows : rowKernel();
    const auto* in = static_cast<const uint8_t*>(input);
    auto* out = static_cast<uint8_t*>(output);
    const int64_t elements = rows * width * static_cast<int64_t>(conversion.sources.size());
    const int64_t parts = std::clamp<int64_t>(std::min<int64_t>(threads, elements / kElementsPerThread), 1, rows);
    if (parts == 1) {
        fn(conversion, in, out, height, width, 0, rows);
        return;
    }
    std::vector<std::thread> helpers;
    helpers.reserve(static_cast<size_t>(parts - 1));
    for (int64_t p = 1; p < parts; ++p)
        helpers.emplace_back(fn, std::cref(conversion), in, out, height, width, rows * p / parts, rows * (p + 1) / parts);
    fn(conversion, in, out, height, width, 0, rows / parts);
    for (std::thread& t : helpers) t.join();
}

}  // namespace ML::OrtBackend
