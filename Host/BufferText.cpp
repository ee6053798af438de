#include "Host/BufferText.h"

#include <cstring>
#include <stdexcept>

namespace QHost {

std::string bufferBytes(const ML::Ptr<ML::Buffer>& buffer) {
    if (!buffer || buffer->getSize() == 0 || !buffer->getData()) return {};
    return std::string(static_cast<const char*>(buffer->getData()), buffer->getSize());
}

std::string bufferText(const ML::Ptr<ML::Buffer>& buffer) {
    std::string bytes = bufferBytes(buffer);
    const auto zero = bytes.find('\0');
    if (zero != std::string::npos) bytes.resize(zero);
    return bytes;
}

ML::Ptr<ML::Buffer> makeBuffer(const std::string& text, bool terminate) {
    const ML::u64 size = text.size() + (terminate ? 1 : 0);
    ML::Ptr<ML::Buffer> buffer(new ML::BufferImp(size));
    if (size && !buffer->getData()) throw std::bad_alloc();
    if (!text.empty()) std::memcpy(buffer->getData(), text.data(), text.size());
    if (terminate) static_cast<char*>(buffer->getData())[text.size()] = '\0';
    return buffer;
}

}  // namespace QHost
