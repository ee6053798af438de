#pragma once
// Failures inside the backend, and the guard that turns every exception into an ML::Result so
// that nothing is thrown across the library border.
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include <onnxruntime_cxx_api.h>

#include "ML/Host.h"

namespace ML::OrtBackend {

// A failure with the status it ends in: 2 for problems of the model package, 4 otherwise.
class BackendError : public std::runtime_error {
public:
    BackendError(i32 status, const std::string& text) : std::runtime_error(text), status_(status) {}
    explicit BackendError(const std::string& text) : BackendError(STATUS_OTHER, text) {}
    i32 status() const { return status_; }

private:
    i32 status_;
};

// The status and text of the exception being handled; call only inside a catch block.
struct Failure {
    i32 status = STATUS_OTHER;
    std::string text;
};
Failure currentFailure() noexcept;

template <class T>
Result<T> failed(const Failure& failure) noexcept {
    Result<T> result;
    result.status = failure.status;
    try {
        result.error = makeString(failure.text);
    } catch (...) {
        // No memory for the text: the status alone still tells the caller.
    }
    return result;
}

// Runs body and gives its value as a Result; any exception becomes a failed Result.
template <class F>
auto guarded(F&& body) noexcept -> Result<decltype(body())> {
    using T = decltype(body());
    try {
        if constexpr (std::is_void_v<T>) {
            body();
            return {};
        } else {
            Result<T> result;
            result.value = body();
            return result;
        }
    } catch (...) {
        return failed<T>(currentFailure());
    }
}

}  // namespace ML::OrtBackend
