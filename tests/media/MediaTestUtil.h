#pragma once
// Helpers of the media tests: a scratch folder and test pictures.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <string>

#include "Host/Media/Frame.h"

namespace QMediaTest {

namespace fs = std::filesystem;

// A fresh folder, removed with everything in it.
class TempDir {
public:
    TempDir() {
        static std::atomic<int> counter{0};
        std::random_device rd;
        path_ = fs::temp_directory_path() /
                ("quillon-media-" + std::to_string(rd()) + "-" + std::to_string(counter.fetch_add(1)));
        fs::create_directories(path_);
    }
    ~TempDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

    // Names of everything in the folder, hidden files included.
    std::set<std::string> entries() const {
        std::set<std::string> names;
        for (const auto& e : fs::directory_iterator(path_)) names.insert(e.path().filename().string());
        return names;
    }

private:
    fs::path path_;
};

// Smooth ramps per channel with a frame-dependent offset, so that frames differ.
inline QMedia::Frame gradient(int width, int height, int channels, ML::DataType type, int seed = 0) {
    QMedia::Frame f(width, height, channels, type);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < channels; ++c) {
                const float v = c == 0 ? float(x) / float(width - 1 > 0 ? width - 1 : 1)
                              : c == 1 ? float(y) / float(height - 1 > 0 ? height - 1 : 1)
                              : c == 2 ? std::fmod(0.15f * float(seed) + 0.1f, 1.0f)
                                       : 0.25f + 0.5f * float((x + y) % 2);
                f.setSample(x, y, c, v);
            }
    return f;
}

// Largest and mean absolute difference of all samples (as floats); frames must match in shape.
struct Difference {
    float max = 0.0f;
    float mean = 0.0f;
};

inline Difference difference(const QMedia::Frame& a, const QMedia::Frame& b) {
    Difference d;
    EXPECT_EQ(a.width(), b.width());
    EXPECT_EQ(a.height(), b.height());
    EXPECT_EQ(a.channels(), b.channels());
    if (a.width() != b.width() || a.height() != b.height() || a.channels() != b.channels()) {
        d.max = d.mean = INFINITY;
        return d;
    }
    double sum = 0.0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            for (int c = 0; c < a.channels(); ++c) {
                const float e = std::fabs(a.sample(x, y, c) - b.sample(x, y, c));
                d.max = std::max(d.max, e);
                sum += e;
            }
    d.mean = float(sum / (double(a.width()) * a.height() * a.channels()));
    return d;
}

// True when the ffmpeg command-line tool can be run.
inline bool haveFfmpegTool() {
    static const bool have = std::system("ffmpeg -version > /dev/null 2>&1") == 0;
    return have;
}

// Runs ffmpeg quietly with the given arguments; true on success.
inline bool runFfmpeg(const std::string& args) {
    return std::system(("ffmpeg -nostdin -v error -y " + args + " > /dev/null 2>&1").c_str()) == 0;
}

// Writes `text` as a file.
void writeText(const fs::path& path, const std::string& text);

// Lowers the largest file this process may write until destroyed, so that writers fail
// part-way as on a full disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(long bytes);
    ~FileSizeLimit();

private:
    long long previous_;
};

}  // namespace QMediaTest
