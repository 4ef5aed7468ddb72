#include "converter/KeyArena.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace {

// A thousand keys with their nodes take some 150 KiB: a few blocks hold them.
constexpr std::size_t KIB = 1024;
constexpr std::size_t FIRST_BLOCK_BYTES = 16 * KIB;
constexpr std::size_t LARGEST_BLOCK_BYTES = 64 * KIB;
// Larger requests are not carved from blocks.
constexpr std::size_t LARGE_REQUEST_BYTES = 4 * KIB;

std::size_t paddingFor(const std::byte* at, std::size_t alignment) {
    const auto address = reinterpret_cast<std::uintptr_t>(at);
    return static_cast<std::size_t>(-address & (alignment - 1));
}

}  // namespace

void KeyArena::reset() {
    large_.clear();
    largeBytes_ = 0;
    current_ = 0;
    next_ = blocks_.empty() ? nullptr : blocks_.front().data.get();
    left_ = blocks_.empty() ? 0 : blocks_.front().size;
}

std::size_t KeyArena::capacity() const {
    std::size_t total = 0;
    for (const Block& block : blocks_) {
        total += block.size;
    }
    return total + largeBytes_;
}

void* KeyArena::do_allocate(std::size_t bytes, std::size_t alignment) {
    const std::size_t padding = paddingFor(next_, alignment);
    if (next_ != nullptr && padding + bytes <= left_) {
        std::byte* const start = next_ + padding;
        next_ = start + bytes;
        left_ -= padding + bytes;
        return start;
    }
    return allocateSlow(bytes, alignment);
}

void* KeyArena::allocateSlow(std::size_t bytes, std::size_t alignment) {
    if (bytes + alignment > LARGE_REQUEST_BYTES) {
        // new[] aligns for every fundamental type; a request for more is
        // served from the front of an over-sized allocation.
        large_.push_back(std::unique_ptr<std::byte[]>(new std::byte[bytes + alignment]));
        largeBytes_ += bytes + alignment;
        std::byte* const start = large_.back().get();
        return start + paddingFor(start, alignment);
    }
    // The next kept block that is large enough, else a new one.
    std::size_t index = blocks_.empty() ? 0 : current_ + 1;
    while (index < blocks_.size() && blocks_[index].size < bytes + alignment) {
        ++index;
    }
    if (index >= blocks_.size()) {
        const std::size_t grown = blocks_.empty()
                                      ? FIRST_BLOCK_BYTES
                                      : std::min(blocks_.back().size * 2, LARGEST_BLOCK_BYTES);
        const std::size_t size = std::max(grown, bytes + alignment);
        // Not value-initialised: pages are touched only when carved.
        std::unique_ptr<std::byte[]> owned(new std::byte[size]);
        blocks_.push_back(Block{std::move(owned), size});
        index = blocks_.size() - 1;
    }
    // A block passed over stays unused until the next reset.
    current_ = index;
    next_ = blocks_[index].data.get();
    left_ = blocks_[index].size;
    return do_allocate(bytes, alignment);
}
