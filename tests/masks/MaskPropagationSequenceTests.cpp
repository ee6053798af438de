// The sequence around the memory: cache keys, which frames a render computes from what the cache
// still holds (in order, out of order, after evictions, backwards), and which file and cache name
// each submodel is loaded under.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ML/Exception.h"
#include "Plugin/Models/QT/Params.h"
#include "Plugin/Models/QT/Sequence.h"

using namespace ML;
using namespace ML::QT;

TEST(MaskPropagationSequence, Keys) {
    const std::string seq = sequenceKey({512, 1024, "base", 2, 10, {10, 40}});
    EXPECT_EQ(seq, "h512_w1024_model:base_nobjs:2_nkeys:2_startFrame:10_k:10_k:40");
    EXPECT_EQ(maskKey(seq, 7), "qtMasks_frame:7_" + seq);
    EXPECT_EQ(stateKey(seq, true), "qtState_" + seq + "_fwd");
    EXPECT_EQ(stateKey(seq, false), "qtState_" + seq + "_bwd");
    // A keyframe without masks still counts.
    EXPECT_EQ(sequenceKey({512, 1024, "m", 1, -3, {-3}}), "h512_w1024_model:m_nobjs:1_nkeys:1_startFrame:-3_k:-3");
    EXPECT_EQ(shapeKey(512, 1024, 8, 2), "512x1024x8x2");
    EXPECT_EQ(outputKey(720, 1280, 2), "720x1280x2");
}

TEST(MaskPropagationSequence, WalkPlans) {
    struct Row {
        const char* name;
        WalkInput in;
        std::vector<i32> frames;
        bool nothing, init, restart;
    };
    const Row rows[] = {
        {"mask cached", {30, 10, true, true, 3, 1}, {30}, true, false, false},
        {"no state", {13, 10, false, false, 0, 0}, {10, 11, 12, 13}, false, true, false},
        {"start frame itself", {10, 10, false, false, 0, 0}, {10}, false, true, false},
        {"state behind the frame", {15, 10, false, true, 3, 1}, {13, 14, 15}, false, false, false},
        {"state exactly at the frame", {13, 10, false, true, 3, 1}, {13}, false, false, false},
        {"state past the frame", {11, 10, false, true, 3, 1}, {10, 11}, false, true, true},
        {"keyframes not encoded", {12, 10, false, true, 2, 0}, {12}, false, true, false},
        {"backward, no state", {7, 10, false, false, 0, 0}, {10, 9, 8, 7}, false, true, false},
        {"backward, state behind", {5, 10, false, true, 3, 1}, {7, 6, 5}, false, false, false},
        {"backward, state past", {9, 10, false, true, 3, 1}, {10, 9}, false, true, true},
        {"corrupt count", {12, 10, false, true, -100000, 1}, {10, 11, 12}, false, true, true},
    };
    for (const Row& r : rows) {
        const WalkPlan plan = planWalk(r.in);
        EXPECT_EQ(plan.framesToRun, r.frames) << r.name;
        EXPECT_EQ(plan.computeNothing, r.nothing) << r.name;
        EXPECT_EQ(plan.needInit, r.init) << r.name;
        EXPECT_EQ(plan.restart, r.restart) << r.name;
    }
    EXPECT_EQ(restartWarning(11, 13),
              "Host attempted to render a frame (11) that is past the expected next frame (13). The previously cached "
              "result was likely purged from memory. Render must restart from beginning of sequence!");
}

TEST(MaskPropagationSequence, SubmodelFiles) {
    QT_StateHeader header;
    header.h = 512;
    header.w = 1024;
    header.o = 2;
    header.t = 8;
    const auto info = [](bool learned, bool dynamic, bool override, std::vector<std::string> dims) {
        return QT_SubmodelInfo::read({{"learned", learned},
                                      {"model_supports_dynamic_shapes", dynamic},
                                      {"override_dynamic_shapes", override},
                                      {"shapes_depend_on", dims}});
    };
    struct Row {
        QT_SubmodelInfo info;
        const char* name;
        std::string file, cacheName, options;
    };
    const Row rows[] = {
        {info(true, false, false, {"h", "w"}), "qe", "qt/base_qe_512x1024", "qe_512x1024", ""},
        {info(false, false, false, {"o", "h_out", "w_out"}), "get_masks", "qt/qt_get_masks_720x1280x2",
         "get_masks_720x1280x2", ""},
        {info(false, false, false, {"o_h_out_w_out", "th16w16"}), "x", "qt/qt_x_720x1280x512x1024x2",
         "x_720x1280x512x1024x2", ""},
        {info(true, true, true, {"th16w16", "o"}), "get_readout", "qt/base_get_readout",
         "get_readout_512x1024x2", R"({"free_dim_overrides":{"o":2,"th16w16":16384}})"},
        {info(false, true, false, {}), "rle_encoder", "qt/qt_rle_encoder", "rle_encoder", ""},
    };
    for (const Row& r : rows) {
        const SubmodelLoad load = submodelLoad(r.name, r.info, "base", header, 720, 1280);
        EXPECT_EQ(load.file, r.file) << r.name;
        EXPECT_EQ(load.cacheName, r.cacheName) << r.name;
        EXPECT_EQ(load.options, r.options) << r.name;
    }
    try {
        submodelLoad("y", info(false, true, true, {"depth"}), "base", header, 720, 1280);
        ADD_FAILURE() << "unknown dimension accepted";
    } catch (const ML::Exception& e) {
        EXPECT_NE(std::string(e.what()).find("internal error ! unrecognized dim name: depth"), std::string::npos);
    }
}

TEST(MaskPropagationSequence, ModelParams) {
    const nlohmann::json params = {{"execShapes", {{512, 1024, 3}, {256, 256}}},
                                   {"tMax", 8},
                                   {"pMax", 3},
                                   {"objsMax", 4},
                                   {"submodelsInfo", {{"qe", nlohmann::json::object()}, {"f", nlohmann::json::object()}}}};
    const QT_ModelParams p = QT_ModelParams::read("base", params);
    EXPECT_TRUE(p.hasExecShape(512, 1024));
    EXPECT_FALSE(p.hasExecShape(1024, 512));
    EXPECT_EQ(p.tMax, 8);
    EXPECT_EQ(p.pMax, 3);
    EXPECT_EQ(p.objsMax, 4);
    EXPECT_EQ(p.submodelNames.size(), 2u);
    nlohmann::json missing = params;
    missing.erase("tMax");
    EXPECT_THROW(QT_ModelParams::read("base", missing), nlohmann::json::exception);
}
