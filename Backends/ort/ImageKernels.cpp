#include "ImageKernels.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <type_traits>

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
using ResizeRowsFn = void (*)(const ImageResizeJob&, int64_t, int64_t);

// Threads that stay, waiting for pieces of one job at a time: starting threads for every call
// costs more than a 1080p conversion saves.
class RowPool {
public:
    // Runs piece(i) for every i in [0, pieces), on the calling thread and up to helpers others.
    // A job that finds the pool busy (kernels of another session) runs on its caller alone.
    void run(int64_t pieces, int helpers, const std::function<void(int64_t)>& piece) {
        std::unique_lock<std::mutex> job(jobMutex_, std::try_to_lock);
        if (!job || pieces < 2) {
            for (int64_t i = 0; i < pieces; ++i) piece(i);
            return;
        }
        std::unique_lock<std::mutex> lock(mutex_);
        while (static_cast<int>(threads_.size()) < helpers) threads_.emplace_back([this] { work(); });
        piece_ = &piece;
        next_ = 0;
        pieces_ = pieces;
        done_ = 0;
        ++generation_;
        wake_.notify_all();
        take(lock);
        finished_.wait(lock, [&] { return done_ == pieces_; });
        piece_ = nullptr;
    }

private:
    // Runs pieces until none is left; called with the lock held.
    void take(std::unique_lock<std::mutex>& lock) {
        while (piece_ && next_ < pieces_) {
            const int64_t i = next_++;
            const std::function<void(int64_t)>* piece = piece_;
            lock.unlock();
            (*piece)(i);
            lock.lock();
            if (++done_ == pieces_) finished_.notify_all();
        }
    }

    void work() {
        std::unique_lock<std::mutex> lock(mutex_);
        uint64_t seen = generation_;
        while (true) {
            wake_.wait(lock, [&] { return generation_ != seen; });
            seen = generation_;
            take(lock);
        }
    }

    std::mutex jobMutex_, mutex_;
    std::condition_variable wake_, finished_;
    std::vector<std::thread> threads_;
    const std::function<void(int64_t)>* piece_ = nullptr;
    int64_t next_ = 0, pieces_ = 0, done_ = 0;
    uint64_t generation_ = 0;
};

// Below this many elements per piece a split costs more than it saves.
constexpr int64_t kElementsPerPiece = 1 << 15;
// Pieces per thread: threads that finish early (or start late, on a busy machine) take more.
constexpr int64_t kPiecesPerThread = 4;

// Runs fn(first, last) over [0, rows) of elements in all on up to threads threads, the calling
// thread taking part, in pieces of at least kElementsPerPiece elements.
template <class F>
void splitRows(int64_t rows, int64_t elements, int threads, const F& fn) {
    threads = static_cast<int>(std::clamp<int64_t>(threads, 1, std::max<int64_t>(1, elements / kElementsPerPiece)));
    const int64_t parts = std::clamp<int64_t>(std::min(threads * kPiecesPerThread, elements / kElementsPerPiece), 1, rows);
    if (threads == 1 || parts == 1) {
        fn(0, rows);
        return;
    }
    // Never destroyed: its threads wait for the next job until the process ends.
    static RowPool* pool = new RowPool;
    pool->run(parts, threads - 1, [&](int64_t p) { fn(rows * p / parts, rows * (p + 1) / parts); });
}

// Source taps of each of out positions from in ones, half-pixel centres, clamped; the
// coordinate as ONNX's Resize defines it, (o + 0.5) / scale - 0.5 with scale = out / in.
std::vector<Tap> taps(int64_t in, int64_t out) {
    std::vector<Tap> t(static_cast<size_t>(out));
    const float scale = static_cast<float>(out) / static_cast<float>(in);
    for (int64_t o = 0; o < out; ++o) {
        const float s = std::clamp((static_cast<float>(o) + 0.5f) / scale - 0.5f, 0.0f, static_cast<float>(in - 1));
        const auto i0 = static_cast<int64_t>(std::floor(s));
        t[static_cast<size_t>(o)] = {i0, std::min(i0 + 1, in - 1), s - static_cast<float>(i0)};
    }
    return t;
}

RowsFn rowKernel() {
    static const RowsFn fn = imageKernelsVectorised() ? &avx2::convertRows : &plain::convertRows;
    return fn;
}

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
    splitRows(rows, elements, threads,
              [&](int64_t first, int64_t last) { fn(conversion, in, out, height, width, first, last); });
}

void resizeImage(PixelType type, bool planar, const void* input, void* output, int64_t batch, int64_t channels,
                 int64_t height, int64_t width, int64_t outHeight, int64_t outWidth, int threads, KernelVariant variant) {
    if (batch <= 0 || channels <= 0 || outHeight <= 0 || outWidth <= 0 || height <= 0 || width <= 0) return;
    static const ResizeRowsFn best = imageKernelsVectorised() ? &avx2::resizeRows : &plain::resizeRows;
    const ResizeRowsFn fn = variant == KernelVariant::Plain ? &plain::resizeRows : best;
    ImageResizeJob job;
    job.type = type;
    job.planar = planar;
    job.input = static_cast<const uint8_t*>(input);
    job.output = static_cast<uint8_t*>(output);
    job.channels = channels;
    job.inHeight = height;
    job.inWidth = width;
    job.outHeight = outHeight;
    job.outWidth = outWidth;
    job.rowTaps = taps(height, outHeight);
    job.columns = taps(width, outWidth);
    if ((planar || channels == 1) && width < (int64_t(1) << 30)) {
        for (const Tap& t : job.columns) job.columnWeights.push_back(t.w);
        for (int64_t g = 0; g + 8 <= outWidth; g += 8) {
            const int64_t base = job.columns[static_cast<size_t>(g)].i0;
            bool near = base + 16 <= width;
            for (int64_t k = 0; k < 8; ++k) {
                const Tap& t = job.columns[static_cast<size_t>(g + k)];
                near = near && t.i1 == t.i0 + 1 && t.i0 - base <= 14;
                job.groupOffsets.push_back(static_cast<int32_t>(t.i0 - base));
            }
            job.groupBases.push_back(near ? static_cast<int32_t>(base) : -1);
        }
        // Sampled more sparsely than that (shrinking by two or more), no group is near.
        if (std::all_of(job.groupBases.begin(), job.groupBases.end(), [](int32_t b) { return b < 0; }))
            job.groupBases.clear();
    }
    const int64_t rows = batch * (planar ? channels : 1) * outHeight;
    splitRows(rows, rows * outWidth * (planar ? 1 : channels), threads,
              [&](int64_t first, int64_t last) { fn(job, first, last); });
}

void copyBytes(void* output, const void* input, uint64_t bytes, int threads) {
    // Pieces of whole 64-byte lines, at least kElementsPerPiece of 16 bytes each.
    constexpr int64_t kLine = 64;
    const auto* in = static_cast<const uint8_t*>(input);
    auto* out = static_cast<uint8_t*>(output);
    const auto lines = static_cast<int64_t>(bytes / kLine);
    splitRows(lines, lines * (kLine / 16), threads, [&](int64_t first, int64_t last) {
        const uint64_t end = last == lines ? bytes : static_cast<uint64_t>(last * kLine);
        std::memcpy(out + first * kLine, in + first * kLine, end - static_cast<uint64_t>(first * kLine));
    });
    if (lines == 0 && bytes) std::memcpy(out, in, bytes);
}

}  // namespace ML::OrtBackend
