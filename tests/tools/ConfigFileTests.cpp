// The configuration files of the default package, plain and encrypted.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ToolTestUtil.h"
#include "Util/ML_CryptoUtil.h"
#include "Util/ML_FileUtil.h"

using namespace tooltest;

TEST(ConfigFiles, SixteenFilesOfWellFormedModels) {
    const std::vector<std::string> files = listFiles(packageConfigFolder());
    EXPECT_EQ(files.size(), 16u);
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        EXPECT_EQ(file.substr(file.size() - 12), "_config.json");
        const nlohmann::json j = nlohmann::json::parse(ML::readBinaryFile(packageConfigFolder() / file));
        ASSERT_GE(j.at("availableModels").size(), 1u);
        for (const nlohmann::json& m : j["availableModels"]) {
            for (const char* k : {"modelType", "modelId", "modelDisplayName", "modelDescription"})
                EXPECT_FALSE(m.at(k).get<std::string>().empty()) << k;
            const nlohmann::json& tiles = m.at("params").at("availableTileSizes");
            ASSERT_EQ(tiles.size(), 1u);
            EXPECT_GT(tiles[0].at("execH").get<int>(), 0);
            EXPECT_GT(tiles[0].at("execW").get<int>(), 0);
        }
        const nlohmann::json& m = j["availableModels"][0];
        const nlohmann::json& tiles = m.at("params").at("availableTileSizes");
        // Depth names its stand-in networks, with their tile.
        if (file == "depth_config.json") {
            EXPECT_EQ(m["modelType"], "da2");
            EXPECT_EQ(tiles, nlohmann::json::parse(R"([{"execH":256,"execW":256}])"));
            for (const char* suffix : {".onnx", "_colorize.onnx"})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (m["modelId"].get<std::string>() + suffix))) << suffix;
        }
        // The denoiser names its two stages.
        if (file == "denoiser_config.json") {
            EXPECT_EQ(m["modelType"], "fdvd");
            for (const char* suffix : {"_stage1.onnx", "_stage2.onnx"})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (m["modelId"].get<std::string>() + suffix))) << suffix;
        }
        // The plate detector: its two networks, the execution size they are made for.
        if (file == "lp_detection_config.json") {
            EXPECT_EQ(m["modelType"], "y7");
            EXPECT_EQ(m["modelId"], "lp_detection_standin");
            EXPECT_EQ(m["params"], nlohmann::json::parse(
                                       R"({"object_type":"lp","padding":64,"availableTileSizes":[{"execH":384,"execW":640}]})"));
            for (const char* suffix : {"_detector.onnx", "_nms.onnx"})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (m["modelId"].get<std::string>() + suffix))) << suffix;
        }
        // Faces: the imported detector pair, the blur and the face-parsing networks it names.
        if (file == "face_detection_config.json") {
            EXPECT_EQ(m["modelType"], "y7");
            EXPECT_EQ(m["params"]["object_type"], "face");
            EXPECT_EQ(tiles, nlohmann::json::parse(R"([{"execH":768,"execW":1280}])"));
            const nlohmann::json& seg = m["params"].at("faceseg_config");
            EXPECT_EQ(seg.at("classes"), nlohmann::json::parse(R"(["skin"])"));
            for (const std::string name : {m["modelId"].get<std::string>() + "_detector",
                                           m["modelId"].get<std::string>() + "_nms", std::string("mask_blur"),
                                           seg["modelId"].get<std::string>(), std::string("imgcvt/logits_to_masks_aa_F16")})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (name + ".onnx"))) << name;
            EXPECT_EQ(m["params"].at("tracking_config"),
                      nlohmann::json::parse(R"({"kalman_name":"kalman_cv","reid_execH":112,"reid_execW":112,)"
                                            R"("reid_name":"face_embedding"})"));
            EXPECT_TRUE(fs::exists(packageModelFolder() / "kalman_cv.onnx"));
        }
        // Optical flow and retiming name their stand-in networks, with their tiles; retiming's
        // flow pass names the flow network and the largest-value network.
        if (file == "optical_flow_config.json") {
            EXPECT_EQ(m["modelType"], "raft");
            EXPECT_EQ(m["params"]["archId"], "pyramidal_lk");
            EXPECT_EQ(tiles, nlohmann::json::parse(R"([{"execH":288,"execW":512}])"));
            for (const std::string name : {m["modelId"].get<std::string>(), std::string("flow_viz-288x512")})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (name + ".onnx"))) << name;
        }
        if (file == "retiming_config.json") {
            EXPECT_EQ(m["modelType"], "rife");
            EXPECT_EQ(tiles, nlohmann::json::parse(R"([{"execH":384,"execW":384}])"));
            const nlohmann::json& flow = m["params"].at("flowEst");
            EXPECT_EQ(flow, nlohmann::json::parse(
                                R"({"execH":288,"execW":512,"modelId":"optical_flow_standin","maxModelId":"flow_max"})"));
            for (const std::string name : {m["modelId"].get<std::string>(), flow["modelId"].get<std::string>(),
                                           flow["maxModelId"].get<std::string>(), std::string("imgcvt/blend_F32_1x3x384x384")})
                EXPECT_TRUE(fs::exists(packageModelFolder() / (name + ".onnx"))) << name;
        }
        // Upscalers: every scale's padding is a whole number of its output pixels, and the
        // network of each scale is in the package.
        for (const nlohmann::json& model : j["availableModels"]) {
            if (model["modelType"] != "plksr") continue;
            for (const nlohmann::json& s : model["params"].at("scales")) {
                const int scale = s.at("scale");
                EXPECT_EQ(s.at("padding").get<int>() % scale, 0);
                EXPECT_TRUE(fs::exists(packageModelFolder() / (model["modelId"].get<std::string>() + "_" +
                                                               std::to_string(scale) + "x.onnx")));
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
