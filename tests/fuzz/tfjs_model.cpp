// TensorFlow.js model files from anywhere: model.json (graph or layers model) and its weights,
// read and imported to ONNX. The input is the text of model.json, a zero byte, then the bytes
// every weight shard reads as. Any failure must be an exception with a message, never a crash,
// an endless loop or undefined behaviour.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "Tools/src/Import/Importer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const size_t split = bytes.find('\0');
    const std::string text = bytes.substr(0, split);
    const std::string shard = split == std::string::npos ? std::string() : bytes.substr(split + 1);
    try {
        const qpkg::tfjs::Model model =
            qpkg::tfjs::parseModel(text, "fuzz/model.json", [&](const std::filesystem::path&) { return shard; });
        qpkg::tfjs::importModel(model);
    } catch (const std::exception&) {
        // refused with a message: what a user would see as one error line
    }
    return 0;
}
