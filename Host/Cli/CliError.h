#pragma once
// A failure that ends the command with a message and an exit code.
#include <stdexcept>
#include <string>

#include "Host/Cli/ExitCodes.h"

namespace QCli {

class CliError : public std::runtime_error {
public:
    CliError(int exitCode, const std::string& message) : std::runtime_error(message), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

// A bad command line.
class UsageError : public CliError {
public:
    explicit UsageError(const std::string& message) : CliError(EXIT_USAGE, message) {}
};

}  // namespace QCli
