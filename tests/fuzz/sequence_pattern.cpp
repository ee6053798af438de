// A numbered sequence given on the command line ("shot/frame.%04d.exr", "a.####.png"): the first
// line of the input; the second is a file name met in the pattern's folder.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "Host/Media/SequencePattern.h"
#include "ML/Exception.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace fs = std::filesystem;
    const char* text = reinterpret_cast<const char*>(data);
    const std::string input(text, size);
    const size_t newline = input.find('\n');
    const std::string patternText = input.substr(0, std::min(newline, strnlen(text, size)));
    const std::string fileName = newline == std::string::npos ? "" : input.substr(newline + 1);

    const fs::path path(patternText);
    const bool accepted = QMedia::SequencePattern::isPattern(path);
    std::optional<QMedia::SequencePattern> pattern;
    try {
        pattern.emplace(path);
    } catch (const ML::Exception&) {
        if (accepted) __builtin_trap();  // isPattern promised the constructor would take it
        return 0;
    }
    if (!accepted) __builtin_trap();

    // Every frame's file lies in the pattern's folder and is recognised as that frame.
    for (int frame : {0, 7, -1, -12345, 99999, INT_MAX, INT_MIN}) {
        const fs::path file = pattern->pathFor(frame);
        if (file.parent_path() != path.parent_path()) __builtin_trap();
        if (pattern->frameOf(file.filename().string()) != frame) __builtin_trap();
    }
    // A name is a frame only if it is exactly the name of that frame.
    if (const auto frame = pattern->frameOf(fileName))
        if (pattern->pathFor(*frame).filename().string() != fileName) __builtin_trap();
    return 0;
}
