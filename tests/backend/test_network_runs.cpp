// Running networks through BackendModel on the ONNX Runtime backend.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

class OrtRuns : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);

    // Runs the model on [1,3,size,size] inputs of 0, 0.25, 0.5, ... and checks every output.
    void expectAdds(BackendModel& model, float addend, u64 size, const std::string& what) {
        std::vector<float> in(3 * size * size), want(in.size());
        for (size_t i = 0; i < in.size(); ++i) {
            in[i] = static_cast<float>(i % 64) * 0.25f;
            want[i] = in[i] + addend;
        }
        EXPECT_EQ(runCastAdd(*context, model, in, size, size), want) << what;
    }
};

TEST_F(OrtRuns, CastAddNetworksRunWithAnySizeAndLoadOptions) {
    const struct { const char* path; const char* options; float addend; std::vector<u64> sizes; } cases[] = {
        {"add_one", "", 1, {1, 7, 32, 3}},
        {"nets\\add_two", "", 2, {2}},  // backslashes are accepted
        {"add_one", R"({"free_dim_overrides":{"height":5,"width":5}})", 1, {5}},
        {"add_one", R"({"intra_op_threads":1})", 1, {4}},
    };
    for (const auto& c : cases) {
        auto model = context->loadModel(c.path, c.options);
        for (u64 size : c.sizes) expectAdds(*model, c.addend, size, std::string(c.path) + " " + c.options);
    }
    // Overridden extents refuse other sizes.
    auto fixed = context->loadModel("add_one", R"({"free_dim_overrides":{"height":4,"width":6}})");
    EXPECT_TRUE(contains(exceptionOf([&] { runCastAdd(*context, *fixed, std::vector<float>(48), 4, 4); }),
                         "expects F16 [1,3,4,6]"));
}

TEST_F(OrtRuns, TwoInputNetworkBindsByPositionAndViewsBindLikeTensors) {
    auto model = context->loadModel("sum");
    auto scratch = context->createTensor({64}, U8);
    auto a = scratch->view({1, 4}, F32);
    auto b = context->createTensor({1, 4}, F32);
    auto sum = context->createTensor({1, 4}, F32);
    const std::vector<float> av{1, 2, 3, 4}, bv{10, 20, 30, 40};
    a->upload(av.data());
    b->upload(bv.data());
    model->run({a, b}, {sum});
    std::vector<float> result(4);
    sum->download(result.data());
    EXPECT_EQ(result, (std::vector<float>{11, 22, 33, 44}));
    // Bindings change between runs: the same tensors in other places.
    model->run({sum, a}, {b});
    b->download(result.data());
    EXPECT_EQ(result, (std::vector<float>{12, 24, 36, 48}));
}

// Two threads together: each runs a network many times on inputs that change every run, taking
// the network from next() every 1000 runs; outputs other than input + addend count as wrong.
static int wrongInTwoThreads(ModelContext& context, const std::function<std::shared_ptr<BackendModel>(int thread)>& next,
                      const float addends[2]) {
    std::atomic<int> wrong{0}, ready{0};
    const auto work = [&](int thread) {
        try {
            auto x = context.createTensor({1, 3, 4, 4}, F16);
            auto y = context.createTensor({1, 3, 4, 4}, F16);
            std::vector<Imath::half> out(48);
            std::shared_ptr<BackendModel> model;
            for (++ready; ready < 2;) std::this_thread::yield();
            for (int i = 0; i < 10000; ++i) {
                if (i % 1000 == 0) model = next(thread);
                const float value = static_cast<float>(100 * thread + i % 64);
                const auto in = halves(std::vector<float>(48, value));
                x->upload(in.data());
                model->run({x}, {y});
                y->download(out.data());
                for (const Imath::half h : out)
                    if (static_cast<float>(h) != value + addends[thread]) ++wrong;
            }
        } catch (...) {
            ++wrong;
        }
    };
    std::thread first(work, 0), second(work, 1);
    first.join();
    second.join();
    return wrong;
}

TEST_F(OrtRuns, TwoThreadsLoadAndRunTwoNetworksAtOnce) {
    const float addends[2] = {1.0f, 2.0f};
    const auto load = [&](int thread) { return context->loadModel(thread ? "nets/add_two" : "add_one"); };
    EXPECT_EQ(wrongInTwoThreads(*context, load, addends), 0);
}

TEST_F(OrtRuns, OneNetworkSharedByTwoThreadsStaysConsistent) {
    // The model's own lock keeps each thread's bindings together for its run.
    auto model = context->loadModel("add_one");
    const float addends[2] = {1.0f, 1.0f};
    EXPECT_EQ(wrongInTwoThreads(*context, [&](int) { return model; }, addends), 0);
}
