#pragma once
// The command line of quillon-pkg.
#include <ostream>
#include <string>
#include <vector>

namespace qpkg {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;  // a file or folder could not be written
constexpr int kExitUsage = 2;    // bad arguments

std::string usageText();

// Runs one command (args without the program name). Errors are one line on err.
int runCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace qpkg
