// Imported networks against TensorFlow.js: every network of tests/data/networks is imported from
// the npm package that setup unpacked, run through the ONNX Runtime backend on the input that
// Tools/reference/tfjs-reference.mjs used, and compared with the sample of outputs it recorded.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "Import/Importer.h"
#include "PackageFiles.h"
#include "Plugin/ModelContext.h"
#include "util/TempDir.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

const fs::path kReferences = fs::path(QUILLON_SOURCE_DIR) / "tests" / "data" / "networks";
const fs::path kNetworks = fs::path(QUILLON_SOURCE_DIR) / ".deps" / "networks";

// Outputs that end in a sigmoid (masks, flags) are held to an absolute bound; the rest to a
// bound relative to the output's largest magnitude.
constexpr double kRelative = 1e-4;
constexpr double kSigmoidAbsolute = 1e-3;

bool isSigmoid(const std::string& id, const std::string& output) {
    if (id == "selfie") return output == "activation_10";
    if (id == "blazepose-full") return output == "Identity_1" || output == "Identity_3";
    if (id == "facemesh") return output == "Identity_1";
    if (id == "faceres") return output == "gender_pred/Sigmoid";
    return false;
}

std::vector<std::string> referenceIds() {
    std::vector<std::string> ids;
    for (const fs::directory_entry& e : fs::directory_iterator(kReferences))
        if (e.path().extension() == ".json") ids.push_back(e.path().stem().string());
    std::sort(ids.begin(), ids.end());
    return ids;
}

json readJson(const fs::path& path) {
    std::ifstream in(path);
    return json::parse(in);
}

// The reference input in N,C,H,W order (the importer's order for images).
std::vector<float> referenceInput(const json& input, int64_t h, int64_t w, int64_t c) {
    const double scale = input.at("scale").get<double>();
    std::vector<float> values(static_cast<size_t>(h * w * c));
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x)
            for (int64_t k = 0; k < c; ++k) {
                const int64_t v = (y * 7 + x * 13 + k * 29 + (y * x) % 17) % 256;
                values[static_cast<size_t>((k * h + y) * w + x)] = static_cast<float>(double(v) / scale);
            }
    return values;
}

// Flat index in N,C,H,W of the element at flat index i of an N,H,W,C tensor.
size_t nchwIndex(size_t i, const std::vector<int64_t>& nhwc) {
    const size_t c = static_cast<size_t>(nhwc[3]), w = static_cast<size_t>(nhwc[2]), h = static_cast<size_t>(nhwc[1]);
    const size_t k = i % c, x = (i / c) % w, y = (i / c / w) % h, n = i / c / w / h;
    return ((n * c + k) * h + y) * w + x;
}

class NetworkAgreement : public ::testing::TestWithParam<std::string> {};

TEST_P(NetworkAgreement, ImportedNetworkMatchesTensorFlowJs) {
    const json ref = readJson(kReferences / (GetParam() + ".json"));
    const fs::path modelJson = kNetworks / ref.at("file").get<std::string>();
    ASSERT_TRUE(fs::exists(modelJson)) << modelJson << " is missing: run scripts/setup";

    const qpkg::tfjs::Model model = qpkg::tfjs::readModel(modelJson);
    TempDir dir;
    qpkg::writeModel(qpkg::tfjs::importModel(model), dir.path() / "net.onnx");

    const std::vector<int64_t> inShape = ref.at("input").at("shape").get<std::vector<int64_t>>();
    const bool intInput = ref.at("input").at("dtype") == "int32";
    const std::vector<float> input = referenceInput(ref.at("input"), inShape[1], inShape[2], inShape[3]);

    auto context = std::make_shared<ML::ModelContext>("ort_cpu", 0, dir.path(), fs::path());
    auto network = context->loadModel("net");
    const std::vector<ML::u64> nchw{1, ML::u64(inShape[3]), ML::u64(inShape[1]), ML::u64(inShape[2])};
    auto in = context->createTensor(nchw, intInput ? ML::I32 : ML::F32);
    if (intInput) {
        const std::vector<int32_t> ints(input.begin(), input.end());
        in->upload(ints.data());
    } else {
        in->upload(input.data());
    }

    // Outputs bound in the order of the imported graph, which is the signature's.
    const std::vector<qpkg::tfjs::TensorSignature> signature = qpkg::tfjs::networkOutputs(model);
    ML::TensorList outs;
    std::vector<json> refs;
    for (const qpkg::tfjs::TensorSignature& s : signature) {
        const auto it = std::find_if(ref.at("outputs").begin(), ref.at("outputs").end(),
                                     [&](const json& o) { return o.at("name") == s.name; });
        ASSERT_NE(it, ref.at("outputs").end()) << "no reference for output " << s.name;
        std::vector<int64_t> shape = it->at("shape").get<std::vector<int64_t>>();
        if (shape.size() == 4) shape = {shape[0], shape[3], shape[1], shape[2]};
        outs.push_back(context->createTensor(std::vector<ML::u64>(shape.begin(), shape.end()), ML::F32));
        refs.push_back(*it);
    }
    network->run({in}, outs);

    for (size_t o = 0; o < outs.size(); ++o) {
        const json& r = refs[o];
        const std::string name = r.at("name");
        const std::vector<int64_t> shape = r.at("shape").get<std::vector<int64_t>>();
        std::vector<float> got(static_cast<size_t>(r.at("total").get<int64_t>()));
        outs[o]->download(got.data());
        const std::vector<double> expected = r.at("values").get<std::vector<double>>();
        const size_t stride = r.at("stride").get<size_t>();
        double maxDiff = 0, maxRef = 0;
        for (size_t k = 0; k < expected.size(); ++k) {
            const size_t i = k * stride;
            const float v = got[shape.size() == 4 ? nchwIndex(i, shape) : i];
            maxDiff = std::max(maxDiff, std::abs(double(v) - expected[k]));
            maxRef = std::max(maxRef, std::abs(expected[k]));
        }
        if (isSigmoid(GetParam(), name))
            EXPECT_LE(maxDiff, kSigmoidAbsolute) << name;
        else
            EXPECT_LE(maxDiff, kRelative * std::max(maxRef, 1e-6)) << name << " (largest magnitude " << maxRef << ")";
        std::cout << "[ agreement ] " << GetParam() << " " << name << ": max error " << maxDiff << ", relative "
                  << maxDiff / std::max(maxRef, 1e-30) << "\n";
    }
}

INSTANTIATE_TEST_SUITE_P(Imported, NetworkAgreement, ::testing::ValuesIn(referenceIds()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             std::string name = info.param;
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

}  // namespace
