// The gamma converter, the statistics finder and the HDR normaliser on the CPU backend. Their networks are
// written by the package tool's library into a temporary model folder; results are checked against the
// arithmetic worked out here.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "GammaStats.h"
#include "ML/Exception.h"
#include "Normalize.h"
#include "Plugin/ImageStatsFinder.h"
#include "Plugin/ImageTensorConverter.h"
#include "Plugin/ImageTensorGammaConverter.h"
#include "Plugin/ImageTensorHDRNormalizer.h"
#include "Plugin/ModelContext.h"
#include "util/TempDir.h"
#include "util/TensorValues.h"

namespace {

using ML::u32;
using ML::u64;
using Tensor = std::shared_ptr<ML::BackendTensor>;

constexpr int kHeight = 4;
constexpr int kWidth = 6;
constexpr u64 kChannels = 3;

const char* typeText(u32 type) { return type == ML::F16 ? "F16" : "F32"; }

// One backend over a model folder holding the gamma and statistics networks and the normalisers for 1 and 2
// images of 4x6, in F16 and F32.
class HelperNetworks : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder = std::make_unique<TempDir>();
        qpkg::writeGammaAndStatsNetworks(folder->path());
        for (u32 type : {ML::F16, ML::F32})
            for (int64_t n : {1, 2})
                qpkg::writeNormalizerNetworks(folder->path(), type, qpkg::TensorSize{n, kHeight, kWidth});
        context = std::make_shared<ML::ModelContext>("ort_cpu", 0, folder->path(), folder->path());
    }
    static void TearDownTestSuite() {
        context.reset();
        folder.reset();
    }
    static Tensor tensor(const std::vector<u64>& shape, u32 type) { return context->createTensor(shape, type); }
    static ML::Ptr<ML::Image> description(u32 type, u32 format = ML::Image::RGB) {
        return ML::makeDescription(kHeight, kWidth, format, ML::Image::CHW, type);
    }

    static inline std::unique_ptr<TempDir> folder;
    static inline std::shared_ptr<ML::ModelContext> context;
};

using tensorvalues::download;
using tensorvalues::upload;

// The values as the tensor of that type holds them.
std::vector<float> stored(u32 type, std::vector<float> values) {
    if (type == ML::F16)
        for (float& v : values) v = static_cast<float>(Imath::half(v));
    return values;
}

// count values spread evenly over lo..hi, in an order that puts neither end first or last.
std::vector<float> spread(u64 count, float lo, float hi) {
    std::vector<float> values(count);
    for (u64 i = 0; i < count; ++i) {
        const u64 k = (i * 7 + 3) % count;
        values[i] = lo + (hi - lo) * static_cast<float>(k) / static_cast<float>(count - 1);
    }
    return values;
}

float signedPow(float x, float e) { return std::copysign(std::pow(std::fabs(x), e), x); }

void expectClose(const std::vector<float>& got, const std::vector<float>& want, float tolerance,
                 const std::string& what) {
    ASSERT_EQ(got.size(), want.size()) << what;
    for (size_t i = 0; i < want.size(); ++i)
        EXPECT_NEAR(got[i], want[i], tolerance * std::max(1.0f, std::fabs(want[i]))) << what << " element " << i;
}

// The finished text of the plug-in's INTERNAL exception, or why there is none.
std::string internalError(const std::function<void()>& f) {
    try {
        f();
    } catch (const ML::Exception& e) {
        if (e.source() != ML::Exception::PLUGIN || e.code() != ML::Exception::INTERNAL)
            return std::string("(wrong source or code) ") + e.what();
        return e.what();
    }
    return "(nothing thrown)";
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// ---- Gamma converter ----

TEST_F(HelperNetworks, GammaConverterReencodesWithThePowerOfTheGammaRatio) {
    // Decoding with the source gamma and encoding with the target: sign(x)·|x|^(from/to).
    const struct { float from, to; } cases[] = {{2.2f, 1.0f}, {1.0f, 2.2f}, {2.4f, 1.8f}, {0.5f, 2.0f}};
    constexpr u32 batch = 2;
    const u64 count = batch * kChannels * kHeight * kWidth;
    for (u32 type : {ML::F16, ML::F32}) {
        ML::ImageTensorGammaConverter converter(context);
        converter.init(description(type), 1, batch);
        EXPECT_EQ(converter.getElementCount(), static_cast<ML::i64>(count));
        const std::vector<float> input = stored(type, spread(count, -0.6f, 2.5f));
        for (const auto& c : cases) {
            const std::string what =
                std::string(typeText(type)) + " " + std::to_string(c.from) + " -> " + std::to_string(c.to);
            Tensor t = tensor({batch, kChannels, kHeight, kWidth}, type);
            upload(*t, input);
            converter.convert(t, c.from, c.to, 0);
            std::vector<float> want;
            for (float x : input) want.push_back(signedPow(x, c.from / c.to));
            expectClose(download(*t), want, type == ML::F16 ? 3e-3f : 1e-5f, what);
        }
    }
}

TEST_F(HelperNetworks, GammaConverterLeavesTheTensorAloneWhenNothingWouldChange) {
    const struct {
        float from, to;
    } cases[] = {{2.2f, 2.2000001f}, {2.2f, 2.200009f}, {-1.0f, 2.2f}, {2.2f, -1.0f}, {0.0f, 2.2f}, {-1.0f, -1.0f}};
    const u64 count = kChannels * kHeight * kWidth;
    for (u32 type : {ML::F16, ML::F32}) {
        const std::vector<float> input = stored(type, spread(count, -0.6f, 2.5f));
        for (const auto& c : cases) {
            const std::string what =
                std::string(typeText(type)) + " " + std::to_string(c.from) + " -> " + std::to_string(c.to);
            ML::ImageTensorGammaConverter converter(context);
            converter.init(description(type), 1, 1);
            Tensor t = tensor({1, kChannels, kHeight, kWidth}, type);
            upload(*t, input);
            converter.convert(t, c.from, c.to, 0);
            EXPECT_EQ(download(*t), input) << what;
            EXPECT_EQ(converter.slotWorkTensor(0), nullptr) << what << ": a skipped conversion makes no tensors";
        }
    }
    // Just past the threshold the conversion runs.
    ML::ImageTensorGammaConverter converter(context);
    converter.init(description(ML::F32), 1, 1);
    converter.convert(tensor({1, kChannels, kHeight, kWidth}, ML::F32), 2.2f, 2.20002f, 0);
    EXPECT_NE(converter.slotWorkTensor(0), nullptr);
}

TEST_F(HelperNetworks, GammaConverterMakesSlotTensorsOnFirstUseAndUploadsTheGammasEveryCall) {
    for (u32 type : {ML::F16, ML::F32}) {
        const std::string what = typeText(type);
        ML::ImageTensorGammaConverter converter(context);
        converter.init(description(type), 2, 1);
        EXPECT_EQ(converter.slotWorkTensor(0), nullptr) << what;
        EXPECT_EQ(converter.slotWorkTensor(1), nullptr) << what;

        const u64 count = kChannels * kHeight * kWidth;
        const std::vector<float> input = stored(type, spread(count, -1.0f, 1.2f));
        Tensor t = tensor({1, kChannels, kHeight, kWidth}, type);
        upload(*t, input);
        converter.convert(t, 2.0f, 1.0f, 0);  // x^2
        const Tensor first = converter.slotWorkTensor(0);
        ASSERT_NE(first, nullptr) << what;
        EXPECT_EQ(first->getShape(), std::vector<u64>{count}) << what;
        EXPECT_EQ(first->getDataType(), type) << what;
        EXPECT_EQ(converter.slotWorkTensor(1), nullptr) << what << ": other slots stay empty";

        converter.convert(t, 3.0f, 1.0f, 0);  // (x^2)^3; stale gammas would give x^4
        EXPECT_EQ(converter.slotWorkTensor(0), first) << what << ": the slot's tensors are reused";
        // Each result is stored in the tensor's type before the next step works on it.
        std::vector<float> squared, sixth, back;
        for (float x : input) squared.push_back(signedPow(x, 2.0f));
        for (float x : stored(type, squared)) sixth.push_back(signedPow(x, 3.0f));
        expectClose(download(*t), sixth, type == ML::F16 ? 3e-3f : 1e-5f, what);

        converter.convert(t, 1.0f, 6.0f, 1);  // the sixth root, on the other slot
        ASSERT_NE(converter.slotWorkTensor(1), nullptr) << what;
        EXPECT_NE(converter.slotWorkTensor(1), first) << what;
        for (float x : stored(type, sixth)) back.push_back(signedPow(x, 1.0f / 6.0f));
        expectClose(download(*t), back, type == ML::F16 ? 3e-3f : 1e-5f, what);
    }
}

TEST_F(HelperNetworks, GammaConverterRefusesOtherTypesAndAlpha) {
    const struct {
        u32 type, format;
        const char* message;
    } cases[] = {
        {ML::U8, ML::Image::RGB, "gamma converter only works on float32 or float16"},
        {ML::U8, ML::Image::RGBA, "gamma converter only works on float32 or float16"},
        {ML::F16, ML::Image::RGBA, "gamma converter does not handle alpha channel yet?"},
        {ML::F32, ML::Image::ARGB, "gamma converter does not handle alpha channel yet?"},
    };
    for (const auto& c : cases) {
        ML::ImageTensorGammaConverter converter(context);
        const std::string text = internalError([&] { converter.init(description(c.type, c.format), 1, 1); });
        EXPECT_TRUE(endsWith(text, c.message)) << text;
        EXPECT_FALSE(converter.isInitialised()) << c.message;
    }
}

// ---- Statistics ----

TEST_F(HelperNetworks, StatsFinderGivesMinimumAndMaximumOfAllImagesAndChannels) {
    const struct { float lo, hi; } cases[] = {{-0.75f, 3.5f}, {0.25f, 0.5f}, {-2.0f, -1.0f}};
    constexpr u64 batch = 2;
    const u64 count = batch * kChannels * kHeight * kWidth;
    for (u32 type : {ML::F16, ML::F32}) {
        ML::ImageStatsFinder finder(context);
        finder.init(type);
        for (const auto& c : cases) {
            const std::string what = std::string(typeText(type)) + " " + std::to_string(c.lo);
            // Mid values everywhere, the extremes in the last channel of the second image.
            std::vector<float> values(count, 0.5f * (c.lo + c.hi));
            values[count - 5] = c.hi;
            values[count - 11] = c.lo;
            Tensor t = tensor({batch, kChannels, kHeight, kWidth}, type);
            upload(*t, values);
            float minimum = 99.0f, maximum = -99.0f;
            finder.find(t, minimum, maximum);
            EXPECT_EQ(minimum, c.lo) << what;
            EXPECT_EQ(maximum, c.hi) << what;
        }
    }
}

TEST_F(HelperNetworks, StatsFinderRefusesOtherTypes) {
    for (u32 type : {ML::U8, ML::I32, ML::U16}) {
        ML::ImageStatsFinder finder(context);
        const std::string text = internalError([&] { finder.init(type); });
        EXPECT_TRUE(endsWith(text, "stats finder only works on float32 or float16")) << text;
        EXPECT_FALSE(finder.isInitialised());
    }
}

// ---- HDR normaliser ----

Tensor tileWithRange(const std::shared_ptr<ML::ModelContext>& context, u32 type, u64 batch, float lo, float hi) {
    Tensor t = context->createTensor({batch, kChannels, kHeight, kWidth}, type);
    upload(*t, spread(batch * kChannels * kHeight * kWidth, lo, hi));
    return t;
}

TEST_F(HelperNetworks, NormaliserLeavesAnImageWithinZeroToOneAlone) {
    for (u32 type : {ML::F16, ML::F32}) {
        ML::ImageTensorHDRNormalizer normalizer(context, 1);
        normalizer.initWorkers(description(type));
        normalizer.reset(1.0f, -1.0f);
        normalizer.observe(0, tileWithRange(context, type, 1, 0.0f, 1.0f));
        normalizer.observe(0, tileWithRange(context, type, 1, 0.125f, 0.75f));
        EXPECT_FALSE(normalizer.needsNormalizing) << typeText(type);
        EXPECT_EQ(normalizer.getParams(), (std::vector<float>{1.0f, 1.0f, 0.0f, 1.0f})) << typeText(type);
        EXPECT_TRUE(normalizer.worker(0).loadedNetworks().empty()) << typeText(type);
    }
}

TEST_F(HelperNetworks, NormaliserParametersFollowTheObservedRangeAndThePreset) {
    const float log2Of2_5 = std::log2(2.5f);  // about 1.32
    const struct {
        const char* name;
        float presetLow, presetHigh, lo, hi;
        std::vector<float> params;
        bool needs;
    } cases[] = {
        {"HDR range", 1.0f, -1.0f, -0.5f, 2.0f, {1.0f, log2Of2_5, -0.5f, 2.0f}, true},
        {"span 1.5", 1.0f, -1.0f, 0.0f, 1.5f, {1.0f, 1.0f, 0.0f, 1.5f}, true},
        {"negatives only", 1.0f, -1.0f, -0.25f, 0.75f, {1.0f, 1.0f, -0.25f, 1.0f}, true},
        {"no preset", -1.0f, -1.0f, 0.0f, 1.0f, {1.0f, 1.0f, 0.0f, 1.0f}, false},
        {"equal gammas", 2.2f, 2.2f, 0.0f, 1.0f, {2.2f, 2.2f, 0.0f, 1.0f}, false},
        {"unequal gammas", 2.2f, 1.0f, 0.0f, 1.0f, {2.2f, 1.0f, 0.0f, 1.0f}, true},
        {"gammas and HDR range", 2.2f, 1.0f, -0.5f, 2.0f, {1.0f, log2Of2_5, -0.5f, 2.0f}, true},
        {"preset high above log2", 1.0f, 3.0f, -0.5f, 2.0f, {1.0f, 3.0f, -0.5f, 2.0f}, true},
    };
    for (u32 type : {ML::F16, ML::F32}) {
        ML::ImageTensorHDRNormalizer normalizer(context, 1);
        normalizer.initWorkers(description(type));
        for (const auto& c : cases) {
            const std::string what = std::string(typeText(type)) + " " + c.name;
            normalizer.reset(c.presetLow, c.presetHigh);
            normalizer.observe(0, tileWithRange(context, type, 1, c.lo, c.hi));
            EXPECT_EQ(normalizer.getParams(), c.params) << what;
            EXPECT_EQ(normalizer.needsNormalizing, c.needs) << what;
        }
    }
}

TEST_F(HelperNetworks, NormaliserRangeOnlyWidensWithinAPassAndResetStartsOver) {
    ML::ImageTensorHDRNormalizer normalizer(context, 2);
    normalizer.initWorkers(description(ML::F32));
    normalizer.reset(1.0f, -1.0f);
    normalizer.observe(0, tileWithRange(context, ML::F32, 1, -0.5f, 0.5f));
    normalizer.observe(1, tileWithRange(context, ML::F32, 1, 0.25f, 3.0f));
    normalizer.observe(0, tileWithRange(context, ML::F32, 1, 0.0f, 0.5f));
    EXPECT_EQ(normalizer.getParams(), (std::vector<float>{1.0f, std::log2(3.5f), -0.5f, 3.0f}));
    EXPECT_TRUE(normalizer.needsNormalizing);

    normalizer.reset(1.0f, -1.0f);
    EXPECT_EQ(normalizer.getParams(), (std::vector<float>{1.0f, 1.0f, 0.0f, 1.0f}));
    EXPECT_FALSE(normalizer.needsNormalizing);
}

TEST_F(HelperNetworks, NormaliseSqueezesAnHDRTileIntoZeroToOneAndDenormaliseRestoresIt) {
    for (u32 type : {ML::F16, ML::F32}) {
        for (u64 batch : {1u, 2u}) {
            const std::string what = std::string(typeText(type)) + " batch " + std::to_string(batch);
            const float tolerance = type == ML::F16 ? 6e-3f : 1e-5f;
            ML::ImageTensorHDRNormalizer normalizer(context, 1);
            normalizer.initWorkers(description(type));
            normalizer.reset(1.0f, -1.0f);
            Tensor source = tileWithRange(context, type, batch, -0.5f, 2.0f);
            normalizer.observe(0, source);
            ASSERT_TRUE(normalizer.needsNormalizing) << what;

            Tensor squeezed = tensor(source->getShape(), type);
            normalizer.normalize(0, batch, source, squeezed);
            const std::vector<float> x = download(*source);
            const std::vector<float> y = download(*squeezed);
            // (x - rangeMin) / span, lifted by 1 / log2(span).
            std::vector<float> want;
            for (float v : x) want.push_back(std::pow((v + 0.5f) / 2.5f, 1.0f / std::log2(2.5f)));
            expectClose(y, want, tolerance, what);
            EXPECT_GE(*std::min_element(y.begin(), y.end()), 0.0f) << what;
            EXPECT_LE(*std::max_element(y.begin(), y.end()), 1.0f + tolerance) << what;

            Tensor restored = tensor(source->getShape(), type);
            normalizer.denormalize(0, batch, squeezed, restored);
            expectClose(download(*restored), x, tolerance, what);

            const std::string key = std::string(typeText(type)) + "_" + std::to_string(batch) + "x4x6";
            std::vector<std::string> loaded = normalizer.worker(0).loadedNetworks();
            std::sort(loaded.begin(), loaded.end());
            EXPECT_EQ(loaded, (std::vector<std::string>{"denormalize-output_" + key, "normalize-input_" + key}))
                << what;
        }
    }
}

TEST_F(HelperNetworks, NormaliseWithUnequalGammasAgreesWithTheGammaConverter) {
    for (u32 type : {ML::F16, ML::F32}) {
        const std::string what = typeText(type);
        ML::ImageTensorHDRNormalizer normalizer(context, 1);
        normalizer.initWorkers(description(type));
        normalizer.reset(2.2f, 1.0f);  // host gamma, network gamma
        Tensor source = tileWithRange(context, type, 1, 0.0f, 1.0f);
        normalizer.observe(0, source);
        ASSERT_TRUE(normalizer.needsNormalizing) << what;
        Tensor normalised = tensor(source->getShape(), type);
        normalizer.normalize(0, 1, source, normalised);

        ML::ImageTensorGammaConverter converter(context);
        converter.init(description(type), 1, 1);
        Tensor converted = tensor(source->getShape(), type);
        converted->copyFrom(*source);
        converter.convert(converted, 2.2f, 1.0f, 0);
        expectClose(download(*normalised), download(*converted), type == ML::F16 ? 2e-3f : 1e-6f, what);

        Tensor restored = tensor(source->getShape(), type);
        normalizer.denormalize(0, 1, normalised, restored);
        expectClose(download(*restored), download(*source), type == ML::F16 ? 6e-3f : 1e-5f, what);
    }
}

TEST_F(HelperNetworks, NormaliserRefusesToRunOutsideFloatTypes) {
    ML::ImageTensorHDRNormalizer normalizer(context, 2);
    // A worker that never learnt its format has no float type.
    Tensor t = tileWithRange(context, ML::F32, 1, 0.0f, 1.0f);
    for (bool forward : {true, false}) {
        const std::string text = internalError([&] {
            if (forward)
                normalizer.normalize(0, 1, t, t);
            else
                normalizer.denormalize(0, 1, t, t);
        });
        EXPECT_TRUE(endsWith(text, "normalize/denormalize only runs in float16 or float32")) << text;
    }
    EXPECT_TRUE(normalizer.worker(0).loadedNetworks().empty());

    const std::string text = internalError([&] { normalizer.initWorkers(description(ML::U8)); });
    EXPECT_TRUE(endsWith(text, "stats finder only works on float32 or float16")) << text;
}

// Two workers measure their tiles on two threads at once; the shared range ends up the union.
TEST_F(HelperNetworks, NormaliserObservesConcurrentlyOnTwoWorkers) {
    for (u32 type : {ML::F16, ML::F32}) {
        ML::ImageTensorHDRNormalizer normalizer(context, 2);
        normalizer.initWorkers(description(type));
        normalizer.reset(1.0f, -1.0f);
        const struct {
            float lo, hi;
        } ranges[2][3] = {{{-0.5f, 0.5f}, {0.0f, 1.5f}, {-1.0f, 0.25f}}, {{0.25f, 2.0f}, {-0.75f, 1.0f}, {0.0f, 3.0f}}};
        std::vector<std::vector<Tensor>> tiles(2);
        for (u32 w = 0; w < 2; ++w)
            for (const auto& r : ranges[w]) tiles[w].push_back(tileWithRange(context, type, 1, r.lo, r.hi));

        std::vector<std::thread> threads;
        for (u32 w = 0; w < 2; ++w)
            threads.emplace_back([&, w] {
                for (int round = 0; round < 4; ++round)
                    for (const Tensor& tile : tiles[w]) normalizer.observe(w, tile);
            });
        for (std::thread& t : threads) t.join();

        EXPECT_EQ(normalizer.getParams(), (std::vector<float>{1.0f, 2.0f, -1.0f, 3.0f})) << typeText(type);
        EXPECT_TRUE(normalizer.needsNormalizing) << typeText(type);
    }
}

}  // namespace
