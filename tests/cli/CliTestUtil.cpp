#include "CliTestUtil.h"

#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace CliTest {

std::string quote(const std::filesystem::path& path) { return "'" + path.string() + "'"; }

RunResult runQuillon(const std::string& arguments) {
    const std::string command = quote(std::filesystem::path(QUILLON_BIN_DIR) / "quillon") + " --package " +
                                quote(QUILLON_TEST_PACKAGE_DIR) + " " + arguments + " 2>&1";
    RunResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> chunk{};
    while (std::fgets(chunk.data(), static_cast<int>(chunk.size()), pipe)) result.output += chunk.data();
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

QMedia::Frame solidFrame(int width, int height, float value) {
    QMedia::Frame frame(width, height, 3, ML::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, value);
    return frame;
}

QMedia::Frame rampFrame(int width, int height) {
    QMedia::Frame frame(width, height, 3, ML::U8);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < 3; ++c) frame.setSample(x, y, c, static_cast<float>(x) / (width - 1));
    return frame;
}

std::vector<std::string> filesIn(const std::filesystem::path& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace CliTest
