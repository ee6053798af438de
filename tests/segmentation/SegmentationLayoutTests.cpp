// The encoder layouts of both architectures: which tensors the cached embedding holds, in which
// order and of which size. The package ships "hiera_large"; "vit_l" is checked here alone.
#include <gtest/gtest.h>

#include <vector>

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

}  // namespace
