#pragma once
// A set of key digests in one flat table: open addressing with linear
// probing, doubled when three quarters full. A digest is random already, so
// its own bits choose the slot; 16 bytes a slot, at most 43 a key after a
// doubling (64 while the old table is copied).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "companion/KeyDigest.h"

class DigestSet {
public:
    DigestSet();

    void insert(KeyDigest::Digest digest);
    bool contains(KeyDigest::Digest digest) const;
    std::size_t size() const { return size_; }
    std::size_t capacity() const { return slots_.size(); }

private:
    // The all-zero digest marks an empty slot; a real one is moved off it,
    // which merges it with one other digest out of 2^128.
    static KeyDigest::Digest stored(KeyDigest::Digest digest);
    std::size_t slotOf(const KeyDigest::Digest& digest) const;
    void grow();

    std::vector<KeyDigest::Digest> slots_;
    std::size_t size_;
};
