// The encoder layouts of both architectures: which tensors the cached embedding holds, in which
// order and of which size (the package ships "hiera_large"; "vit_l" is checked here alone); and
// the prompt as the decoder reads it.
#include <gtest/gtest.h>

#include <vector>

#include "Plugin/Models/SAM/Prompts.h"
#include "Plugin/Models/SAM/TempState.h"
#include "util/ExpectMessage.h"

namespace {

using ML::u64;
using Shapes = std::vector<std::vector<u64>>;

TEST(SegmentationLayout, EncoderOutputsAndCachedBytes) {
    const struct {
        const char* arch;
        ML::i32 h, w;
        Shapes shapes;
        u64 bytesF16;
    } cases[] = {
        {"vit_l",
         1024,
         768,
         {{1, 256, 64, 48}, {1, 64, 48, 1024}, {1, 64, 48, 1024}, {1, 64, 48, 1024}, {1, 64, 48, 1024}},
         (64ull * 48 * 256 + 4ull * 64 * 48 * 1024) * 2},
        {"hiera_large",
         512,
         1024,
         {{1, 32, 128, 256}, {1, 64, 64, 128}, {1, 256, 32, 64}},
         (32ull * 128 * 256 + 64ull * 64 * 128 + 256ull * 32 * 64) * 2},
    };
    for (const auto& c : cases) {
        const ML::SAM::ArchId arch = ML::SAM::parseArchId(c.arch);
        EXPECT_EQ(ML::SAM::encoderOutputShapes(arch, c.h, c.w), c.shapes) << c.arch;
        EXPECT_EQ(ML::SAM::encodedSize(arch, c.h, c.w, ML::F16), c.bytesF16) << c.arch;
        EXPECT_EQ(ML::SAM::encodedSize(arch, c.h, c.w, ML::F32), 2 * c.bytesF16) << c.arch;
    }
    expectMessage([] { ML::SAM::parseArchId("vit_h"); }, "Unexpected SAM arch id: vit_h");
}

// Boxes first (corners labelled 2 and 3), then positive (1) and negative (0) points, mapped from
// the region (not the picture) onto a non-square execution shape, padding zero and invalid.
TEST(SegmentationLayout, PromptEntriesInTheDecodersOrder) {
    const ML::SAM::PromptMapping m{ML::Rect{100, 50, 300, 150}, 512, 1024, 6};  // 200 x 100 onto 1024 x 512
    const std::vector<float> positive{150, 60}, negative{300, 150}, box{100, 50, 200, 100};
    const ML::SAM::PromptArrays<float> a = ML::SAM::pointPromptArrays<float>({positive, negative, box}, m);
    EXPECT_EQ(a.coords, (std::vector<float>{0, 0, 512, 256, 256, 51.2f, 1024, 512, 0, 0, 0, 0}));
    EXPECT_EQ(a.labels, (std::vector<float>{2, 3, 1, 0, 0, 0}));
    EXPECT_EQ(a.valid, (std::vector<float>{1, 1, 1, 1, 0, 0}));
    // A box alone: its two corners. Outside the region a point is not clipped.
    const std::vector<float> outside{90, 40, 310, 160};
    const auto b = ML::SAM::boxPromptArrays<float>(m, outside.data());
    EXPECT_EQ(b.coords, (std::vector<float>{-51.2f, -51.2f, 1075.2f, 563.2f, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(b.labels, (std::vector<float>{2, 3, 0, 0, 0, 0}));
    // Half precision: 150.1 is 150.125 in half, mapped to 256.64 and rounded to 256.75 (rounding only
    // at the end would give 256.5).
    const std::vector<float> fine{150.1f, 60}, none;
    const auto h = ML::SAM::pointPromptArrays<Imath::half>({fine, none, none}, m);
    EXPECT_EQ(static_cast<float>(h.coords[0]), 256.75f);
    // The entries' limit counts a box as two.
    const std::vector<float> three{1, 1, 2, 2, 3, 3}, two{1, 1, 2, 2};
    const ML::SAM::PromptMapping four{m.rect, m.execH, m.execW, 4};
    EXPECT_NO_THROW(ML::SAM::pointPromptArrays<float>({two, none, box}, four));
    EXPECT_THROW(ML::SAM::pointPromptArrays<float>({three, none, box}, four), ML::Exception);
}

}  // namespace
