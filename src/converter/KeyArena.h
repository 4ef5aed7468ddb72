#pragma once
// Memory for the duplicate cache. The cache only ever grows and is then
// emptied all at once, so its keys and nodes are carved one after another from
// blocks that are kept, and an emptied cache starts again at the first block:
// an insertion costs a few instructions instead of a trip through malloc, and
// emptying a thousand keys frees nothing one by one.

#include <cstddef>
#include <memory>
#include <memory_resource>
#include <vector>

class KeyArena : public std::pmr::memory_resource {
public:
    KeyArena() = default;
    KeyArena(const KeyArena&) = delete;
    KeyArena& operator=(const KeyArena&) = delete;
    KeyArena(KeyArena&&) = delete;
    KeyArena& operator=(KeyArena&&) = delete;
    ~KeyArena() override = default;

    // Everything handed out so far may be handed out again: call only once
    // nothing allocated from here is in use.
    void reset();

    // Bytes held, in use or not.
    std::size_t capacity() const;

private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override;
    // Memory comes back only through reset().
    void do_deallocate(void*, std::size_t, std::size_t) override {}
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override {
        return this == &other;
    }

    void* allocateSlow(std::size_t bytes, std::size_t alignment);

    struct Block {
        std::unique_ptr<std::byte[]> data;
        std::size_t size;
    };

    std::vector<Block> blocks_;
    // Requests too large to carve (a key holding a very long path), each
    // released at reset, so that one of them does not stay held for good.
    std::vector<std::unique_ptr<std::byte[]>> large_;
    std::size_t largeBytes_ = 0;
    // The block being carved, and the free room in it.
    std::size_t current_ = 0;
    std::byte* next_ = nullptr;
    std::size_t left_ = 0;
};
