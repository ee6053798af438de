#pragma once
// JSON results as the host receives them: compact text (no indentation; object keys come out
// sorted) followed by one zero byte, in an output buffer sized to the text's length plus 1.
#include <string>

#include <nlohmann/json.hpp>

#include "ML/Buffer.h"

namespace ML {

// The bytes the buffer will hold: the compact text and its terminating zero (size = length + 1).
std::string jsonBufferBytes(const nlohmann::json& value);

// Resizes `buffer` to the text's length plus 1 and stores the text with its terminating zero.
void writeJsonBuffer(Buffer& buffer, const nlohmann::json& value);

}  // namespace ML
