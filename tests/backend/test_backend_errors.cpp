// Failures of network loads and runs on the ONNX Runtime backend: what the plug-in reports, and
// that nothing is torn down by them.
#include <gtest/gtest.h>

#include <fstream>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

namespace {

template <class F>
Exception exceptionOf(F&& body) {
    try {
        body();
    } catch (const Exception& e) {
        return e;
    }
    ADD_FAILURE() << "no ML::Exception";
    return Exception(Exception::PLUGIN, Exception::INTERNAL, "none");
}

bool contains(const Exception& e, const std::string& part) {
    return std::string(e.what()).find(part) != std::string::npos;
}

}  // namespace

class OrtErrors : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);
};

TEST_F(OrtErrors, MissingNetworkIsAPackageProblemShownWithForwardSlashes) {
    const Exception e = exceptionOf([&] { context->loadModel("nets\\missing"); });
    EXPECT_EQ(e.source(), Exception::BACKEND);
    EXPECT_EQ(e.code(), Exception::HOST);
    const std::string text = e.what();
    EXPECT_EQ(text.rfind("BACKEND/HOST: Error loading model: nets/missing: ", 0), 0u) << text;
    EXPECT_TRUE(contains(e, (models.path / "nets/missing.onnx").string())) << text;
}

TEST_F(OrtErrors, CorruptNetworkFileIsInternal) {
    std::ofstream(models.path / "broken.onnx") << "not a network";
    const Exception e = exceptionOf([&] { context->loadModel("broken"); });
    EXPECT_EQ(e.code(), Exception::INTERNAL);
    EXPECT_TRUE(contains(e, "Error loading model: broken: Network 'broken' could not be loaded")) << e.what();
}

TEST_F(OrtErrors, BadLoadOptionsAreRefused) {
    for (const char* options : {"{", "[1]", R"({"free_dim_overrides":{"height":"tall"}})",
                                R"({"free_dim_overrides":{"width":-3}})", R"({"intra_op_threads":0.5})"}) {
        const Exception e = exceptionOf([&] { context->loadModel("add_one", options); });
        EXPECT_EQ(e.code(), Exception::INTERNAL) << options;
        EXPECT_TRUE(contains(e, "Network 'add_one': ")) << e.what();
    }
}

TEST_F(OrtErrors, WrongElementTypeIsNamedBeforeRunning) {
    auto model = context->loadModel("add_one");
    auto x = context->createTensor({1, 3, 2, 2}, F32);
    auto y = context->createTensor({1, 3, 2, 2}, F16);
    const Exception e = exceptionOf([&] { model->run({x}, {y}); });
    EXPECT_EQ(e.source(), Exception::BACKEND);
    EXPECT_EQ(e.code(), Exception::INTERNAL);
    EXPECT_STREQ(e.what(),
                 "BACKEND/INTERNAL: Network 'add_one' input 0 'x' expects F16 [1,3,height,width], "
                 "the tensor is F32 [1,3,2,2]");
}

TEST_F(OrtErrors, WrongRankOrFixedExtentIsNamed) {
    auto model = context->loadModel("sum");
    auto good = context->createTensor({1, 4}, F32);
    auto flat = context->createTensor({4}, F32);
    auto wide = context->createTensor({1, 5}, F32);
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({good, flat}, {good}); }),
                         "Network 'sum' input 1 'b' expects F32 [1,4], the tensor is F32 [4]"));
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({good, good}, {wide}); }),
                         "Network 'sum' output 0 'sum' expects F32 [1,4], the tensor is F32 [1,5]"));
}

TEST_F(OrtErrors, TooManyOrTooFewBindingsAreRefused) {
    auto model = context->loadModel("sum");
    auto t = context->createTensor({1, 4}, F32);
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({t, t, t}, {t}); }),
                         "Network 'sum' input 2: the network has 2 inputs"));
    const Exception few = exceptionOf([&] { model->run({t}, {t}); });
    EXPECT_STREQ(few.what(),
                 "BACKEND/INTERNAL: Error running model sum : Network 'sum' has 2 inputs and 1 outputs, "
                 "the run was given 1 inputs and 1 outputs");
    // Bindings left from an earlier run do not count for the next one.
    model->run({t, t}, {t});
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({}, {}); }), "the run was given 0 inputs and 0 outputs"));
}

TEST_F(OrtErrors, FailedRunNamesTheNetworkAndLeavesItUsable) {
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

TEST_F(OrtErrors, FailedBindingLeavesTheModelUsable) {
    auto model = context->loadModel("add_one");
    auto wrong = context->createTensor({3}, F16);
    EXPECT_THROW(model->run({wrong}, {wrong}), Exception);
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(3, 1.0f), 1, 1), std::vector<float>(3, 2.0f));
}

TEST_F(OrtErrors, RefitAndWeightSelectionAreNotSupported) {
    auto model = context->loadModel("add_one");
    EXPECT_TRUE(contains(exceptionOf([&] { model->refit("weights/other"); }), "cannot refit"));
    auto x = context->createTensor({1, 3, 1, 1}, F16);
    EXPECT_TRUE(contains(exceptionOf([&] { model->run({x}, {x}, 3); }), "has no weights 3"));
}
