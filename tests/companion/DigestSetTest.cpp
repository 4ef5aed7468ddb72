// The flat set of key digests: found after insertion across growth, never
// found when absent, the all-zero digest included.

#include "companion/DigestSet.h"

#include <gtest/gtest.h>

#include <string>

TEST(DigestSetTest, InsertedDigestsAreFoundAcrossGrowthAndOthersAreNot) {
    const KeyDigest digest(5, 7);
    DigestSet set;
    for (int i = 0; i < 100000; ++i) {
        set.insert(digest.of("key" + std::to_string(i)));
    }
    EXPECT_EQ(set.size(), 100000u);
    EXPECT_LE(set.size() * 4, set.capacity() * 3);
    for (int i = 0; i < 100000; ++i) {
        ASSERT_TRUE(set.contains(digest.of("key" + std::to_string(i)))) << i;
        ASSERT_FALSE(set.contains(digest.of("other" + std::to_string(i)))) << i;
    }
}

TEST(DigestSetTest, RepeatedDigestIsKeptOnce) {
    DigestSet set;
    set.insert({1, 2});
    set.insert({1, 2});
    EXPECT_EQ(set.size(), 1u);
}

TEST(DigestSetTest, AllZeroDigestIsAValueNotAnEmptySlot) {
    DigestSet set;
    EXPECT_FALSE(set.contains({0, 0}));
    set.insert({0, 0});
    EXPECT_TRUE(set.contains({0, 0}));
    EXPECT_EQ(set.size(), 1u);
}
