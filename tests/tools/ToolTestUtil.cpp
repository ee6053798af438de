#include "ToolTestUtil.h"

#include <sys/wait.h>

#include <Imath/half.h>

#include "FusedOps.h"
#include "Util/ML_FileUtil.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>

// ONNX Runtime keeps a few bytes from creating its environment until the process ends; that is
// its own business, not a leak of the code under test.
extern "C" __attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libonnxruntime.so\n";
}

namespace tooltest {

namespace {

// U8, I8, F16, F32, I32 and I64 with their ONNX Runtime types and sizes.
struct TypeInfo {
    ML::u32 type;
    ONNXTensorElementDataType ort;
    size_t size;
};
const TypeInfo kTypes[] = {{ML::U8, ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8, 1},
                           {ML::I8, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8, 1},
                           {ML::F16, ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16, 2},
                           {ML::F32, ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT, 4},
                           {ML::I32, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32, 4},
                           {ML::I64, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64, 8}};

const TypeInfo& typeInfo(ML::u32 type, ONNXTensorElementDataType ort = ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED) {
    for (const TypeInfo& t : kTypes)
        if (ort == ONNX_TENSOR_ELEMENT_DATA_TYPE_UNDEFINED ? t.type == type : t.ort == ort) return t;
    throw std::logic_error("unsupported test tensor type");
}

std::vector<uint8_t> toBytes(const Tensor& t) {
    const size_t size = typeInfo(t.type).size;
    std::vector<uint8_t> bytes(t.values.size() * size);
    for (size_t i = 0; i < t.values.size(); ++i) {
        const float f32 = t.values[i];
        const uint16_t f16 = Imath::half(f32).bits();
        const int64_t whole = static_cast<int64_t>(f32);  // little-endian: U8 is its first byte
        const void* from = t.type == ML::F16 ? static_cast<const void*>(&f16) : &whole;
        std::memcpy(bytes.data() + i * size, t.type == ML::F32 ? &f32 : from, size);
    }
    return bytes;
}

std::vector<float> fromBytes(ML::u32 type, const uint8_t* p, size_t count) {
    std::vector<float> values(count);
    uint16_t f16;
    int32_t i32;
    int64_t i64;
    for (size_t i = 0; i < count; ++i, p += typeInfo(type).size) {
        switch (type) {
            case ML::U8: values[i] = *p; break;
            case ML::I8: values[i] = static_cast<int8_t>(*p); break;
            case ML::F16: std::memcpy(&f16, p, 2); values[i] = Imath::half(Imath::half::FromBits, f16); break;
            case ML::F32: std::memcpy(&values[i], p, 4); break;
            case ML::I32: std::memcpy(&i32, p, 4); values[i] = static_cast<float>(i32); break;
            default: std::memcpy(&i64, p, 8); values[i] = static_cast<float>(i64);
        }
    }
    return values;
}

Ort::Env& env() {
    static Ort::Env e(ORT_LOGGING_LEVEL_WARNING, "quillon-pkg-tests");
    return e;
}

Ort::SessionOptions sessionOptions() {
    Ort::SessionOptions o;
    o.SetIntraOpNumThreads(1);
    o.SetInterOpNumThreads(1);
    // The fused helper operators as the ort backends run them; their rows split over 3 threads,
    // so that large images take the threaded path.
    ML::OrtBackend::addFusedOperators(o, 3);
    return o;
}

}  // namespace

Tensor makeTensor(ML::u32 type, std::vector<int64_t> shape, std::vector<float> values) {
    size_t count = 1;
    for (int64_t d : shape) count *= static_cast<size_t>(d);
    if (values.empty()) values.assign(count, 0.0f);
    if (values.size() != count) throw std::logic_error("makeTensor: wrong number of values");
    Tensor t{type, std::move(shape), std::move(values)};
    t.values = fromBytes(type, toBytes(t).data(), count);
    return t;
}

Network::Network(const fs::path& path) : session(env(), path.c_str(), sessionOptions()) {}

std::vector<Tensor> Network::run(const std::vector<Tensor>& inputs) {
    Ort::AllocatorWithDefaultOptions alloc;
    std::vector<Ort::AllocatedStringPtr> names;
    std::vector<const char*> inNames, outNames;
    for (size_t i = 0; i < session.GetInputCount(); ++i) {
        names.push_back(session.GetInputNameAllocated(i, alloc));
        inNames.push_back(names.back().get());
    }
    for (size_t i = 0; i < session.GetOutputCount(); ++i) {
        names.push_back(session.GetOutputNameAllocated(i, alloc));
        outNames.push_back(names.back().get());
    }
    if (inputs.size() != inNames.size()) throw std::logic_error("wrong number of inputs");
    const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    std::vector<std::vector<uint8_t>> bytes;
    std::vector<Ort::Value> values;
    for (const Tensor& t : inputs) {
        bytes.push_back(toBytes(t));
        values.push_back(Ort::Value::CreateTensor(mem, bytes.back().data(), bytes.back().size(), t.shape.data(),
                                                  t.shape.size(), typeInfo(t.type).ort));
    }
    std::vector<Ort::Value> outs = session.Run(Ort::RunOptions{nullptr}, inNames.data(), values.data(), values.size(),
                                               outNames.data(), outNames.size());
    std::vector<Tensor> result;
    for (Ort::Value& v : outs) {
        const Ort::TensorTypeAndShapeInfo shape = v.GetTensorTypeAndShapeInfo();
        const ML::u32 type = typeInfo(0, shape.GetElementType()).type;
        result.push_back({type, shape.GetShape(),
                          fromBytes(type, static_cast<const uint8_t*>(v.GetTensorRawData()), shape.GetElementCount())});
    }
    return result;
}

fs::path packageConfigFolder() { return fs::path(QUILLON_TEST_PACKAGE_DIR) / "config"; }
fs::path packageModelFolder() { return fs::path(QUILLON_TEST_PACKAGE_DIR) / "models"; }

std::vector<PackageForm> packageForms() {
    static TempDir portable;
    static const bool written = [] {
        const CliResult r = runPkg("imgcvt " + portable.path().string() + " --portable");
        if (r.code != 0) throw std::runtime_error("quillon-pkg imgcvt --portable failed: " + r.err);
        return true;
    }();
    (void)written;
    return {{"fused", packageModelFolder()}, {"portable", portable.path()}};
}

CliResult runPkg(const std::string& args) {
    TempDir io;
    const fs::path out = io / "stdout", err = io / "stderr";
    const std::string cmd = "\"" + (fs::path(QUILLON_BIN_DIR) / "quillon-pkg").string() + "\" " + args + " > \"" +
                            out.string() + "\" 2> \"" + err.string() + "\"";
    const int status = std::system(cmd.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ML::readBinaryFile(out), ML::readBinaryFile(err)};
}

Tensor crop(const Tensor& t, int64_t y0, int64_t x0, int64_t h, int64_t w) {
    std::vector<float> v;
    for (int64_t c = 0; c < t.shape[1]; ++c)
        for (int64_t y = 0; y < h; ++y)
            for (int64_t x = 0; x < w; ++x) v.push_back(pixel(t, c, y0 + y, x0 + x));
    return makeTensor(t.type, {1, t.shape[1], h, w}, v);
}

std::vector<float> randomValues(size_t n, unsigned seed, float lo, float hi) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

std::vector<std::string> listFiles(const fs::path& folder) {
    std::vector<std::string> files;
    for (const auto& e : fs::recursive_directory_iterator(folder))
        if (e.is_regular_file()) files.push_back(fs::relative(e.path(), folder).generic_string());
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace tooltest
