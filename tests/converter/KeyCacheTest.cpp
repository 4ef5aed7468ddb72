// The key cache pinned against the plain set it stands for: a std::set of
// strings, emptied whenever it holds more than the capacity. Keys short and
// long (past the arena's buffer), repeated and new, over many emptyings.

#include "converter/KeyCache.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>
#include <string_view>

namespace {

// Adds `key` the way the converter does: composed in the cache's text.
bool add(KeyCache& cache, const std::string& key, std::string_view& held) {
    cache.text().assign(key);
    return cache.add(held);
}

}  // namespace

TEST(KeyCacheTest, AddsNewKeysAndRecognisesRepeats) {
    KeyCache cache(10);
    std::string_view held;
    EXPECT_TRUE(add(cache, "a|/p|Jan 01 00:00:00", held));
    EXPECT_EQ("a|/p|Jan 01 00:00:00", held);
    EXPECT_FALSE(add(cache, "a|/p|Jan 01 00:00:00", held));
    EXPECT_EQ("a|/p|Jan 01 00:00:00", held);
    EXPECT_TRUE(add(cache, "b|/p|Jan 01 00:00:00", held));
    EXPECT_EQ(2U, cache.size());
}

TEST(KeyCacheTest, IsOverfullPastItsCapacityAndEmptiedByClear) {
    KeyCache cache(3);
    std::string_view held;
    for (int i = 0; i < 3; ++i) {
        add(cache, "key" + std::to_string(i), held);
        EXPECT_FALSE(cache.overfull());
    }
    add(cache, "key3", held);
    EXPECT_TRUE(cache.overfull());
    cache.clear();
    EXPECT_EQ(0U, cache.size());
    EXPECT_TRUE(add(cache, "key0", held));
}

TEST(KeyCacheTest, AnswersAsAPlainSetEmptiedWhenOverfull) {
    constexpr std::size_t CAPACITY = 1000;
    KeyCache cache(CAPACITY);
    std::set<std::string> plain;
    std::mt19937 random(29);
    std::uniform_int_distribution<int> pick(0, 1500);
    std::uniform_int_distribution<int> longOne(0, 50);
    for (int i = 0; i < 50000; ++i) {
        std::string key = "container" + std::to_string(pick(random)) + "|/usr/bin/x|Jan 01";
        if (longOne(random) == 0) {
            // Past the kept text's room and, over many, the arena's buffer.
            key.append(KeyCache::KEPT_TEXT_BYTES + 10, 'p');
        }
        std::string_view held;
        const bool added = add(cache, key, held);
        ASSERT_EQ(plain.insert(key).second, added) << i;
        ASSERT_EQ(key, held);
        if (plain.size() > CAPACITY) {
            ASSERT_TRUE(cache.overfull());
            plain.clear();
            cache.clear();
        }
        ASSERT_FALSE(cache.overfull());
        ASSERT_EQ(plain.size(), cache.size());
    }
}
