#include "Plugin/JsonBuffer.h"

#include <cstring>

#include "ML/Exception.h"

namespace ML {

std::string jsonBufferBytes(const nlohmann::json& value) {
    std::string bytes = value.dump();
    bytes.push_back('\0');
    return bytes;
}

void writeJsonBuffer(Buffer& buffer, const nlohmann::json& value) {
    const std::string bytes = jsonBufferBytes(value);
    buffer.resize(bytes.size());
    if (buffer.getSize() != bytes.size() || !buffer.getData())
        ML_THROW("Could not resize JSON output buffer to " + std::to_string(bytes.size()) + " bytes");
    std::memcpy(buffer.getData(), bytes.data(), bytes.size());
}

}  // namespace ML
