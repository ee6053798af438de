#pragma once
// Running the quillon executable from tests, and small image helpers.
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "Host/Media/Frame.h"

namespace CliTest {

struct RunResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

inline std::string quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

// Runs bin/quillon with the package given (the test package by default) and the arguments (a
// shell command line fragment).
inline RunResult runQuillon(const std::string& arguments, const std::filesystem::path& package = QUILLON_TEST_PACKAGE_DIR) {
    const std::string command = quote(std::filesystem::path(QUILLON_BIN_DIR) / "quillon") + " --package " +
                                quote(package) + " " + arguments + " 2>&1";
    RunResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> chunk{};
    while (std::fgets(chunk.data(), static_cast<int>(chunk.size()), pipe)) result.output += chunk.data();
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// An RGB U8 frame: one grey level, or (level < 0) a horizontal ramp from 0 on the left to 1 on
// the right.
inline QMedia::Frame greyFrame(int width, int height, float level) {
    QMedia::Frame frame(width, height, 3, ML::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, level >= 0 ? level : float(x) / float(width - 1));
    return frame;
}

// Files in a folder, sorted by name.
inline std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace CliTest
