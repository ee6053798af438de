// The five-frame denoiser end to end through mlMain, with the default package's stand-in stage
// networks on the ONNX Runtime CPU backend: a generated clip with known noise comes out cleaner,
// the same whatever order the frames are rendered in, on two threads, and with the host's cached
// stage-1 results evicted between renders.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

#include "util/InProcessPlugin.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;

using namespace inprocess;

const std::filesystem::path packageDir = QUILLON_TEST_PACKAGE_DIR;

// The package's denoiser configuration plus a copy of its model that wants gamma-2.2 input
// (model 1). The plug-in keeps the first folders it sees, so every test uses this copy.
constexpr int kGammaModel = 1;
const std::filesystem::path& configFolder() {
    static const std::filesystem::path folder = [] {
        const std::filesystem::path dir = std::filesystem::temp_directory_path() / "quillon_denoise_family_config";
        std::filesystem::create_directories(dir);
        std::ifstream in(packageDir / "config" / "denoiser_config.json");
        nlohmann::json config = nlohmann::json::parse(in);
        nlohmann::json gamma = config["availableModels"][0];
        gamma["inGamma"] = 2.2;
        config["availableModels"].push_back(gamma);
        std::ofstream(dir / "denoiser_config.json") << config.dump();
        return dir;
    }();
    return folder;
}

// Wider than one tile of 256, so that tiles meet; eight frames.
constexpr int kW = 300, kH = 72, kFrames = 8;
constexpr float kSigma = 0.05f;
const Rect kRect{0, 0, kW, kH};

// Smooth colours with a bright square that moves 3 pixels a frame.
float clean(int f, int x, int y, int c) {
    const bool square = x >= 40 + 3 * f && x < 64 + 3 * f && y >= 20 && y < 44;
    if (square) return 0.9f;
    return 0.35f + 0.2f * std::sin(0.05f * x + 0.9f * c) * std::cos(0.07f * y);
}

struct Clip {
    std::vector<ImagePtr> noisy;
    Clip() {
        for (int f = 0; f < kFrames; ++f) {
            std::mt19937 random(1000u + static_cast<unsigned>(f));
            std::normal_distribution<float> noise(0.0f, kSigma);
            ImagePtr image = QHost::OwnedImage::make(kRect, Image::RGB, Image::HWC, ML::F32);
            for (int y = 0; y < kH; ++y)
                for (int x = 0; x < kW; ++x)
                    for (int c = 0; c < 3; ++c) setValue(*image, x, y, c, clean(f, x, y, c) + noise(random));
            noisy.push_back(image);
        }
    }
};

const Clip& clip() {
    static const Clip instance;
    return instance;
}

std::shared_ptr<QHost::CallSettings> denoiseSettings(int frame, ImagePtr output, int missing = -100, int model = 0,
                                                     float hostGamma = 0.0f) {
    auto settings = packageSettings(4, 1, static_cast<ML::u32>(frame), model, configFolder());
    settings->setFloatParam(4, 0, hostGamma);
    // The host repeats the clip's ends; frame numbers below 0 wrap as the plug-in's do.
    for (int d = -2; d <= 2; ++d)
        if (frame + d != missing)
            settings->setInputImage(static_cast<ML::u32>(frame + d), clip().noisy[std::clamp(frame + d, 0, kFrames - 1)]);
    if (output) settings->setOutputImage(static_cast<ML::u32>(frame), output);
    return settings;
}

ImagePtr render(int frame, int model = 0, float hostGamma = 0.0f) {
    ImagePtr output = QHost::OwnedImage::make(kRect, Image::RGB, Image::HWC, ML::F32);
    auto settings = denoiseSettings(frame, output, -100, model, hostGamma);
    EXPECT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
    return output;
}

double psnr(const QHost::OwnedImage& image, int frame) {
    double squared = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            for (int c = 0; c < 3; ++c) {
                const double d = valueAt(image, x, y, c) - clean(frame, x, y, c);
                squared += d * d;
            }
    return 10.0 * std::log10(kW * kH * 3 / squared);
}

float largestDifference(const QHost::OwnedImage& a, const QHost::OwnedImage& b) {
    float worst = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            for (int c = 0; c < 3; ++c) worst = std::max(worst, std::fabs(valueAt(a, x, y, c) - valueAt(b, x, y, c)));
    return worst;
}

// Every frame rendered in order from an empty cache.
const std::vector<ImagePtr>& inOrder() {
    static const std::vector<ImagePtr> outputs = [] {
        host().cache().clear();
        std::vector<ImagePtr> result;
        for (int f = 0; f < kFrames; ++f) result.push_back(render(f));
        return result;
    }();
    return outputs;
}

// Each stage-1 result serves three output frames: a clip of n frames needs n + 2 of them (the
// ends repeat), each computed once.
TEST(Denoise, CleansANoisyClipComputingEachStageOneResultOnce) {
    host().cache().clear();
    host().cache().resetStats();
    const std::vector<ImagePtr>& outputs = inOrder();
    EXPECT_EQ(host().cache().stats().fills, static_cast<ML::u64>((kFrames + 2) * 1));
    double before = 0, after = 0;
    for (int f = 0; f < kFrames; ++f) {
        before += psnr(*clip().noisy[static_cast<std::size_t>(f)], f) / kFrames;
        after += psnr(*outputs[static_cast<std::size_t>(f)], f) / kFrames;
    }
    std::printf("PSNR of the clip: noisy %.2f dB, denoised %.2f dB\n", before, after);
    EXPECT_GT(after, before + 4.0);
    // The moving square keeps its place: no ghost of it where it was two frames before.
    EXPECT_LT(std::fabs(valueAt(*outputs[5], 40 + 3 * 5 - 4, 30, 0) - clean(5, 40 + 3 * 5 - 4, 30, 0)), 0.12f);
}

TEST(Denoise, SameFramesInAnyOrderAndAfterEvictions) {
    const std::vector<ImagePtr>& reference = inOrder();
    std::vector<int> reverse(kFrames), shuffled(kFrames);
    std::iota(reverse.rbegin(), reverse.rend(), 0);
    std::iota(shuffled.begin(), shuffled.end(), 0);
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    const struct {
        const char* what;
        std::vector<int> order;
        int evictEvery;  // 0: keep the cache; n: drop every n-th cached entry before each render
    } cases[] = {{"reverse", reverse, 0}, {"shuffled", shuffled, 0}, {"shuffled, evicting", shuffled, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        host().cache().clear();
        for (int f : c.order) {
            if (c.evictEvery) {
                const auto keys = host().cache().keys();
                for (std::size_t k = 0; k < keys.size(); k += static_cast<std::size_t>(c.evictEvery))
                    host().cache().evict(keys[k]);
            }
            EXPECT_EQ(largestDifference(*render(f), *reference[static_cast<std::size_t>(f)]), 0.0f) << "frame " << f;
        }
    }
}

// Two host threads at once, each in a slot of its own; the frames are those of one thread.
TEST(Denoise, ConcurrentRendersOnTwoThreadsGiveTheSameFrames) {
    const std::vector<ImagePtr>& reference = inOrder();
    host().cache().clear();
    std::vector<ImagePtr> outputs(kFrames);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([&, t] {
            for (int f = t; f < kFrames; f += 2) outputs[static_cast<std::size_t>(f)] = render(f);
        });
    for (auto& thread : threads) thread.join();
    for (int f = 0; f < kFrames; ++f)
        EXPECT_EQ(largestDifference(*outputs[static_cast<std::size_t>(f)], *reference[static_cast<std::size_t>(f)]), 0.0f)
            << "frame " << f;
}

// A network that wants gamma-2.2 input gets the host's pictures re-encoded on the way in and
// back on the way out; nothing changes where the host's gamma is the network's own or unknown.
TEST(Denoise, GammaOfTheHostMeetsTheNetworks) {
    const std::vector<ImagePtr>& reference = inOrder();
    const struct {
        float hostGamma;
        bool converts;
    } cases[] = {{0.0f, false}, {2.2f, false}, {1.0f, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.hostGamma);
        host().cache().clear();  // stage-1 results are kept by frame numbers only
        const ImagePtr output = render(3, kGammaModel, c.hostGamma);
        const float difference = largestDifference(*output, *reference[3]);
        if (c.converts) {
            EXPECT_GT(difference, 1e-3f);
            EXPECT_GT(psnr(*output, 3), psnr(*clip().noisy[3], 3) + 4.0);
        } else {
            EXPECT_EQ(difference, 0.0f);
        }
    }
}

TEST(Denoise, RefusedRendersLogTheirReason) {
    const struct {
        const char* what;
        bool output;
        int missing;
        std::string staleKey;  // a buffer of the wrong size left in the cache under this key
        bool cancel;
        std::string logged;
        ML::i32 status = ML::STATUS_OTHER;
    } cases[] = {
        {"no output image", false, -100, "", false,
         "No output image returned by getOutputImage() (host should return error result instead!)"},
        {"a neighbour missing", true, 5, "", false,
         "No input image returned by getInputImage() (host should return error result instead!)"},
        {"a stage-1 result of another size", true, -100, "fdvd_s1:2/3/4-0:300x0:72", false,
         "Cached buffer 'fdvd_s1:2/3/4-0:300x0:72' has 10 bytes, expected 786432"},
        {"cancelled between tiles", true, -100, "", true, "", ML::STATUS_CANCELLED},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        host().cache().clear();
        if (!c.staleKey.empty()) host().cache().store(c.staleKey, ML::Ptr<ML::Buffer>(new ML::BufferImp(10)));
        ImagePtr output = c.output ? QHost::OwnedImage::make(kRect, Image::RGB, Image::HWC, ML::F32) : nullptr;
        auto settings = denoiseSettings(3, output, c.missing);
        if (c.cancel) settings->cancel();
        EXPECT_EQ(inprocess::render(settings), c.status);
        expectRefusalLogged(c.status, c.logged);
        if (c.cancel) {
            EXPECT_TRUE(host().cache().keys().empty());  // nothing half-made was kept
        }
    }
}

}  // namespace
