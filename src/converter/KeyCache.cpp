#include "converter/KeyCache.h"

KeyCache::KeyCache(std::size_t capacity)
    : capacity_(capacity),
      buffer_(new std::byte[BUFFER_BYTES]),
      arena_(buffer_.get(), BUFFER_BYTES) {
    reserve();
}

void KeyCache::clear() {
    // A fresh set holds no memory of the arena, so the arena can start over.
    keys_ = KeySet(&arena_);
    arena_.release();
    reserve();
}

void KeyCache::reserve() { keys_.reserve(capacity_ + 1); }
