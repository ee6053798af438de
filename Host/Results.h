#pragma once
// Small makers of ML::Result records for the host side: a success with its value, or a failure
// with a status and a text.
#include <string>
#include <utility>

#include "ML/Host.h"

namespace QHost {

template <class T>
ML::Result<T> resultOk(T value) {
    ML::Result<T> result;
    result.value = std::move(value);
    return result;
}

// status: 1 cancelled, 2 failure on the host's side, 4 any other failure.
template <class T>
ML::Result<T> resultFailure(ML::i32 status, const std::string& text) {
    ML::Result<T> result;
    result.status = status;
    result.error = ML::makeString(text);
    return result;
}

}  // namespace QHost
