#pragma once
// Helpers of the media tests: test pictures, folder listings and failure helpers.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "Host/Media/Frame.h"
#include "ML/Exception.h"
#include "util/TempDir.h"

namespace QMediaTest {

namespace fs = std::filesystem;

// Names of everything in a folder, hidden files included.
inline std::set<std::string> entries(const fs::path& folder) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(folder)) names.insert(e.path().filename().string());
    return names;
}

// Smooth ramps per channel with a frame-dependent offset, so that frames differ.
inline QMedia::Frame gradient(int width, int height, int channels, ML::DataType type, int seed = 0) {
    QMedia::Frame f(width, height, channels, type);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                const float v = c == 0 ? float(x) / float(std::max(width - 1, 1))
                              : c == 1 ? float(y) / float(std::max(height - 1, 1))
                              : c == 2 ? std::fmod(0.15f * float(seed) + 0.1f, 1.0f)
                                       : 0.25f + 0.5f * float((x + y) % 2);
                f.setSample(x, y, c, v);
            }
    return f;
}

// Largest and mean absolute difference of all samples (as floats); infinite when the shapes differ.
struct Difference {
    float max = 0.0f, mean = 0.0f;
};
inline Difference difference(const QMedia::Frame& a, const QMedia::Frame& b) {
    if (a.width() != b.width() || a.height() != b.height() || a.channels() != b.channels()) return {INFINITY, INFINITY};
    Difference d;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            for (int c = 0; c < a.channels(); ++c) {
                const float e = std::fabs(a.sample(x, y, c) - b.sample(x, y, c));
                d.max = std::max(d.max, e);
                d.mean += e / float(a.width() * a.height() * a.channels());
            }
    return d;
}

// The message of the ML::Exception that f throws; "<no exception>" when it returns.
template <class F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const ML::Exception& e) {
        return e.what();
    }
    return "<no exception>";
}

// Runs the ffmpeg command-line tool quietly with the given arguments; true on success.
inline bool runFfmpeg(const std::string& args) {
    return std::system(("ffmpeg -nostdin -v error -y " + args + " > /dev/null 2>&1").c_str()) == 0;
}

inline void writeText(const fs::path& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Lowers the largest file this process may write until destroyed, so that writers fail
// part-way as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(long bytes) {
        std::signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails instead of killing us
        getrlimit(RLIMIT_FSIZE, &previous_);
        rlimit limit = previous_;
        limit.rlim_cur = static_cast<rlim_t>(bytes);
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &previous_); }

private:
    rlimit previous_{};
};

}  // namespace QMediaTest
