// Running networks through BackendModel on the ONNX Runtime backend.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BackendTestUtil.h"

using namespace ML;
using namespace BackendTest;

class OrtRuns : public ::testing::Test {
protected:
    ModelFolder models;
    std::shared_ptr<ModelContext> context = openCpuBackend(models.path);
};

TEST_F(OrtRuns, CastAddNetworkAddsItsConstant) {
    auto model = context->loadModel("add_one");
    const std::vector<float> in{0.0f, 1.5f, -2.0f, 10.0f, 0.25f, -0.5f};  // 1x3x1x2
    EXPECT_EQ(runCastAdd(*context, *model, in, 1, 2), (std::vector<float>{1.0f, 2.5f, -1.0f, 11.0f, 1.25f, 0.5f}));
}

TEST_F(OrtRuns, FreeExtentsTakeAnySizeRunAfterRun) {
    auto model = context->loadModel("add_one");
    for (u64 size : {1u, 7u, 32u, 3u}) {
        const std::vector<float> in(3 * size * size, 4.0f);
        EXPECT_EQ(runCastAdd(*context, *model, in, size, size), std::vector<float>(in.size(), 5.0f)) << size;
    }
}

TEST_F(OrtRuns, BackslashesInTheNetworkPathAreAccepted) {
    auto model = context->loadModel("nets\\add_two");
    EXPECT_EQ(model->getPath(), std::filesystem::path("nets\\add_two"));
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(3, 1.0f), 1, 1), std::vector<float>(3, 3.0f));
}

TEST_F(OrtRuns, FreeDimensionOverridesFixTheSize) {
    auto model = context->loadModel("add_one", R"({"free_dim_overrides":{"height":4,"width":6}})");
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(72, 1.0f), 4, 6), std::vector<float>(72, 2.0f));
    try {
        runCastAdd(*context, *model, std::vector<float>(48, 1.0f), 4, 4);
        FAIL() << "a width other than the override must be refused";
    } catch (const Exception& e) {
        EXPECT_NE(std::string(e.what()).find("expects F16 [1,3,4,6]"), std::string::npos) << e.what();
    }
}

TEST_F(OrtRuns, OwnThreadPoolOptionRunsTheSame) {
    auto model = context->loadModel("add_one", R"({"intra_op_threads":1})");
    EXPECT_EQ(runCastAdd(*context, *model, std::vector<float>(12, 2.0f), 2, 2), std::vector<float>(12, 3.0f));
}

TEST_F(OrtRuns, TwoInputNetworkBindsByPosition) {
    auto model = context->loadModel("sum");
    auto a = context->createTensor({1, 4}, F32);
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

TEST_F(OrtRuns, ViewsCanBeBoundLikeTensors) {
    auto model = context->loadModel("add_one");
    auto scratch = context->createTensor({4096}, U8);
    auto x = scratch->view({1, 3, 2, 2}, F16);
    auto y = context->createTensor({1, 3, 2, 2}, F16);
    const auto in = halves(std::vector<float>(12, 7.0f));
    x->upload(in.data());
    model->run({x}, {y});
    std::vector<Imath::half> out(12);
    y->download(out.data());
    EXPECT_EQ(floats(out), std::vector<float>(12, 8.0f));
}

TEST_F(OrtRuns, TwoThreadsRunTwoNetworksAtOnce) {
    auto one = context->loadModel("add_one");
    auto two = context->loadModel("nets/add_two");
    std::atomic<int> wrong{0};
    std::atomic<int> failures{0};
    const auto work = [&](BackendModel& model, float addend, float start) {
        try {
            auto x = context->createTensor({1, 3, 16, 16}, F16);
            auto y = context->createTensor({1, 3, 16, 16}, F16);
            std::vector<Imath::half> out(768);
            for (int i = 0; i < 200; ++i) {
                const float value = start + static_cast<float>(i % 50);
                const auto in = halves(std::vector<float>(768, value));
                x->upload(in.data());
                model.run({x}, {y});
                y->download(out.data());
                for (const Imath::half h : out)
                    if (static_cast<float>(h) != value + addend) ++wrong;
            }
        } catch (...) {
            ++failures;
        }
    };
    std::thread first([&] { work(*one, 1.0f, 0.0f); });
    std::thread second([&] { work(*two, 2.0f, 100.0f); });
    first.join();
    second.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
}

TEST_F(OrtRuns, ThreadsLoadNetworksAndCreateTensorsAtOnce) {
    std::atomic<int> failures{0};
    const auto work = [&](const char* name, float addend) {
        try {
            for (int i = 0; i < 5; ++i) {
                auto model = context->loadModel(name);
                if (runCastAdd(*context, *model, std::vector<float>(12, 1.0f), 2, 2) !=
                    std::vector<float>(12, 1.0f + addend))
                    ++failures;
            }
        } catch (...) {
            ++failures;
        }
    };
    std::thread first(work, "add_one", 1.0f);
    std::thread second(work, "nets/add_two", 2.0f);
    first.join();
    second.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST_F(OrtRuns, OneNetworkSharedByTwoThreadsStaysConsistent) {
    // The model's own lock keeps each thread's bindings together for its run.
    auto model = context->loadModel("add_one");
    std::atomic<int> wrong{0};
    const auto work = [&](float value) {
        auto x = context->createTensor({1, 3, 4, 4}, F16);
        auto y = context->createTensor({1, 3, 4, 4}, F16);
        const auto in = halves(std::vector<float>(48, value));
        std::vector<Imath::half> out(48);
        x->upload(in.data());
        for (int i = 0; i < 200; ++i) {
            model->run({x}, {y});
            y->download(out.data());
            for (const Imath::half h : out)
                if (static_cast<float>(h) != value + 1.0f) ++wrong;
        }
    };
    std::thread first(work, 3.0f);
    std::thread second(work, 30.0f);
    first.join();
    second.join();
    EXPECT_EQ(wrong.load(), 0);
}
