// The package's batched prompt decoder against the single one: each prompt of a batch gives the
// logits that the single decoder gives it alone, over one encoded picture.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <string>
#include <vector>

#include "Host/OwnedImage.h"
#include "Plugin/Models/SAM/TempState.h"
#include "util/PackageContext.h"
#include "util/TensorValues.h"

namespace {

using ML::Image;
using tensorvalues::download;
using tensorvalues::upload;

class SegmentationDecoders : public testpkg::PackageSuite {};

// A prompt in execution pixels: (x, y, label) entries.
using Prompt = std::vector<std::array<float, 3>>;

TEST_F(SegmentationDecoders, BatchItemsMatchTheSingleDecoder) {
    constexpr ML::i32 e = 1024, n = 16, batch = 4;
    const std::string id = "interactive_segmentation_standin";
    ML::SAM::TempState ts(*context, ML::F16, ML::SAM::ARCH_HIERA_LARGE, e, e, 512, 512, n, batch);

    // Red on the left, blue on the right, a green square in the blue.
    auto picture = QHost::OwnedImage::make({0, 0, 200, 100}, Image::RGB, Image::HWC, ML::F32);
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 200; ++x) {
            const bool square = x >= 140 && x < 170 && y >= 30 && y < 60;
            const float rgb[3] = {x < 100 ? 0.9f : 0.1f, square ? 0.8f : 0.15f, x < 100 || square ? 0.1f : 0.9f};
            for (ML::u32 c = 0; c < 3; ++c) picture->at<float>(x, y, c) = rgb[c];
        }
    common->hostImageToTensor(picture, ts.imageDescription(), ts.image);
    context->loadModel(id + "_enc")->run({ts.image}, ts.encoderOutputs());

    const Prompt prompts[batch] = {
        {{200, 500, 1}},
        {{800, 200, 1}},
        {{800, 200, 1}, {980, 500, 0}},
        {{600, 50, 2}, {1000, 950, 3}},
    };
    std::vector<float> coords(batch * n * 2, 0.0f), labels(batch * n, 0.0f), valid(batch * n, 0.0f);
    for (int b = 0; b < batch; ++b)
        for (size_t i = 0; i < prompts[b].size(); ++i) {
            const size_t at = static_cast<size_t>(b * n) + i;
            coords[2 * at] = prompts[b][i][0], coords[2 * at + 1] = prompts[b][i][1];
            labels[at] = prompts[b][i][2], valid[at] = 1.0f;
        }
    upload(*ts.batchPrompts.coords, coords);
    upload(*ts.batchPrompts.labels, labels);
    upload(*ts.batchPrompts.valid, valid);
    auto batchLogits = context->createTensor({batch, 1, e / 4, e / 4}, ML::F16);
    context->loadModel(id + "_dec_batch")
        ->run({ts.feat16, ts.feat4, ts.feat8, ts.batchPrompts.coords, ts.batchPrompts.labels, ts.batchPrompts.valid,
               ts.maskInput, ts.hasMaskInput},
              {batchLogits});
    const std::vector<float> batched = download(*batchLogits);

    const auto single = context->loadModel(id + "_dec_single");
    const size_t plane = static_cast<size_t>(e / 4) * static_cast<size_t>(e / 4);
    std::vector<double> selected;
    for (int b = 0; b < batch; ++b) {
        const auto item = [&](const std::vector<float>& v, size_t count) {
            return std::vector<float>(v.begin() + static_cast<long>(b * count),
                                      v.begin() + static_cast<long>((b + 1) * count));
        };
        upload(*ts.prompts.coords, item(coords, 2 * n));
        upload(*ts.prompts.labels, item(labels, n));
        upload(*ts.prompts.valid, item(valid, n));
        single->run(ts.decoderInputs(), ts.decoderOutputs());
        const std::vector<float> alone = download(*ts.lowResLogits);
        long positive = 0;
        for (size_t i = 0; i < plane; ++i) {
            ASSERT_NEAR(batched[static_cast<size_t>(b) * plane + i], alone[i], 0.05f)
                << "prompt " << b << ", cell " << i;
            positive += alone[i] > 0.0f;
        }
        selected.push_back(static_cast<double>(positive) / static_cast<double>(plane));
    }
    // The red half; blue; less blue with a negative click on it; in the box around the green square
    // (its corners on blue, its centre on the square), the square (4.5 % of the picture).
    EXPECT_NEAR(selected[0], 0.5, 0.05);
    EXPECT_GT(selected[1], 0.2);
    EXPECT_LT(selected[2], selected[1] - 0.05);
    EXPECT_NEAR(selected[3], 0.045, 0.015);
}

}  // namespace
