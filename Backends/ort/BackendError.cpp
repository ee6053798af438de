#include "BackendError.h"

namespace ML::OrtBackend {

Failure currentFailure() noexcept {
    Failure failure;
    try {
        try {
            throw;
        } catch (const BackendError& e) {
            failure.status = e.status();
            failure.text = e.what();
        } catch (const Ort::Exception& e) {
            failure.text = std::string("ONNX Runtime: ") + e.what();
        } catch (const std::bad_alloc&) {
            failure.text = "Out of memory";
        } catch (const std::exception& e) {
            failure.text = e.what();
        } catch (...) {
            failure.text = "Unknown failure";
        }
    } catch (...) {
        // Copying the text failed; the status is still right.
    }
    return failure;
}

}  // namespace ML::OrtBackend
