#include "Host/Cli/CliError.h"

#include <cctype>

#include "ML/Exception.h"

namespace QCli {

namespace {

// Length of a leading "SOURCE/CODE: ", or 0.
size_t codePrefixLength(const std::string& text) {
    for (ML::u32 source : {ML::Exception::BACKEND, ML::Exception::PLUGIN}) {
        for (ML::u32 code : {ML::Exception::INTERNAL, ML::Exception::HOST, ML::Exception::CANCEL}) {
            const std::string prefix =
                std::string(ML::Exception::sourceText(source)) + "/" + ML::Exception::codeText(code) + ": ";
            if (text.compare(0, prefix.size(), prefix) == 0) return prefix.size();
        }
    }
    return 0;
}

// Length of a leading "path/of/source:123: ", or 0. A path has no spaces.
size_t locationLength(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == 0 || colon == std::string::npos) return 0;
    for (size_t i = 0; i < colon; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (!std::isalnum(c) && c != '_' && c != '/' && c != '.' && c != '-') return 0;
    }
    size_t end = colon + 1;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
    if (end == colon + 1 || text.compare(end, 2, ": ") != 0) return 0;
    return end + 2;
}

}  // namespace

std::string plainReason(const std::string& text, const std::string& named) {
    std::string reason = text;
    for (;;) {
        const size_t code = codePrefixLength(reason);
        const size_t cut = code + locationLength(reason.substr(code));
        if (cut == 0) break;
        reason.erase(0, cut);
    }
    if (!named.empty()) {
        const size_t at = reason.rfind(named + ": ");
        if (at != std::string::npos) reason.erase(0, at + named.size() + 2);
    }
    return reason;
}

CliError CliError::because(int exitCode, const std::string& what, const std::string& causeText,
                           const std::string& named) {
    return CliError(exitCode, what + ": " + plainReason(causeText, named), causeText);
}

CliError CliError::because(int exitCode, const std::string& what, const std::exception& cause,
                           const std::string& named) {
    return because(exitCode, what, std::string(cause.what()), named);
}

}  // namespace QCli
