#pragma once
// The set of record keys seen, which the duplicate rule asks: a plain set of
// strings as far as a caller can tell, emptied as a whole when full.
//
// The set only grows and is then emptied at once, so keys and nodes are
// carved one after another from a kept buffer (an arena), and an emptied set
// starts again at its beginning: an insertion costs a few instructions instead
// of a trip through malloc, and emptying frees nothing one by one. A set of
// long keys that outgrows the buffer takes further blocks, given back at each
// emptying. Buckets for a full set are reserved at once, so the set never
// rehashes and each key is hashed once, when it is looked up.

#include <cstddef>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>
#include <unordered_set>

class KeyCache {
public:
    // Room for a full set of keys as audit records carry them, nodes and
    // buckets included; its pages are touched only when carved.
    static constexpr std::size_t BUFFER_BYTES = std::size_t{256} * 1024;
    // The reused key text keeps at most this much room between keys.
    static constexpr std::size_t KEPT_TEXT_BYTES = 4096;

    explicit KeyCache(std::size_t capacity);
    KeyCache(const KeyCache&) = delete;
    KeyCache& operator=(const KeyCache&) = delete;

    // Where the next key is composed before it is added, so that a repeat
    // allocates nothing for its key.
    std::pmr::string& text() { return text_; }

    // Adds the key composed in text(); false when the set holds it already.
    // `held` is then the set's own, equal copy.
    bool add(std::string_view& held) {
        const auto [entry, inserted] = keys_.insert(text_);
        if (text_.capacity() > KEPT_TEXT_BYTES) {
            // The room a very long key needed is not kept for good.
            std::pmr::string().swap(text_);
        }
        held = *entry;
        return inserted;
    }

    std::size_t size() const { return keys_.size(); }
    // More keys than the capacity: time to empty.
    bool overfull() const { return keys_.size() > capacity_; }
    // Empties the set, buckets included, and lets the buffer be carved again.
    void clear();

private:
    void reserve();

    std::size_t capacity_;
    std::unique_ptr<std::byte[]> buffer_;
    std::pmr::monotonic_buffer_resource arena_;
    // Strings of the standard library with their memory from the arena,
    // hashed by the library's string hash (the one std::string uses, which
    // the set also keeps beside each key, so a lookup never hashes twice).
    using KeySet = std::pmr::unordered_set<std::pmr::string, std::hash<std::string_view>>;
    KeySet keys_{&arena_};
    std::pmr::string text_;
};
