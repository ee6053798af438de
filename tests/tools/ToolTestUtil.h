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

// One written network, loaded into an ONNX Runtime CPU session that knows the fused operators.
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
// A network of the default package by its file name without ".onnx" (e.g. "imgcvt/blend_F32_1x3x384x384").
inline Network packageNetwork(const std::string& name) { return Network(packageModelFolder() / (name + ".onnx")); }


// A 1x3xHxW picture, and its element (c, y, x).
inline Tensor planar(int64_t h, int64_t w, std::vector<float> v, ML::u32 type = ML::F32) {
    return makeTensor(type, {1, 3, h, w}, std::move(v));
}
inline float& pixel(Tensor& t, int64_t c, int64_t y, int64_t x) {
    return t.values[static_cast<size_t>((c * t.shape[2] + y) * t.shape[3] + x)];
}
inline float pixel(const Tensor& t, int64_t c, int64_t y, int64_t x) { return pixel(const_cast<Tensor&>(t), c, y, x); }
// The window of h x w at (y0, x0) of every channel of a 1xCxHxW tensor.
Tensor crop(const Tensor& t, int64_t y0, int64_t x0, int64_t h, int64_t w);

// n deterministic values, uniform in lo..hi.
std::vector<float> randomValues(size_t n, unsigned seed, float lo = -1.0f, float hi = 1.0f);

// Model folders of the helper networks in both forms: "fused" (the default package's) and
// "portable" (standard operators only: quillon-pkg imgcvt --portable, written once per process).
struct PackageForm {
    const char* name;
    fs::path models;
};
std::vector<PackageForm> packageForms();

// Runs the quillon-pkg executable with the given arguments (already quoted as needed).
struct CliResult {
    int code = -1;
    std::string out, err;
};
CliResult runPkg(const std::string& args);

// All regular files below a folder, relative paths, sorted.
std::vector<std::string> listFiles(const fs::path& folder);

}  // namespace tooltest
