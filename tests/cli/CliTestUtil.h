#pragma once
// Running the quillon executable from tests, and small image helpers.
#include <filesystem>
#include <string>
#include <vector>

#include "Host/Media/Frame.h"

namespace CliTest {

struct RunResult {
    int exitCode = -1;
    std::string output;  // stdout and stderr together
};

// Runs bin/quillon with the arguments (a shell command line fragment) and the test package.
RunResult runQuillon(const std::string& arguments);

std::string quote(const std::filesystem::path& path);

// A frame of one colour, RGB U8.
QMedia::Frame solidFrame(int width, int height, float value);
// A horizontal ramp from 0 on the left to 1 on the right, RGB U8.
QMedia::Frame rampFrame(int width, int height);

// Files in a folder, sorted by name.
std::vector<std::string> filesIn(const std::filesystem::path& folder);

}  // namespace CliTest
