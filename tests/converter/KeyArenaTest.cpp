#include "converter/KeyArena.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory_resource>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

bool aligned(const void* pointer, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(pointer) % alignment == 0;
}

TEST(KeyArenaTest, HandsOutAlignedDisjointMemory) {
    KeyArena arena;
    std::vector<std::pair<char*, std::size_t>> pieces;
    for (std::size_t i = 1; i < 2000; ++i) {
        const std::size_t alignment = std::size_t{1} << (i % 5);
        const std::size_t bytes = i % 97 + 1;
        auto* piece = static_cast<char*>(arena.allocate(bytes, alignment));
        ASSERT_TRUE(aligned(piece, alignment));
        std::memset(piece, static_cast<int>(i & 0xff), bytes);
        pieces.emplace_back(piece, bytes);
    }
    // Every piece still holds what was written into it: none overlaps another.
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const auto [piece, bytes] = pieces[i];
        for (std::size_t b = 0; b < bytes; ++b) {
            ASSERT_EQ(static_cast<char>((i + 1) & 0xff), piece[b]) << i;
        }
    }
}

TEST(KeyArenaTest, ResetReusesTheSameBlocks) {
    KeyArena arena;
    std::set<void*> first;
    for (int i = 0; i < 5000; ++i) {
        first.insert(arena.allocate(48, 8));
    }
    const std::size_t held = arena.capacity();
    arena.reset();
    for (int i = 0; i < 5000; ++i) {
        EXPECT_EQ(1u, first.count(arena.allocate(48, 8)));
    }
    EXPECT_EQ(held, arena.capacity());
}

TEST(KeyArenaTest, LargeRequestsAreGivenBackAtReset) {
    KeyArena arena;
    EXPECT_NE(nullptr, arena.allocate(64, 8));
    const std::size_t small = arena.capacity();
    void* large = arena.allocate(1 << 20, 16);
    EXPECT_TRUE(aligned(large, 16));
    std::memset(large, 1, 1 << 20);
    EXPECT_GE(arena.capacity(), small + (1 << 20));
    arena.reset();
    EXPECT_EQ(small, arena.capacity());
}

TEST(KeyArenaTest, DeallocationKeepsMemoryUntilReset) {
    KeyArena arena;
    void* a = arena.allocate(32, 8);
    arena.deallocate(a, 32, 8);
    void* b = arena.allocate(32, 8);
    EXPECT_NE(a, b);
}

TEST(KeyArenaTest, ServesAStringSetThroughManyCycles) {
    KeyArena arena;
    std::size_t heldAfterFirst = 0;
    for (int cycle = 0; cycle < 20; ++cycle) {
        {
            std::pmr::unordered_set<std::pmr::string> set(&arena);
            for (int i = 0; i < 1001; ++i) {
                set.insert(std::pmr::string(
                    "container|/var/lib/path/" + std::to_string(i) + "|Nov 15 13:10:05", &arena));
            }
            EXPECT_EQ(1001u, set.size());
        }
        arena.reset();
        if (cycle == 0) {
            heldAfterFirst = arena.capacity();
        }
        EXPECT_EQ(heldAfterFirst, arena.capacity());
    }
}

}  // namespace
