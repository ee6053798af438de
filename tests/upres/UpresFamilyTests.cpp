// The upscaling and same-size enhancement families end to end through mlMain, with the imported
// ESRGAN networks of the default package on the ONNX Runtime CPU backend. The configuration
// folder is a copy of the package's with one more upscaler whose x4 padding is not a multiple
// of 4; the plug-in keeps the first folders it sees, so every test uses that copy.
#include <gtest/gtest.h>

#include <Imath/half.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Host/CallSettings.h"
#include "Host/Host.h"
#include "Host/Media/ImageReader.h"
#include "Host/OwnedImage.h"
#include "Plugin/PluginMain.h"

#include "util/InProcessPlugin.h"

namespace {

using ML::Image;
using ML::Rect;
using ImagePtr = ML::Ptr<QHost::OwnedImage>;

using namespace inprocess;

constexpr int kUpscaler = 0, kEnhancer = 2, kStandIn = 3;
// Stands for the model with the bad padding, which the test appends after the package's own.
constexpr int kBadPadding = -1;
int g_badPadding = -1;

const std::filesystem::path packageDir = QUILLON_TEST_PACKAGE_DIR;

// The package's upscaler configuration plus a copy of its first model with an x4 padding of 30.
const std::filesystem::path& configFolder() {
    static const std::filesystem::path folder = [] {
        const std::filesystem::path dir = std::filesystem::temp_directory_path() / "quillon_upres_family_config";
        std::filesystem::create_directories(dir);
        std::ifstream in(packageDir / "config" / "upres_config.json");
        nlohmann::json config = nlohmann::json::parse(in);
        nlohmann::json bad = config["availableModels"][kUpscaler];
        bad["params"]["scales"][1]["padding"] = 30;
        config["availableModels"].push_back(bad);
        g_badPadding = static_cast<int>(config["availableModels"].size()) - 1;
        std::ofstream(dir / "upres_config.json") << config.dump();
        return dir;
    }();
    return folder;
}

std::shared_ptr<QHost::CallSettings> upresSettings(int model, float factor, int mode = 4) {
    auto settings = packageSettings(mode, 2, 7, model == kBadPadding ? g_badPadding : model, configFolder());
    settings->setFloatParam(200, 0, factor);
    settings->setIntParam(202, 0, 0);
    settings->setIntParam(203, 0, 0);
    return settings;
}

// Smooth colours: low enough in frequency that a trained upscaler stays near bilinear.
float pattern(float x, float y, int c) {
    switch (c) {
        case 0: return 0.2f + 0.6f * 0.5f * (1.0f + std::sin(x * 0.11f));
        case 1: return 0.3f + 0.4f * 0.5f * (1.0f + std::cos(y * 0.13f));
        default: return 0.5f + 0.3f * std::sin((x + y) * 0.07f);
    }
}

ImagePtr patternImage(const Rect& rect, ML::u32 format, ML::u32 type) {
    ImagePtr image = QHost::OwnedImage::make(rect, format, Image::HWC, type);
    for (ML::i32 y = rect.y0; y < rect.y1; ++y)
        for (ML::i32 x = rect.x0; x < rect.x1; ++x)
            for (ML::u32 c = 0; c < image->channels(); ++c)
                setValue(*image, x, y, c, c < 3 ? pattern(static_cast<float>(x), static_cast<float>(y), c) : 1.0f);
    return image;
}

// The input pattern bilinearly resampled by factor (pixel centres, edges clamped).
float bilinear(const Rect& in, float factor, ML::i32 x, ML::i32 y, int c) {
    const auto axis = [&](ML::i32 o, ML::i32 lo, ML::i32 hi, ML::i32& i0, float& t) {
        const float p = std::clamp((static_cast<float>(o) + 0.5f) / factor - 0.5f, static_cast<float>(lo),
                                   static_cast<float>(hi - 1));
        i0 = std::min(static_cast<ML::i32>(std::floor(p)), hi - 2);
        t = p - static_cast<float>(i0);
    };
    ML::i32 x0, y0;
    float tx, ty;
    axis(x, in.x0, in.x1, x0, tx);
    axis(y, in.y0, in.y1, y0, ty);
    const auto p = [&](ML::i32 px, ML::i32 py) { return pattern(static_cast<float>(px), static_cast<float>(py), c); };
    return (1 - ty) * ((1 - tx) * p(x0, y0) + tx * p(x0 + 1, y0)) + ty * ((1 - tx) * p(x0, y0 + 1) + tx * p(x0 + 1, y0 + 1));
}

// Inside roi the output is near the bilinear reference: closely on average, loosely at the worst
// pixel (the networks ring at image corners by up to 0.3); outside it still holds the sentinel.
void expectNearReference(const QHost::OwnedImage& out, const Rect& roi, const Rect& in, float factor, float meanBound,
                         float maxBound) {
    const Rect r = out.getRect();
    double sum = 0;
    float worst = 0;
    int count = 0, touchedOutside = 0;
    for (ML::i32 y = r.y0; y < r.y1; ++y)
        for (ML::i32 x = r.x0; x < r.x1; ++x)
            for (int c = 0; c < 3; ++c) {
                const float v = valueAt(out, x, y, c);
                if (x < roi.x0 || x >= roi.x1 || y < roi.y0 || y >= roi.y1) {
                    touchedOutside += v != kSentinel;
                    continue;
                }
                const float d = std::fabs(v - bilinear(in, factor, x, y, c));
                sum += d;
                worst = std::max(worst, d);
                ++count;
            }
    EXPECT_EQ(touchedOutside, 0);
    if (count == 0) return;
    EXPECT_LT(sum / count, meanBound);
    EXPECT_LT(worst, maxBound);
}

void run(const std::shared_ptr<QHost::CallSettings>& settings) {
    host().logger().clear();
    ASSERT_EQ(host().run(&mlMain, settings), ML::STATUS_OK) << testing::PrintToString(host().logger().lines());
}

TEST(UpresFamilies, RefusedRendersLogTheirReason) {
    struct Case {
        const char* what;
        int model;
        float factor;
        std::optional<Rect> output;  // none: no output image
        Rect input;
        std::string logged;
        ML::i32 status = ML::STATUS_OTHER;
    };
    const Rect roi{0, 0, 64, 48}, half{0, 0, 32, 24};
    const Case cases[] = {
        {"factor 1", kUpscaler, 1.0f, roi, half, "upres factor must be > 1. host returned: 1.000000"},
        {"factor 10.5", kUpscaler, 10.5f, roi, half, "upres factor must be <= 10. host returned: 10.500000"},
        {"padding not a multiple of the scale", kBadPadding, 4.0f, roi, {0, 0, 16, 12},
         "Model configuration error: Padding must be multiple of upres factor!"},
        {"upscaler without output", kUpscaler, 2.0f, std::nullopt, half,
         "[Quillon] [W] Attempting to render PLKSR without providing output image. nothing to do, returning!",
         ML::STATUS_CANCELLED},
        {"enhancer without output", kEnhancer, 2.0f, std::nullopt, roi,
         "[Quillon] [W] Attempting to render RRDBNet without providing output image. nothing to do, returning!",
         ML::STATUS_CANCELLED},
        {"upscaler output smaller than the region", kUpscaler, 2.0f, Rect{0, 0, 63, 48}, half,
         "Output rect (0,0->63,48) must cover ROI rect (0,0->64,48) for frame 7"},
        {"upscaler input too small", kUpscaler, 2.0f, roi, {1, 0, 32, 24},
         "Input rect (1,0->32,24) must cover minimum input rect (0,0->32,24) for output rect (0,0->64,48) w/ "
         "upscale factor 2.000000"},
        {"upscaler input too small at 2.5", kUpscaler, 2.5f, roi, {0, 0, 25, 18},
         "Input rect (0,0->25,18) must cover minimum input rect (0,0->25,19) for output rect (0,0->64,48) w/ "
         "upscale factor 2.500000"},
        {"enhancer input too small", kEnhancer, 2.0f, roi, {0, 0, 64, 47},
         "Input rect (0,0->64,47) must cover minimum input rect (0,0->64,48) for output rect (0,0->64,48)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto settings = upresSettings(c.model, c.factor);
        settings->setRoi(7, roi);
        settings->setInputImage(7, patternImage(c.input, Image::RGBA, ML::U8));
        ImagePtr output;
        if (c.output) {
            output = filledImage(*c.output, Image::RGBA, ML::F32, kSentinel);
            settings->setOutputImage(7, output);
        }
        EXPECT_EQ(render(settings), c.status);
        expectRefusalLogged(c.status, c.logged);
        if (output) expectNearReference(*output, Rect{}, c.input, 1.0f, 1.0f, 1.0f);
    }
}

// At a trained scale the network's tiles land directly in the region: whole images, a region
// inside a larger output, and widths of more than one tile. Other factors go through the
// intermediate image and the resampler: shrinking the next larger scale (1.5, 2.5, 3) or
// enlarging the largest (8), with the real network and the bicubic stand-in, in one run of the
// resampler or in its tiles.
TEST(UpresFamilies, UpscalesTheRegionByAnyFactor) {
    const struct {
        int model;
        float factor;
        Rect input, output, roi;
        ML::u32 inputFormat, inputType, outputType;
    } cases[] = {
        {kUpscaler, 2.0f, {0, 0, 40, 30}, {0, 0, 80, 60}, {0, 0, 80, 60}, Image::RGBA, ML::U8, ML::F32},
        {kUpscaler, 2.0f, {0, 0, 40, 30}, {0, 0, 80, 60}, {10, 6, 70, 50}, Image::RGB, ML::F32, ML::F16},
        {kUpscaler, 2.0f, {0, 0, 150, 24}, {0, 0, 300, 48}, {0, 0, 300, 48}, Image::RGBA, ML::U8, ML::F32},
        {kUpscaler, 2.5f, {0, 0, 40, 30}, {0, 0, 100, 75}, {0, 0, 100, 75}, Image::RGBA, ML::U8, ML::F32},
        {kStandIn, 1.5f, {0, 0, 40, 30}, {0, 0, 60, 45}, {0, 0, 60, 45}, Image::RGBA, ML::U8, ML::F32},
        {kStandIn, 3.0f, {0, 0, 40, 30}, {0, 0, 120, 90}, {6, 3, 110, 84}, Image::RGB, ML::F32, ML::F32},
        {kStandIn, 8.0f, {0, 0, 20, 12}, {0, 0, 160, 96}, {0, 0, 160, 96}, Image::RGBA, ML::U8, ML::F16},
        // Wider than 2048: the resampler runs in tiles of 2048.
        {kStandIn, 2.5f, {0, 0, 840, 16}, {0, 0, 2100, 40}, {0, 0, 2100, 40}, Image::RGBA, ML::U8, ML::F32},
    };
    for (const auto& p : cases) {
        SCOPED_TRACE(std::to_string(p.factor) + " " + p.roi.toString());
        auto settings = upresSettings(p.model, p.factor);
        settings->setRoi(7, p.roi);
        settings->setInputImage(7, patternImage(p.input, p.inputFormat, p.inputType));
        ImagePtr output = filledImage(p.output, Image::RGBA, p.outputType, kSentinel);
        settings->setOutputImage(7, output);
        run(settings);
        // The bicubic stand-in stays close to bilinear on smooth colours; a misplaced tile shows.
        if (p.model == kStandIn)
            expectNearReference(*output, p.roi, p.input, p.factor, 0.003f, 0.02f);
        else
            expectNearReference(*output, p.roi, p.input, p.factor, 0.03f, 0.4f);
    }
}

// Same size: one zero-padded tile, and a width of two tiles.
TEST(UpresFamilies, EnhancerKeepsTheImage) {
    for (const Rect rect : {Rect{0, 0, 48, 40}, Rect{0, 0, 300, 32}}) {
        SCOPED_TRACE(rect.toString());
        auto settings = upresSettings(kEnhancer, 1.0f);
        settings->setRoi(7, rect);
        settings->setInputImage(7, patternImage(rect, Image::RGBA, ML::U8));
        ImagePtr output = filledImage(rect, Image::RGBA, ML::F32, kSentinel);
        settings->setOutputImage(7, output);
        run(settings);
        expectNearReference(*output, rect, rect, 1.0f, 0.03f, 0.4f);
        const auto progress = settings->progress();
        ASSERT_FALSE(progress.empty());
        EXPECT_EQ(progress.front(), 0.0f);
    }
}

// The tiles of a render meet without seams: the pixels that two regions tiled differently have
// in common are equal, at a trained scale and through the resampler.
TEST(UpresFamilies, TilesMeetWithoutSeams) {
    const Rect input{0, 0, 150, 70};
    for (const float factor : {2.0f, 2.5f}) {
        SCOPED_TRACE(factor);
        const Rect whole{0, 0, static_cast<ML::i32>(150 * factor), static_cast<ML::i32>(70 * factor)};
        const Rect part{37, 21, whole.x1 - 11, whole.y1 - 5};
        std::vector<ImagePtr> outputs;
        for (const Rect& roi : {whole, part}) {
            auto settings = upresSettings(kStandIn, factor);
            settings->setRoi(7, roi);
            settings->setInputImage(7, patternImage(input, Image::RGB, ML::F32));
            outputs.push_back(filledImage(whole, Image::RGB, ML::F32, kSentinel));
            settings->setOutputImage(7, outputs.back());
            run(settings);
        }
        float worst = 0;
        for (ML::i32 y = part.y0; y < part.y1; ++y)
            for (ML::i32 x = part.x0; x < part.x1; ++x)
                for (int c = 0; c < 3; ++c)
                    worst = std::max(worst, std::fabs(valueAt(*outputs[0], x, y, c) - valueAt(*outputs[1], x, y, c)));
        EXPECT_LT(worst, 4e-3f);  // half-float networks: a few units in the last place
    }
}

// A photograph shrunk by 2 and enlarged again by the trained x2 network and by the bicubic
// stand-in. These small networks restore it about as well as bicubic does by PSNR (they favour
// texture); what this checks is the whole path on real pixels: swapped channels, a
// one-pixel shift (about 3 dB) or a tile seam each costs well over 1 dB.
TEST(UpresFamilies, TrainedNetworkRestoresAPhoto) {
    const QMedia::Frame photo =
        QMedia::readImage(std::filesystem::path(QUILLON_SOURCE_DIR) / ".deps" / "media" / "messi5.jpg");
    const ML::i32 w = photo.width() / 2, h = photo.height() / 2;
    // Shrunk with the antialiased bicubic filter (a = -0.5, 8 taps) that such networks are trained on.
    const auto cubic = [](float t) {
        t = std::fabs(t);
        return t < 1 ? (1.5f * t - 2.5f) * t * t + 1 : t < 2 ? ((-0.5f * t + 2.5f) * t - 4) * t + 2 : 0.0f;
    };
    ImagePtr small = QHost::OwnedImage::make(Rect{0, 0, w, h}, Image::RGB, Image::HWC, ML::F32);
    for (ML::i32 y = 0; y < h; ++y)
        for (ML::i32 x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) {
                float sum = 0, weights = 0;
                for (int j = -3; j <= 4; ++j)
                    for (int i = -3; i <= 4; ++i) {
                        const float k = cubic((i - 0.5f) / 2) * cubic((j - 0.5f) / 2);
                        const int px = std::clamp(2 * x + i, 0, photo.width() - 1);
                        const int py = std::clamp(2 * y + j, 0, photo.height() - 1);
                        sum += k * photo.sample(px, py, c);
                        weights += k;
                    }
                setValue(*small, x, y, c, sum / weights);
            }
    const Rect big{0, 0, 2 * w, 2 * h};
    const auto psnr = [&](int model) {
        auto settings = upresSettings(model, 2.0f);
        settings->setRoi(7, big);
        settings->setInputImage(7, small);
        ImagePtr output = filledImage(big, Image::RGB, ML::F32, kSentinel);
        settings->setOutputImage(7, output);
        run(settings);
        double squared = 0;
        long count = 0;
        for (ML::i32 y = 8; y < big.y1 - 8; ++y)
            for (ML::i32 x = 8; x < big.x1 - 8; ++x)
                for (int c = 0; c < 3; ++c, ++count) {
                    const double d = std::clamp(valueAt(*output, x, y, c), 0.0f, 1.0f) - photo.sample(x, y, c);
                    squared += d * d;
                }
        return 10.0 * std::log10(count / squared);
    };
    const double trained = psnr(kUpscaler), bicubic = psnr(kStandIn);
    std::printf("PSNR on messi5 shrunk by 2: trained x2 %.2f dB, bicubic %.2f dB\n", trained, bicubic);
    EXPECT_GT(bicubic, 30.0);  // the stand-in is a real interpolator
    EXPECT_GT(trained, bicubic - 1.0);
}

}  // namespace

