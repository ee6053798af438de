#pragma once
// Shared helpers of the package tool's tests: host tensors, running written networks with
// ONNX Runtime, running the quillon-pkg executable.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "ML/Types.h"
#include "util/TempDir.h"

namespace tooltest {

namespace fs = std::filesystem;

// A tensor in host memory: element type (U8, I8, F16, F32, I32, I64), shape and the values as floats.
struct Tensor {
    ML::u32 type = ML::F32;
    std::vector<int64_t> shape;
    std::vector<float> values;
};

// Values rounded as the type stores them (F16 to nearest, U8, I32 and I64 truncated); zeros if none
// are given.
Tensor makeTensor(ML::u32 type, std::vector<int64_t> shape, std::vector<float> values = {});

// One written network, loaded into an ONNX Runtime CPU session.
class Network {
public:
    explicit Network(const fs::path& path);
    std::vector<Tensor> run(const std::vector<Tensor>& inputs);
    Tensor run1(const std::vector<Tensor>& inputs) { return run(inputs).at(0); }

    Ort::Session session;
};

// Folders of the default package that the test fixture writes.
fs::path packageConfigFolder();
fs::path packageModelFolder();

// Runs the quillon-pkg executable with the given arguments (already quoted as needed).
struct CliResult {
    int code = -1;
    std::string out, err;
};
CliResult runPkg(const std::string& args);

// All regular files below a folder, relative paths, sorted.
std::vector<std::string> listFiles(const fs::path& folder);

}  // namespace tooltest
