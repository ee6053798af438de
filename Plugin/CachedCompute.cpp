#include "Plugin/CachedCompute.h"

namespace ML {

Result<void> resultOfCurrentException() {
    Result<void> result;
    try {
        throw;
    } catch (const Exception& e) {
        result.status = e.code() == Exception::CANCEL ? STATUS_CANCELLED
                        : e.code() == Exception::HOST ? STATUS_HOST
                                                      : STATUS_OTHER;
        if (result.status != STATUS_CANCELLED) result.error = makeString(e.what());
    } catch (const std::exception& e) {
        result.status = STATUS_OTHER;
        result.error = makeString(e.what());
    } catch (...) {
        result.status = STATUS_OTHER;
        result.error = makeString("Unknown error");
    }
    return result;
}

}  // namespace ML
