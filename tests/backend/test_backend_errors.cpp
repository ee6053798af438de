// Failures of network loads and runs on the ONNX Runtime backend: what the plug-in reports, and
// that nothing is torn down by them.
#include <gtest/gtest.h>

#include <fstream>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

class OrtErrors : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);
};

TEST_F(OrtErrors, LoadFailuresNameTheNetwork) {
    const Exception missing = exceptionOf([&] { context->loadModel("nets\\missing"); });
    EXPECT_EQ(missing.source(), Exception::BACKEND);
    EXPECT_EQ(missing.code(), Exception::HOST);  // a package problem
    EXPECT_EQ(std::string(missing.what()).rfind("BACKEND/HOST: Error loading model: nets/missing: ", 0), 0u)
        << missing.what();
    EXPECT_TRUE(contains(missing, (models.path / "nets/missing.onnx").string())) << missing.what();

    std::ofstream(models.path / "broken.onnx") << "not a network";
    const Exception broken = exceptionOf([&] { context->loadModel("broken"); });
    EXPECT_EQ(broken.code(), Exception::INTERNAL);
    EXPECT_TRUE(contains(broken, "Error loading model: broken: Network 'broken' could not be loaded")) << broken.what();

    for (const char* options : {"{", "[1]", R"({"free_dim_overrides":{"height":"tall"}})",
                                R"({"free_dim_overrides":{"width":-3}})", R"({"intra_op_threads":0.5})"}) {
        const Exception e = exceptionOf([&] { context->loadModel("add_one", options); });
        EXPECT_EQ(e.code(), Exception::INTERNAL) << options;
        EXPECT_TRUE(contains(e, "Network 'add_one': ")) << e.what();
    }
}

TEST_F(OrtErrors, BindingsThatDoNotFitAreNamedBeforeRunning) {
    auto addOne = context->loadModel("add_one");
    auto sum = context->loadModel("sum");
    auto f32 = context->createTensor({1, 3, 2, 2}, F32);
    auto f16 = context->createTensor({1, 3, 2, 2}, F16);
    auto t = context->createTensor({1, 4}, F32);
    auto flat = context->createTensor({4}, F32);
    auto wide = context->createTensor({1, 5}, F32);
    const struct { BackendModel* model; TensorList in, out; const char* text; } cases[] = {
        {addOne.get(), {f32}, {f16},
         "BACKEND/INTERNAL: Network 'add_one' input 0 'x' expects F16 [1,3,height,width], the tensor is F32 [1,3,2,2]"},
        {sum.get(), {t, flat}, {t}, "BACKEND/INTERNAL: Network 'sum' input 1 'b' expects F32 [1,4], the tensor is F32 [4]"},
        {sum.get(), {t, t}, {wide},
         "BACKEND/INTERNAL: Network 'sum' output 0 'sum' expects F32 [1,4], the tensor is F32 [1,5]"},
        {sum.get(), {t, t, t}, {t}, "BACKEND/INTERNAL: Network 'sum' input 2: the network has 2 inputs"},
        {sum.get(), {t}, {t},
         "BACKEND/INTERNAL: Error running model sum : Network 'sum' has 2 inputs and 1 outputs, the run was given 1 "
         "inputs and 1 outputs"},
    };
    for (const auto& c : cases) {
        const Exception e = exceptionOf([&] { c.model->run(c.in, c.out); });
        EXPECT_EQ(e.source(), Exception::BACKEND);
        EXPECT_STREQ(e.what(), c.text);
    }
    // Bindings left from an earlier run do not count for the next one.
    sum->run({t, t}, {t});
    EXPECT_TRUE(contains(exceptionOf([&] { sum->run({}, {}); }), "the run was given 0 inputs and 0 outputs"));
}

TEST_F(OrtErrors, FailedRunLeavesTheNetworkUsable) {
    // Input and output extents disagree; only the run itself can find that out.
    auto model = context->loadModel("add_one");
    auto x = context->createTensor({1, 3, 2, 2}, F16);
    auto y = context->createTensor({1, 3, 4, 4}, F16);
    const Exception e = exceptionOf([&] { model->run({x}, {y}); });
    EXPECT_EQ(e.code(), Exception::INTERNAL);
    const std::string prefix = "BACKEND/INTERNAL: Error running model add_one : Network 'add_one' failed to run: ";
    EXPECT_EQ(std::string(e.what()).rfind(prefix, 0), 0u) << e.what();
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(12, 1.0f), 2, 2), std::vector<float>(12, 2.0f));
}

TEST_F(OrtErrors, RefitAndWeightSelectionAreNotSupported) {
    auto model = context->loadModel("add_one");
    EXPECT_TRUE(contains(exceptionOf([&] { model->refit("weights/other"); }), "cannot refit"));
    auto x = context->createTensor({1, 3, 1, 1}, F16);
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({x}, {x}, 3); }), "has no weights 3"));
}
