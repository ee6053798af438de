// The run-length coding of propagated masks, run with ONNX Runtime: chunks of mask values through
// the encoder and back through the decoder come out exactly as they went in, with the runs a
// C++ count gives, for random and adversarial masks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "ToolTestUtil.h"

using namespace tooltest;

namespace {

constexpr int64_t kChunk = 2100000;
constexpr float kLevels = 127.0f;

struct Runs {
    std::vector<float> levels, lengths;
};

// Runs of equal levels of values on the grid of the encoder.
Runs runsOf(const std::vector<float>& values) {
    Runs r;
    for (size_t i = 0; i < values.size(); ++i) {
        const float level = std::round(values[i] * kLevels);
        if (i == 0 || level != r.levels.back()) {
            r.levels.push_back(level);
            r.lengths.push_back(0.0f);
        }
        r.lengths.back() += 1.0f;
    }
    return r;
}

}  // namespace

TEST(MaskRle, RoundTripIsExact) {
    Network encoder(packageModelFolder() / "qt" / "qt_rle_encoder.onnx");
    Network decoder(packageModelFolder() / "qt" / "qt_rle_decoder.onnx");
    std::mt19937 rng(7);
    struct Row {
        const char* name;
        std::function<float(int64_t)> value;
    };
    const Row rows[] = {
        {"all zero", [](int64_t) { return 0.0f; }},
        {"all one", [](int64_t) { return 1.0f; }},
        {"alternating pixels", [](int64_t i) { return static_cast<float>(i % 2); }},
        {"random levels", [&](int64_t) { return static_cast<float>(rng() % 128) / kLevels; }},
        {"random binary blocks", [&](int64_t i) { return static_cast<float>((i / (1 + rng() % 5000) + i / 997) % 2); }},
        {"soft edges of a disc",
         [](int64_t i) {
             const float x = static_cast<float>(i % 1500) - 700.0f, y = static_cast<float>(i / 1500) - 700.0f;
             return std::round(std::clamp(300.0f - std::sqrt(x * x + y * y), 0.0f, 1.0f) * kLevels) / kLevels;
         }},
    };
    for (const Row& r : rows) {
        std::vector<float> values(static_cast<size_t>(kChunk));
        for (int64_t i = 0; i < kChunk; ++i) values[static_cast<size_t>(i)] = r.value(i);
        const Tensor plain = makeTensor(ML::F16, {kChunk}, values);
        const std::vector<Tensor> coded = encoder.run({plain});
        ASSERT_EQ(coded.size(), 3u);
        const Runs expected = runsOf(plain.values);
        const size_t n = expected.levels.size();
        ASSERT_EQ(coded[0].values.at(0), static_cast<float>(n)) << r.name;
        EXPECT_EQ(coded[1].type, ML::I8);
        for (size_t k = 0; k < static_cast<size_t>(kChunk); ++k) {
            ASSERT_EQ(coded[1].values[k], k < n ? expected.levels[k] : 0.0f) << r.name << " run " << k;
            ASSERT_EQ(coded[2].values[k], k < n ? expected.lengths[k] : 0.0f) << r.name << " run " << k;
        }
        const Tensor decoded = decoder.run1({coded[0], coded[1], coded[2]});
        ASSERT_EQ(decoded.values.size(), plain.values.size());
        for (size_t i = 0; i < plain.values.size(); ++i)
            ASSERT_EQ(decoded.values[i], plain.values[i]) << r.name << " element " << i;
    }
}

// The decoder reads only the first N runs: what lies behind them in the tensors (the next chunk
// of a stream, in the plug-in) does not matter, and values off the grid round to the nearest level.
TEST(MaskRle, DecoderReadsOnlyItsRuns) {
    Network encoder(packageModelFolder() / "qt" / "qt_rle_encoder.onnx");
    Network decoder(packageModelFolder() / "qt" / "qt_rle_decoder.onnx");
    std::vector<float> values(static_cast<size_t>(kChunk), 0.3f);
    for (size_t i = 1000; i < 5000; ++i) values[i] = 0.9f;
    std::vector<Tensor> coded = encoder.run({makeTensor(ML::F16, {kChunk}, values)});
    ASSERT_EQ(coded[0].values[0], 3.0f);
    for (size_t k = 3; k < 100; ++k) {
        coded[1].values[k] = static_cast<float>(k % 100);
        coded[2].values[k] = 12345.0f;
    }
    const Tensor decoded = decoder.run1(coded);
    for (size_t i = 0; i < values.size(); ++i)
        ASSERT_EQ(decoded.values[i], makeTensor(ML::F16, {1}, {std::round(values[i] * kLevels) / kLevels}).values[0])
            << i;
}
