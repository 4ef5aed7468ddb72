#include "companion/KeyDigest.h"

#include <sys/random.h>
#include <unistd.h>

#include <chrono>

namespace {

constexpr int COMPRESSION_ROUNDS = 2;
constexpr int FINALIZATION_ROUNDS = 4;
constexpr std::size_t BLOCK = 8;
constexpr uint64_t LENGTH_SHIFT = 56;

uint64_t rotate(uint64_t value, int bits) { return (value << bits) | (value >> (64 - bits)); }

uint64_t littleEndian(const char* bytes, std::size_t count) {
    uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        value |= static_cast<uint64_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    }
    return value;
}

struct State {
    uint64_t v0;
    uint64_t v1;
    uint64_t v2;
    uint64_t v3;

    void rounds(int count) {
        for (int i = 0; i < count; ++i) {
            v0 += v1;
            v1 = rotate(v1, 13);
            v1 ^= v0;
            v0 = rotate(v0, 32);
            v2 += v3;
            v3 = rotate(v3, 16);
            v3 ^= v2;
            v0 += v3;
            v3 = rotate(v3, 21);
            v3 ^= v0;
            v2 += v1;
            v1 = rotate(v1, 17);
            v1 ^= v2;
            v2 = rotate(v2, 32);
        }
    }

    void absorb(uint64_t block) {
        v3 ^= block;
        rounds(COMPRESSION_ROUNDS);
        v0 ^= block;
    }

    uint64_t fold() const { return v0 ^ v1 ^ v2 ^ v3; }
};

}  // namespace

KeyDigest::KeyDigest() : key0_(0), key1_(0) {
    uint64_t key[2] = {0, 0};
    if (getrandom(key, sizeof key, 0) != static_cast<ssize_t>(sizeof key)) {
        // Without the random source the digest is still sound for ordinary
        // logs; only its secrecy is lost.
        key[0] = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
        key[1] = static_cast<uint64_t>(getpid());
    }
    key0_ = key[0];
    key1_ = key[1];
}

KeyDigest::KeyDigest(uint64_t key0, uint64_t key1) : key0_(key0), key1_(key1) {}

KeyDigest::Digest KeyDigest::of(std::string_view text) const {
    State state{0x736f6d6570736575ULL ^ key0_, 0x646f72616e646f6dULL ^ key1_,
                0x6c7967656e657261ULL ^ key0_, 0x7465646279746573ULL ^ key1_};
    state.v1 ^= 0xee;  // the 128-bit output variant
    const char* at = text.data();
    const std::size_t whole = text.size() - text.size() % BLOCK;
    for (std::size_t done = 0; done < whole; done += BLOCK) {
        state.absorb(littleEndian(at + done, BLOCK));
    }
    state.absorb((static_cast<uint64_t>(text.size()) << LENGTH_SHIFT) |
                 littleEndian(at + whole, text.size() - whole));
    state.v2 ^= 0xee;
    state.rounds(FINALIZATION_ROUNDS);
    Digest digest;
    digest.first = state.fold();
    state.v1 ^= 0xdd;
    state.rounds(FINALIZATION_ROUNDS);
    digest.second = state.fold();
    return digest;
}
