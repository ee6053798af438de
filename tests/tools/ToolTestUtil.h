#pragma once
// Shared helpers of the package tool's tests: host tensors, running written networks with
// ONNX Runtime, running the quillon-pkg executable, temporary folders.
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <onnxruntime_cxx_api.h>

#include "ML/Types.h"

namespace tooltest {

namespace fs = std::filesystem;

// A tensor in host memory: element type (U8, F16, F32, I64), shape and raw bytes.
struct Tensor {
    ML::u32 type = ML::F32;
    std::vector<int64_t> shape;
    std::vector<uint8_t> bytes;

    size_t count() const;
    // Element i as a float: U8 as its integer value, F16 widened.
    float get(size_t i) const;
    // Stores v into element i: U8 takes the integer part, F16 rounds to nearest.
    void set(size_t i, float v);
};

Tensor makeTensor(ML::u32 type, std::vector<int64_t> shape);
Tensor makeI64(const std::vector<int64_t>& values);
Tensor makeF32(const std::vector<int64_t>& shape, const std::vector<float>& values);
// U8: every value 0..255; floats: uniform in [lo, hi).
void fillRandom(Tensor& t, std::mt19937& rng, float lo = 0.0f, float hi = 1.0f);

// One written network, loaded into an ONNX Runtime CPU session.
class Network {
public:
    explicit Network(const fs::path& path);
    size_t inputCount() const { return session_.GetInputCount(); }
    size_t outputCount() const { return session_.GetOutputCount(); }
    std::vector<Tensor> run(const std::vector<Tensor>& inputs);

private:
    Ort::Session session_;
    std::vector<std::string> inputNames_;
    std::vector<std::string> outputNames_;
};

// Folders of the default package that the test fixture writes.
fs::path packageConfigFolder();
fs::path packageModelFolder();

// Runs the quillon-pkg executable with the given arguments (already quoted as needed).
struct CliResult {
    int code = -1;
    std::string out;
    std::string err;
};
CliResult runPkg(const std::string& args);

// A fresh empty folder, removed with everything in it at the end of the scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

// All regular files below a folder, relative paths, sorted.
std::vector<std::string> listFiles(const fs::path& folder);

}  // namespace tooltest
