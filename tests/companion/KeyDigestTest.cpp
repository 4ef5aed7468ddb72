// The record key's digest: SipHash-2-4 with 128-bit output, against the
// published test vectors of its authors (key 00..0f, message 00..len-1).

#include "companion/KeyDigest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint64_t VECTOR_KEY0 = 0x0706050403020100ULL;
constexpr uint64_t VECTOR_KEY1 = 0x0f0e0d0c0b0a0908ULL;

std::string counting(std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += static_cast<char>(i);
    }
    return text;
}

}  // namespace

TEST(KeyDigestTest, EmptyMessageGivesThePublishedDigest) {
    const KeyDigest digest(VECTOR_KEY0, VECTOR_KEY1);
    const KeyDigest::Digest empty = digest.of("");
    // Bytes a3 81 7f 04 ba 25 a8 e6 6d f6 72 14 c7 55 02 93, read little-endian.
    EXPECT_EQ(empty.first, 0xe6a825ba047f81a3ULL);
    EXPECT_EQ(empty.second, 0x930255c71472f66dULL);
}

TEST(KeyDigestTest, EveryLengthAroundTheBlockGivesADifferentDigest) {
    const KeyDigest digest(VECTOR_KEY0, VECTOR_KEY1);
    for (std::size_t length = 0; length < 40; ++length) {
        for (std::size_t other = length + 1; other < 40; ++other) {
            EXPECT_FALSE(digest.of(counting(length)) == digest.of(counting(other)))
                << length << " " << other;
        }
    }
}

TEST(KeyDigestTest, SameKeySameDigestOtherKeyOtherDigest) {
    const KeyDigest one(1, 2);
    const KeyDigest two(1, 3);
    const std::string key = "3f2a9c|/etc/passwd|Nov 15 13:10:05";
    EXPECT_TRUE(one.of(key) == one.of(std::string(key)));
    EXPECT_FALSE(one.of(key) == two.of(key));
    EXPECT_FALSE(KeyDigest().of(key) == KeyDigest().of(key));
}
