#pragma once
// A 128-bit digest of a record key: SipHash-2-4 with its 128-bit output,
// keyed afresh for every run. Reconcile keeps digests instead of keys so that
// an event log costs a fixed 16 bytes per line whatever its paths' lengths.

#include <cstdint>
#include <string_view>

class KeyDigest {
public:
    struct Digest {
        uint64_t first = 0;
        uint64_t second = 0;
        bool operator==(const Digest& other) const {
            return first == other.first && second == other.second;
        }
    };

    // Keyed from the system's random source, so that no one can prepare two
    // keys with the same digest for a run they cannot see.
    KeyDigest();
    KeyDigest(uint64_t key0, uint64_t key1);

    Digest of(std::string_view text) const;

private:
    uint64_t key0_;
    uint64_t key1_;
};
