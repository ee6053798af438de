// Parsing of configuration entries into model descriptions.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "ML/Exception.h"
#include "Plugin/ModelInfo.h"

namespace {

using nlohmann::json;

json baseEntry() {
    return json::parse(R"json({"modelType": "DA2", "modelId": "depth_small", "modelDisplayName": "Depth (small)",
                               "modelDescription": "Relative depth"})json");
}

std::string typeErrorText(const json& entry) {
    try {
        ML::ModelInfo info(entry);
    } catch (const json::type_error& e) {
        return e.what();
    }
    return "<no type error>";
}

TEST(ModelInfo, ReadsStringsAndDefaults) {
    const ML::ModelInfo info(baseEntry());
    EXPECT_EQ(info.modelType, "DA2");
    EXPECT_EQ(info.modelId, "depth_small");
    EXPECT_EQ(info.modelDisplayName, "Depth (small)");
    EXPECT_EQ(info.modelDescription, "Relative depth");
    EXPECT_EQ(info.inGamma, -1.0f);
    EXPECT_TRUE(info.params.is_null());
    EXPECT_TRUE(info.availableTileSizes.empty());
}

TEST(ModelInfo, ReadsGammaAsFloat) {
    json entry = baseEntry();
    entry["inGamma"] = 2.2;
    EXPECT_EQ(ML::ModelInfo(entry).inGamma, 2.2f);
    entry["inGamma"] = 1;
    EXPECT_EQ(ML::ModelInfo(entry).inGamma, 1.0f);
}

TEST(ModelInfo, KeepsTileSizesInFileOrderAndUnknownParams) {
    json entry = baseEntry();
    entry["params"] =
        json::parse(R"({"availableTileSizes": [{"execW": 640, "execH": 480}, {"execH": 256, "execW": 512}],
                                      "numFrames": 5, "family": {"nested": [1, 2]}})");
    const ML::ModelInfo info(entry);
    ASSERT_EQ(info.availableTileSizes.size(), 2u);
    EXPECT_EQ(info.availableTileSizes[0].execH, 480);
    EXPECT_EQ(info.availableTileSizes[0].execW, 640);
    EXPECT_EQ(info.availableTileSizes[1].execH, 256);
    EXPECT_EQ(info.availableTileSizes[1].execW, 512);
    EXPECT_EQ(info.params["numFrames"], 5);
    EXPECT_EQ(info.params["family"]["nested"][1], 2);
    EXPECT_EQ(info.params, entry["params"]);
}

TEST(ModelInfo, ParamsThatAreNoObjectGiveNoTileSizes) {
    json entry = baseEntry();
    entry["params"] = json::array({1, 2});
    const ML::ModelInfo info(entry);
    EXPECT_EQ(info.params, json::array({1, 2}));
    EXPECT_TRUE(info.availableTileSizes.empty());
}

TEST(ModelInfo, OnlyTileSize) {
    json entry = baseEntry();
    try {
        ML::ModelInfo(entry).getOnlyTileSize();
        FAIL() << "no tile size accepted";
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.source(), ML::Exception::PLUGIN);
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        EXPECT_NE(std::string(e.what()).find("No tile size found for model!"), std::string::npos) << e.what();
    }

    entry["params"] = json::parse(R"({"availableTileSizes": [{"execH": 384, "execW": 384}]})");
    const ML::ModelInfo single(entry);
    EXPECT_EQ(&single.getOnlyTileSize(), &single.availableTileSizes[0]);
    EXPECT_EQ(single.getOnlyTileSize().execH, 384);

    entry["params"]["availableTileSizes"].push_back(json::parse(R"({"execH": 512, "execW": 512})"));
    const ML::ModelInfo twice(entry);
    try {
        twice.getOnlyTileSize();
        FAIL() << "two tile sizes accepted";
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("Model only supports one tile size!"), std::string::npos) << e.what();
    }
}

TEST(ModelInfo, TileExtentsMustFitInt32) {
    struct Case {
        const char* value;
        bool accepted;
        ML::i32 read;
    };
    const Case cases[] = {
        {"2147483647", true, 2147483647}, {"-2147483648", true, -2147483647 - 1}, {"512.0", true, 512},
        {"2147483648", false, 0},         {"-2147483649", false, 0},              {"18446744073709551615", false, 0},
        {"1e10", false, 0},               {"-3e9", false, 0},                     {"1.5e300", false, 0},
    };
    for (const Case& c : cases) {
        json entry = baseEntry();
        const std::string tiles = std::string(R"({"availableTileSizes": [{"execH": 8, "execW": )") + c.value + "}]}";
        entry["params"] = json::parse(tiles);
        try {
            const ML::ModelInfo info(entry);
            EXPECT_TRUE(c.accepted) << c.value;
            EXPECT_EQ(info.getOnlyTileSize().execW, c.read) << c.value;
        } catch (const ML::Exception& e) {
            EXPECT_FALSE(c.accepted) << c.value;
            EXPECT_NE(std::string(e.what()).find("execW of model depth_small out of range"), std::string::npos)
                << e.what();
        }
    }
}

TEST(ModelInfo, ParamsNestedTooDeeplyAreRefusedWithoutOverflowingTheStack) {
    const std::pair<int, bool> cases[] = {{63, true}, {64, true}, {65, false}, {200000, false}};
    for (const auto& [levels, accepted] : cases) {
        json entry = baseEntry();
        // Innermost level an object, so that objects count as well as arrays.
        entry["params"] = json::parse(std::string(levels - 1, '[') + "{}" + std::string(levels - 1, ']'));
        try {
            const ML::ModelInfo info(entry);
            EXPECT_TRUE(accepted) << levels;
            EXPECT_EQ(info.params, entry["params"]) << levels;
        } catch (const ML::Exception& e) {
            EXPECT_FALSE(accepted) << levels;
            EXPECT_NE(std::string(e.what()).find("nested deeper than 64 levels"), std::string::npos) << e.what();
        }
    }
}

TEST(ModelInfo, WronglyTypedOrMissingKeysAreTypeErrors) {
    json entry = baseEntry();
    entry["modelId"] = 7;
    EXPECT_NE(typeErrorText(entry).find("type must be string, but is number"), std::string::npos);

    entry = baseEntry();
    entry.erase("modelDescription");
    EXPECT_NE(typeErrorText(entry).find("type must be string, but is null"), std::string::npos);

    entry = baseEntry();
    entry["inGamma"] = "2.2";
    EXPECT_NE(typeErrorText(entry).find("type must be number, but is string"), std::string::npos);

    entry = baseEntry();
    entry["params"] = json::parse(R"({"availableTileSizes": [{"execH": 256}]})");
    EXPECT_NE(typeErrorText(entry).find("type must be number, but is null"), std::string::npos);

    EXPECT_NE(typeErrorText(json::array()).find("type must be string"), std::string::npos);
    EXPECT_NE(typeErrorText(json()).find("type must be string"), std::string::npos);
}

}  // namespace
