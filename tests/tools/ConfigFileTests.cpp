// The configuration files of the default package, plain and encrypted.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include <nlohmann/json.hpp>

#include "ToolTestUtil.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

using namespace tooltest;

namespace {

// Every network a configuration names (modelId, maxModelId, kalman_name, at any depth): each must
// be in the package, as that file or as the first part of its files' names ("_stage1", "_2x", ...).
void expectNamedNetworksExist(const nlohmann::json& j, const std::vector<std::string>& files) {
    for (const auto& [key, value] : j.items()) {
        if (value.is_structured()) expectNamedNetworksExist(value, files);
        if (!value.is_string() || (key != "modelId" && key != "maxModelId" && key != "kalman_name")) continue;
        const std::string name = value;
        EXPECT_TRUE(std::any_of(files.begin(), files.end(), [&](const std::string& f) { return f.rfind(name, 0) == 0; }))
            << key << " " << name;
    }
}

// The tile a model runs at is the picture size its networks take, where they take a fixed one.
void expectTileFitsTheNetworks(const nlohmann::json& model, const std::vector<std::string>& networks) {
    const nlohmann::json& tile = model["params"]["availableTileSizes"][0];
    const std::string id = model["modelId"];
    for (const std::string& file : networks) {
        if (file.rfind(id, 0) != 0 || fs::path(file).extension() != ".onnx") continue;
        Network net(packageModelFolder() / file);
        for (size_t i = 0; i < net.session.GetInputCount(); ++i) {
            const std::vector<int64_t> s = net.session.GetInputTypeInfo(i).GetTensorTypeAndShapeInfo().GetShape();
            if (s.size() != 4 || s[2] <= 0 || s[3] <= 0 || s[2] * s[3] == 1) continue;  // free, or parameters
            EXPECT_EQ(std::pair(s[2], s[3]), std::pair(tile["execH"].get<int64_t>(), tile["execW"].get<int64_t>())) << file;
        }
    }
}

}  // namespace

TEST(ConfigFiles, SixteenFilesOfWellFormedModelsNamingPackagedNetworks) {
    const std::vector<std::string> files = listFiles(packageConfigFolder()), networks = listFiles(packageModelFolder());
    EXPECT_EQ(files.size(), 16u);
    // The files whose networks the package ships, and the family their first model is read as.
    const std::map<std::string, std::string> types{{"depth_config.json", "da2"},         {"denoiser_config.json", "fdvd"},
                                                   {"lp_detection_config.json", "y7"},  {"face_detection_config.json", "y7"},
                                                   {"optical_flow_config.json", "raft"}, {"retiming_config.json", "rife"}};
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        EXPECT_EQ(file.substr(file.size() - 12), "_config.json");
        const nlohmann::json j = nlohmann::json::parse(ML::readBinaryFile(packageConfigFolder() / file));
        ASSERT_GE(j.at("availableModels").size(), 1u);
        if (types.count(file)) {
            EXPECT_EQ(j["availableModels"][0]["modelType"], types.at(file));
            expectNamedNetworksExist(j, networks);
            expectTileFitsTheNetworks(j["availableModels"][0], networks);
        }
        for (const nlohmann::json& m : j["availableModels"]) {
            for (const char* k : {"modelType", "modelId", "modelDisplayName", "modelDescription"})
                EXPECT_FALSE(m.at(k).get<std::string>().empty()) << k;
            const nlohmann::json& tiles = m.at("params").at("availableTileSizes");
            ASSERT_EQ(tiles.size(), 1u);
            EXPECT_GT(tiles[0].at("execH").get<int>(), 0);
            EXPECT_GT(tiles[0].at("execW").get<int>(), 0);
            // Upscalers: every scale's padding is a whole number of its output pixels, and the
            // network of each scale is in the package.
            if (m["modelType"] != "plksr") continue;
            for (const nlohmann::json& s : m["params"].at("scales")) {
                const int scale = s.at("scale");
                EXPECT_EQ(s.at("padding").get<int>() % scale, 0);
                EXPECT_TRUE(fs::exists(packageModelFolder() /
                                       (m["modelId"].get<std::string>() + "_" + std::to_string(scale) + "x.onnx")));
            }
        }
    }
}

TEST(ConfigFiles, EncryptedTwinsDecryptToThePlainBytes) {
    TempDir dir, onlyTwins;
    const CliResult r = runPkg("config \"" + dir.path().string() + "\" --encrypt");
    ASSERT_EQ(r.code, 0) << r.err;
    const std::vector<std::string> files = listFiles(packageConfigFolder());
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const fs::path twin = ML::encryptedTwin(dir / file);
        ASSERT_TRUE(fs::exists(twin));
        const std::string bytes = ML::readBinaryFile(dir / file);
        EXPECT_EQ(bytes, ML::readBinaryFile(packageConfigFolder() / file));
        EXPECT_EQ(ML::readBinaryFile(twin).find("availableModels"), std::string::npos);
        // Without the plain file the reader falls back to the twin.
        fs::copy_file(twin, onlyTwins / twin.filename().string());
        EXPECT_EQ(ML::readFileOrEncrypted(onlyTwins / file), bytes);
    }
    EXPECT_EQ(listFiles(dir.path()).size(), 2 * files.size());
}
