#include "Host/Media/SequencePattern.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>

#include "ML/Exception.h"

namespace fs = std::filesystem;

namespace QMedia {
namespace {

// One parse of a file name: the text around the placeholder and its padding.
struct Parsed {
    std::string prefix;
    std::string suffix;
    int padding = 0;
    int placeholders = 0;
    std::string error;  // a bad directive
};

constexpr int kMaxPadding = 32;

Parsed parse(const std::string& name) {
    Parsed p;
    std::string* out = &p.prefix;
    size_t i = 0;
    while (i < name.size()) {
        const char ch = name[i];
        if (ch == '%') {
            if (i + 1 < name.size() && name[i + 1] == '%') {
                *out += '%';
                i += 2;
                continue;
            }
            size_t j = i + 1;
            std::string width;
            while (j < name.size() && name[j] >= '0' && name[j] <= '9') width += name[j++];
            // Only zero padding: "%4d" would pad with spaces, which no file name wants.
            const bool valid =
                j < name.size() && name[j] == 'd' && (width.empty() || (width[0] == '0' && width.size() <= 3));
            if (!valid) {
                p.error = "unsupported directive \"" + name.substr(i, std::min(j + 1, name.size()) - i) +
                          "\" (use %d, %0Nd or #)";
                return p;
            }
            p.padding = width.empty() ? 0 : std::atoi(width.c_str());
            ++p.placeholders;
            out = &p.suffix;
            i = j + 1;
        } else if (ch == '#') {
            size_t j = i;
            while (j < name.size() && name[j] == '#') ++j;
            p.padding = static_cast<int>(j - i);
            ++p.placeholders;
            out = &p.suffix;
            i = j;
        } else {
            *out += ch;
            ++i;
        }
    }
    return p;
}

std::string paddedNumber(int frame, int padding) {
    const long long value = frame;
    std::string digits = std::to_string(value < 0 ? -value : value);
    const int width = padding - (value < 0 ? 1 : 0);
    if (static_cast<int>(digits.size()) < width) digits.insert(0, static_cast<size_t>(width) - digits.size(), '0');
    return value < 0 ? "-" + digits : digits;
}

}  // namespace

SequencePattern::SequencePattern(const fs::path& pattern) : pattern_(pattern) {
    const std::string name = pattern.filename().string();
    const Parsed p = parse(name);
    if (!p.error.empty()) ML_THROW("Bad sequence pattern " + pattern.string() + ": " + p.error);
    if (p.placeholders == 0)
        ML_THROW("Sequence pattern has no frame number: " + pattern.string() +
                 " (put %04d, %d or #### where the number goes)");
    if (p.placeholders > 1)
        ML_THROW("Sequence pattern has more than one frame number: " + pattern.string());
    if (p.padding > kMaxPadding)
        ML_THROW("Sequence pattern pads to too many digits: " + pattern.string());
    prefix_ = p.prefix;
    suffix_ = p.suffix;
    padding_ = p.padding;
    folder_ = pattern.parent_path();
}

bool SequencePattern::isPattern(const fs::path& path) {
    const Parsed p = parse(path.filename().string());
    return p.error.empty() && p.placeholders == 1 && p.padding <= kMaxPadding;
}

fs::path SequencePattern::pathFor(int frame) const {
    return folder_ / (prefix_ + paddedNumber(frame, padding_) + suffix_);
}

std::optional<int> SequencePattern::frameOf(const std::string& fileName) const {
    if (fileName.size() <= prefix_.size() + suffix_.size()) return std::nullopt;
    if (fileName.compare(0, prefix_.size(), prefix_) != 0) return std::nullopt;
    if (fileName.compare(fileName.size() - suffix_.size(), suffix_.size(), suffix_) != 0) return std::nullopt;
    const std::string number = fileName.substr(prefix_.size(), fileName.size() - prefix_.size() - suffix_.size());
    const size_t start = number[0] == '-' ? 1 : 0;
    // A 32-bit frame has at most 11 characters, more only as zero padding.
    const size_t longest = std::max<size_t>(11, static_cast<size_t>(padding_));
    if (start == number.size() || number.size() > longest) return std::nullopt;
    for (size_t i = start; i < number.size(); ++i)
        if (number[i] < '0' || number[i] > '9') return std::nullopt;
    errno = 0;
    const long long value = std::strtoll(number.c_str(), nullptr, 10);
    if (errno != 0 || value < INT32_MIN || value > INT32_MAX) return std::nullopt;
    const int frame = static_cast<int>(value);
    // Only the spelling this pattern produces counts: "frame.1.exr" is not frame 1 of "%04d".
    if (paddedNumber(frame, padding_) != number) return std::nullopt;
    return frame;
}

std::vector<int> SequencePattern::framesOnDisk() const {
    std::vector<int> frames;
    const fs::path folder = folder_.empty() ? fs::path(".") : folder_;
    std::error_code ec;
    fs::directory_iterator it(folder, ec);
    if (ec) return frames;
    for (; it != fs::directory_iterator(); it.increment(ec)) {
        if (ec) break;
        std::error_code typeError;
        if (!it->is_regular_file(typeError)) continue;
        if (auto frame = frameOf(it->path().filename().string())) frames.push_back(*frame);
    }
    std::sort(frames.begin(), frames.end());
    return frames;
}

std::optional<FrameRange> SequencePattern::rangeOnDisk() const {
    const std::vector<int> frames = framesOnDisk();
    if (frames.empty()) return std::nullopt;
    return FrameRange{frames.front(), frames.back()};
}

}  // namespace QMedia
