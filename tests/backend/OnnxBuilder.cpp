#include "OnnxBuilder.h"

#include <onnx/defs/parser.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace TestNetworks {

namespace {

// Parses a network in the ONNX text syntax and writes it.
void save(const std::string& text, const std::filesystem::path& file) {
    onnx::ModelProto model;
    const auto status = onnx::OnnxParser::Parse(model, ("<ir_version: 8, opset_import: [\"\" : 17]>\n" + text).c_str());
    if (!status.IsOK()) throw std::runtime_error("Bad test network: " + status.ErrorMessage());
    std::filesystem::create_directories(file.parent_path());
    std::ofstream out(file, std::ios::binary);
    if (!out || !model.SerializeToOstream(&out)) throw std::runtime_error("Could not write " + file.string());
}

}  // namespace

void writeCastAddNetwork(const std::filesystem::path& file, float addend) {
    std::ostringstream text;
    text.precision(9);
    text << "test (float16[1,3,height,width] x) => (float16[1,3,height,width] y) {\n"
         << "  addend = Constant <value = float {" << addend << "}> ()\n"
         << "  x32 = Cast <to = 1> (x)\n  y32 = Add (x32, addend)\n  y = Cast <to = 10> (y32)\n}\n";
    save(text.str(), file);
}

void writeSumNetwork(const std::filesystem::path& file) {
    save("test (float[1,4] a, float[1,4] b) => (float[1,4] sum) {\n  sum = Add (a, b)\n}\n", file);
}

}  // namespace TestNetworks
