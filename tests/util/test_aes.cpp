// AES-128 block cipher against the published known-answer vectors.
#include <gtest/gtest.h>

#include <array>
#include <string>

#include "Util/ML_CryptoUtil.h"

namespace {

using Block = std::array<ML::u8, 16>;

Block fromHex(const std::string& hex) {
    Block out{};
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<ML::u8>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    return out;
}

TEST(Aes128, EncryptsAndDecryptsKnownAnswerVectors) {
    // FIPS 197 Appendix B (cipher example) and Appendix C.1 (AES-128 example vector).
    const struct { const char *key, *plain, *cipher; } vectors[] = {
        {"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734", "3925841d02dc09fbdc118597196a0b32"},
        {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    };
    for (const auto& v : vectors) {
        const ML::Aes128 aes(fromHex(v.key));
        Block block = fromHex(v.plain);
        aes.encryptBlock(block.data());
        EXPECT_EQ(block, fromHex(v.cipher)) << "key " << v.key;
        aes.decryptBlock(block.data());
        EXPECT_EQ(block, fromHex(v.plain)) << "key " << v.key;
    }
}

}  // namespace
