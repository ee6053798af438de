#pragma once
// Conversions between host buffers and text, for JSON results and test inputs.
#include <string>

#include "ML/Buffer.h"

namespace QHost {

// The buffer's bytes up to its first zero byte (or all of them); a null buffer gives "".
std::string bufferText(const ML::Ptr<ML::Buffer>& buffer);

// All bytes of the buffer, zero bytes included; a null buffer gives "".
std::string bufferBytes(const ML::Ptr<ML::Buffer>& buffer);

// A new buffer holding the bytes of text; with terminate, followed by one zero byte.
ML::Ptr<ML::Buffer> makeBuffer(const std::string& text, bool terminate = false);

}  // namespace QHost
