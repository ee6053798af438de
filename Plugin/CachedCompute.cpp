#include "Plugin/CachedCompute.h"

#include <cctype>
#include <string>

namespace ML {

namespace {
// Texts of our own exceptions start with "Dir/File:line: "; others get a location here.
std::string withLocation(const std::string& text, int line) {
    const auto colon = text.find(':');
    const bool located = colon != std::string::npos && text.find('/') < colon && colon + 1 < text.size() &&
                         std::isdigit(static_cast<unsigned char>(text[colon + 1]));
    return located ? text : ML::located(__FILE__, line, text);
}
}  // namespace

Result<void> resultOfCurrentException() {
    Result<void> result;
    try {
        throw;
    } catch (const Exception& e) {
        result.status = e.code() == Exception::CANCEL ? STATUS_CANCELLED
                        : e.code() == Exception::HOST ? STATUS_HOST
                                                      : STATUS_OTHER;
        if (result.status != STATUS_CANCELLED) result.error = makeString(withLocation(e.what(), __LINE__));
    } catch (const std::exception& e) {
        result.status = STATUS_OTHER;
        result.error = makeString(withLocation(e.what(), __LINE__));
    } catch (...) {
        result.status = STATUS_OTHER;
        result.error = makeString(withLocation("Unknown error", __LINE__));
    }
    return result;
}

}  // namespace ML
