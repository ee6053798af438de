#include "ToolTestUtil.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include <sys/wait.h>

#include <Imath/half.h>

// ONNX Runtime keeps a few bytes from creating its environment until the process ends; that is
// its own business, not a leak of the code under test.
extern "C" __attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libonnxruntime.so\n";
}

namespace tooltest {

namespace {

size_t elementSize(ML::u32 type) {
    switch (type) {
        case ML::U8: return 1;
        case ML::F16: return 2;
        case ML::F32: return 4;
        case ML::I64: return 8;
        default: throw std::logic_error("unsupported test tensor type");
    }
}

ONNXTensorElementDataType ortType(ML::u32 type) {
    switch (type) {
        case ML::U8: return ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8;
        case ML::F16: return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16;
        case ML::F32: return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
        case ML::I64: return ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64;
        default: throw std::logic_error("unsupported test tensor type");
    }
}

ML::u32 mlType(ONNXTensorElementDataType type) {
    switch (type) {
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8: return ML::U8;
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16: return ML::F16;
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT: return ML::F32;
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64: return ML::I64;
        default: throw std::logic_error("unexpected output element type");
    }
}

Ort::Env& env() {
    static Ort::Env e(ORT_LOGGING_LEVEL_WARNING, "quillon-pkg-tests");
    return e;
}

Ort::SessionOptions sessionOptions() {
    Ort::SessionOptions o;
    o.SetIntraOpNumThreads(1);
    o.SetInterOpNumThreads(1);
    return o;
}

std::string readAll(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

size_t Tensor::count() const {
    size_t n = 1;
    for (int64_t d : shape) n *= static_cast<size_t>(d);
    return n;
}

float Tensor::get(size_t i) const {
    const uint8_t* p = bytes.data() + i * elementSize(type);
    switch (type) {
        case ML::U8: return *p;
        case ML::F16: {
            uint16_t bits;
            std::memcpy(&bits, p, 2);
            Imath::half h;
            h.setBits(bits);
            return static_cast<float>(h);
        }
        case ML::F32: {
            float f;
            std::memcpy(&f, p, 4);
            return f;
        }
        default: {
            int64_t v;
            std::memcpy(&v, p, 8);
            return static_cast<float>(v);
        }
    }
}

void Tensor::set(size_t i, float v) {
    uint8_t* p = bytes.data() + i * elementSize(type);
    switch (type) {
        case ML::U8: *p = static_cast<uint8_t>(v); break;
        case ML::F16: {
            const uint16_t bits = Imath::half(v).bits();
            std::memcpy(p, &bits, 2);
            break;
        }
        case ML::F32: std::memcpy(p, &v, 4); break;
        default: {
            const int64_t x = static_cast<int64_t>(v);
            std::memcpy(p, &x, 8);
        }
    }
}

Tensor makeTensor(ML::u32 type, std::vector<int64_t> shape) {
    Tensor t;
    t.type = type;
    t.shape = std::move(shape);
    t.bytes.assign(t.count() * elementSize(type), 0);
    return t;
}

Tensor makeI64(const std::vector<int64_t>& values) {
    Tensor t = makeTensor(ML::I64, {static_cast<int64_t>(values.size())});
    std::memcpy(t.bytes.data(), values.data(), values.size() * 8);
    return t;
}

Tensor makeF32(const std::vector<int64_t>& shape, const std::vector<float>& values) {
    Tensor t = makeTensor(ML::F32, shape);
    if (values.size() != t.count()) throw std::logic_error("makeF32: wrong number of values");
    for (size_t i = 0; i < values.size(); ++i) t.set(i, values[i]);
    return t;
}

void fillRandom(Tensor& t, std::mt19937& rng, float lo, float hi) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::uniform_real_distribution<float> real(lo, hi);
    for (size_t i = 0; i < t.count(); ++i) t.set(i, t.type == ML::U8 ? static_cast<float>(byte(rng)) : real(rng));
}

Network::Network(const fs::path& path) : session_(env(), path.c_str(), sessionOptions()) {
    Ort::AllocatorWithDefaultOptions alloc;
    for (size_t i = 0; i < session_.GetInputCount(); ++i)
        inputNames_.emplace_back(session_.GetInputNameAllocated(i, alloc).get());
    for (size_t i = 0; i < session_.GetOutputCount(); ++i)
        outputNames_.emplace_back(session_.GetOutputNameAllocated(i, alloc).get());
}

std::vector<Tensor> Network::run(const std::vector<Tensor>& inputs) {
    const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    std::vector<Ort::Value> values;
    std::vector<const char*> inNames, outNames;
    for (size_t i = 0; i < inputs.size(); ++i) {
        Tensor& t = const_cast<Tensor&>(inputs[i]);
        values.push_back(Ort::Value::CreateTensor(mem, t.bytes.data(), t.bytes.size(), t.shape.data(), t.shape.size(),
                                                  ortType(t.type)));
        inNames.push_back(inputNames_.at(i).c_str());
    }
    for (const std::string& n : outputNames_) outNames.push_back(n.c_str());
    std::vector<Ort::Value> outs =
        session_.Run(Ort::RunOptions{nullptr}, inNames.data(), values.data(), values.size(), outNames.data(), outNames.size());
    std::vector<Tensor> result;
    for (Ort::Value& v : outs) {
        const Ort::TensorTypeAndShapeInfo info = v.GetTensorTypeAndShapeInfo();
        Tensor t = makeTensor(mlType(info.GetElementType()), info.GetShape());
        std::memcpy(t.bytes.data(), v.GetTensorRawData(), t.bytes.size());
        result.push_back(std::move(t));
    }
    return result;
}

fs::path packageConfigFolder() { return fs::path(QUILLON_TEST_PACKAGE_DIR) / "config"; }

fs::path packageModelFolder() { return fs::path(QUILLON_TEST_PACKAGE_DIR) / "models"; }

CliResult runPkg(const std::string& args) {
    TempDir io;
    const fs::path out = io.path() / "stdout", err = io.path() / "stderr";
    const std::string cmd = "\"" + (fs::path(QUILLON_BIN_DIR) / "quillon-pkg").string() + "\" " + args + " > \"" +
                            out.string() + "\" 2> \"" + err.string() + "\"";
    const int status = std::system(cmd.c_str());
    CliResult r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = readAll(out);
    r.err = readAll(err);
    return r;
}

TempDir::TempDir() {
    static std::mt19937_64 rng{std::random_device{}()};
    path_ = fs::temp_directory_path() / ("quillon-pkg-test-" + std::to_string(rng()));
    fs::create_directories(path_);
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
}

std::vector<std::string> listFiles(const fs::path& folder) {
    std::vector<std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(folder))
        if (e.is_regular_file()) files.push_back(fs::relative(e.path(), folder).generic_string());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace tooltest
