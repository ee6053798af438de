// Parsing of configuration entries into model descriptions.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>

#include "ML/Exception.h"
#include "Plugin/ModelInfo.h"

namespace {

using nlohmann::json;

json entry(const std::string& extra = "") {
    return json::parse(R"j({"modelType": "DA2", "modelId": "depth_small", "modelDisplayName": "Depth (small)",
                           "modelDescription": "Relative depth")j" + extra + "}");
}

std::string onlyTileSizeError(const ML::ModelInfo& info) {
    try {
        info.getOnlyTileSize();
    } catch (const ML::Exception& e) {
        EXPECT_EQ(e.code(), ML::Exception::INTERNAL);
        return e.what();
    }
    return "<no exception>";
}

TEST(ModelInfo, ReadsStringsGammaTileSizesAndKeepsParams) {
    const ML::ModelInfo plain(entry());
    EXPECT_EQ(plain.modelDescription, "Relative depth");
    EXPECT_EQ(plain.inGamma, -1.0f);
    EXPECT_NE(onlyTileSizeError(plain).find("No tile size found for model!"), std::string::npos);

    const ML::ModelInfo full(entry(R"(, "inGamma": 2.2, "params": {"availableTileSizes":
        [{"execW": 640, "execH": 480}, {"execH": 256, "execW": 512}], "family": {"nested": [1, 2]}})"));
    EXPECT_EQ(full.inGamma, 2.2f);
    ASSERT_EQ(full.availableTileSizes.size(), 2u);
    EXPECT_EQ(full.availableTileSizes[0].execH, 480);
    EXPECT_EQ(full.availableTileSizes[0].execW, 640);
    EXPECT_EQ(full.params["family"]["nested"][1], 2);
    EXPECT_NE(onlyTileSizeError(full).find("Model only supports one tile size!"), std::string::npos);

    const ML::ModelInfo single(entry(R"(, "params": {"availableTileSizes": [{"execH": 384, "execW": 384}]})"));
    EXPECT_EQ(&single.getOnlyTileSize(), &single.availableTileSizes[0]);

    EXPECT_TRUE(ML::ModelInfo(entry(R"(, "params": [1, 2])")).availableTileSizes.empty());
}

TEST(ModelInfo, TileExtentsArePositiveAndFitInt32) {
    struct Case {
        const char* value;
        bool accepted;
        ML::i32 read;
    };
    const Case cases[] = {
        {"2147483647", true, 2147483647}, {"1", true, 1},         {"512.0", true, 512},
        {"0", false, 0},                  {"-5", false, 0},       {"-2147483648", false, 0},
        {"2147483648", false, 0},         {"-2147483649", false, 0}, {"18446744073709551615", false, 0},
        {"1e10", false, 0},               {"-3e9", false, 0},     {"1.5e300", false, 0},
    };
    for (const Case& c : cases) {
        json config = entry();
        const std::string tiles = std::string(R"({"availableTileSizes": [{"execH": 8, "execW": )") + c.value + "}]}";
        config["params"] = json::parse(tiles);
        try {
            const ML::ModelInfo info(config);
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
        json config = entry();
        // Innermost level an object, so that objects count as well as arrays.
        config["params"] = json::parse(std::string(levels - 1, '[') + "{}" + std::string(levels - 1, ']'));
        try {
            const ML::ModelInfo info(config);
            EXPECT_TRUE(accepted) << levels;
            EXPECT_EQ(info.params, config["params"]) << levels;
        } catch (const ML::Exception& e) {
            EXPECT_FALSE(accepted) << levels;
            EXPECT_NE(std::string(e.what()).find("nested deeper than 64 levels"), std::string::npos) << e.what();
        }
    }
}

TEST(ModelInfo, WronglyTypedOrMissingKeysAreTypeErrors) {
    json missing = entry();
    missing.erase("modelDescription");
    const std::pair<json, const char*> cases[] = {
        {entry(R"(, "modelId": 7)"), "type must be string, but is number"},
        {missing, "type must be string, but is null"},
        {entry(R"(, "params": {"availableTileSizes": [{"execH": 256}]})"), "type must be number, but is null"},
    };
    for (const auto& [bad, text] : cases) {
        try {
            ML::ModelInfo info(bad);
            ADD_FAILURE() << "accepted " << bad.dump();
        } catch (const json::type_error& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
    }
}

}  // namespace
