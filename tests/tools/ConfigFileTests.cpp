// The configuration files of the default package, plain and encrypted.
#include <gtest/gtest.h>

#include <map>

#include <nlohmann/json.hpp>

#include "ToolTestUtil.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

using namespace tooltest;

namespace {

// Every target file and the model type its family needs.
const std::map<std::string, std::string>& expectedTypes() {
    static const std::map<std::string, std::string> m{
        {"denoiser_config.json", "fdvd"},
        {"upres_config.json", "plksr"},
        {"optical_flow_config.json", "raft"},
        {"mask_propagation_config.json", "qt"},
        {"retiming_config.json", "rife"},
        {"face_detection_config.json", "y7"},
        {"lp_detection_config.json", "y7"},
        {"interactive_segmentation_config.json", "sam"},
        {"depth_config.json", "da2"},
        {"matting_config.json", "tgn"},
        {"pose_estimation_config.json", "rtmo"},
        {"point_tracking_config.json", "cotracker"},
        {"hdr_config.json", "nv_hdr"},
        {"photo_restoration_config.json", "photo_restoration"},
        {"3d_heads_config.json", "3d_heads"},
        {"deinterlace_config.json", "de"},
    };
    return m;
}

}  // namespace

TEST(ConfigFiles, SixteenFilesWithOneWellFormedModelEach) {
    std::vector<std::string> want;
    for (const auto& [file, type] : expectedTypes()) want.push_back(file);
    EXPECT_EQ(listFiles(packageConfigFolder()), want);

    for (const auto& [file, type] : expectedTypes()) {
        SCOPED_TRACE(file);
        const nlohmann::json j = nlohmann::json::parse(ML::readBinaryFile(packageConfigFolder() / file));
        ASSERT_TRUE(j.at("availableModels").is_array());
        ASSERT_EQ(j["availableModels"].size(), 1u);
        const nlohmann::json& m = j["availableModels"][0];
        for (const char* k : {"modelType", "modelId", "modelDisplayName", "modelDescription"}) {
            ASSERT_TRUE(m.contains(k)) << k;
            EXPECT_TRUE(m[k].is_string()) << k;
            EXPECT_FALSE(m[k].get<std::string>().empty()) << k;
        }
        EXPECT_EQ(m["modelType"], type);
        if (m.contains("inGamma")) {
            EXPECT_TRUE(m["inGamma"].is_number());
        }
        const nlohmann::json& tiles = m.at("params").at("availableTileSizes");
        ASSERT_EQ(tiles.size(), 1u);
        EXPECT_GT(tiles[0].at("execH").get<int>(), 0);
        EXPECT_GT(tiles[0].at("execW").get<int>(), 0);
    }
}

TEST(ConfigFiles, DepthNamesItsStandInNetworks) {
    const nlohmann::json j = nlohmann::json::parse(ML::readBinaryFile(packageConfigFolder() / "depth_config.json"));
    const nlohmann::json& m = j["availableModels"][0];
    EXPECT_EQ(m["modelType"], "da2");
    EXPECT_EQ(m["modelId"], "depth_standin");
    EXPECT_EQ(m["params"]["availableTileSizes"], nlohmann::json::parse(R"([{"execH":256,"execW":256}])"));
    EXPECT_TRUE(fs::exists(packageModelFolder() / "depth_standin.onnx"));
    EXPECT_TRUE(fs::exists(packageModelFolder() / "depth_standin_colorize.onnx"));
}

TEST(ConfigFiles, EncryptedTwinsDecryptToThePlainBytes) {
    TempDir dir;
    const CliResult r = runPkg("config \"" + dir.path().string() + "\" --encrypt");
    ASSERT_EQ(r.code, 0) << r.err;
    TempDir onlyTwins;
    for (const auto& [file, type] : expectedTypes()) {
        SCOPED_TRACE(file);
        const fs::path plain = dir.path() / file;
        const fs::path twin = ML::encryptedTwin(plain);
        ASSERT_TRUE(fs::exists(twin));
        EXPECT_EQ(fs::file_size(twin) % 16, 0u);
        const std::string bytes = ML::readBinaryFile(plain);
        EXPECT_EQ(ML::readEncryptedFile(twin), bytes);
        EXPECT_EQ(ML::readBinaryFile(twin).find("availableModels"), std::string::npos);
        // Without the plain file the reader falls back to the twin.
        fs::copy_file(twin, onlyTwins.path() / twin.filename());
        EXPECT_EQ(ML::readFileOrEncrypted(onlyTwins.path() / file), bytes);
    }
    EXPECT_EQ(listFiles(dir.path()).size(), 32u);
}
