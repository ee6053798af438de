#pragma once
// A failure that ends the command with a message and an exit code.
#include <stdexcept>
#include <string>

#include "Host/Cli/ExitCodes.h"

namespace QCli {

class CliError : public std::runtime_error {
public:
    // message: the one plain line a user reads. detail: the internal text behind it (codes and
    // source locations), shown with -v.
    CliError(int exitCode, const std::string& message, std::string detail = "")
        : std::runtime_error(message), exitCode_(exitCode), detail_(std::move(detail)) {}
    int exitCode() const { return exitCode_; }
    const std::string& detail() const { return detail_; }

    // "<what>: <plain reason of cause>", keeping the cause's whole text as the detail. named: a file
    // that what already names; the reason does not repeat it ("cannot read input x.png: Not a PNG
    // file", not "...: Could not read image x.png: Not a PNG file").
    static CliError because(int exitCode, const std::string& what, const std::exception& cause,
                            const std::string& named = "");
    static CliError because(int exitCode, const std::string& what, const std::string& causeText,
                            const std::string& named = "");

private:
    int exitCode_;
    std::string detail_;
};

// A bad command line.
class UsageError : public CliError {
public:
    explicit UsageError(const std::string& message) : CliError(EXIT_USAGE, message) {}
};

// An error text as a user reads it: without the "SOURCE/CODE: " in front of the plug-in's and
// the media library's errors, and without the source location ("Host/Media/ImageReader:55: ").
// named: a file the reader already knows of; whatever comes before "<named>: " is dropped too.
std::string plainReason(const std::string& text, const std::string& named = "");

}  // namespace QCli
