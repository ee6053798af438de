// AES-128 block cipher against the published known-answer vectors.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>

#include "Util/ML_CryptoUtil.h"

namespace {

using Block = std::array<ML::u8, 16>;

Block fromHex(const std::string& hex) {
    Block out{};
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<ML::u8>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
    return out;
}

struct KnownAnswer {
    const char* key;
    const char* plain;
    const char* cipher;
};

// FIPS 197 Appendix B (cipher example) and Appendix C.1 (AES-128 example vector).
const KnownAnswer kVectors[] = {
    {"2b7e151628aed2a6abf7158809cf4f3c", "3243f6a8885a308d313198a2e0370734", "3925841d02dc09fbdc118597196a0b32"},
    {"000102030405060708090a0b0c0d0e0f", "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
};

TEST(Aes128, EncryptsKnownAnswerVectors) {
    for (const auto& v : kVectors) {
        const ML::Aes128 aes(fromHex(v.key));
        Block block = fromHex(v.plain);
        aes.encryptBlock(block.data());
        EXPECT_EQ(block, fromHex(v.cipher)) << "key " << v.key;
    }
}

TEST(Aes128, DecryptsKnownAnswerVectors) {
    for (const auto& v : kVectors) {
        const ML::Aes128 aes(fromHex(v.key));
        Block block = fromHex(v.cipher);
        aes.decryptBlock(block.data());
        EXPECT_EQ(block, fromHex(v.plain)) << "key " << v.key;
    }
}

TEST(Aes128, DecryptInvertsEncryptForRandomKeysAndBlocks) {
    std::mt19937 rng(1234);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int round = 0; round < 200; ++round) {
        ML::AesKey key{};
        Block plain{};
        for (auto& b : key) b = static_cast<ML::u8>(byte(rng));
        for (auto& b : plain) b = static_cast<ML::u8>(byte(rng));
        const ML::Aes128 aes(key);
        Block block = plain;
        aes.encryptBlock(block.data());
        EXPECT_NE(block, plain);
        aes.decryptBlock(block.data());
        ASSERT_EQ(block, plain) << "round " << round;
    }
}

}  // namespace
