#include "agent/Sha256.h"

#include <cstring>

namespace {

constexpr std::size_t BLOCK_SIZE = 64;
constexpr std::array<uint32_t, 64> ROUND_CONSTANTS = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};
constexpr std::array<uint32_t, 8> INITIAL_STATE = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                                   0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};

uint32_t rotateRight(uint32_t value, int bits) { return (value >> bits) | (value << (32 - bits)); }

}  // namespace

void Sha256::compress(std::array<uint32_t, 8>& state, const unsigned char* block) {
    uint32_t w[64];
    for (std::size_t i = 0; i < 16; ++i) {
        const unsigned char* word = block + 4 * i;
        w[i] = (uint32_t{word[0]} << 24) | (uint32_t{word[1]} << 16) | (uint32_t{word[2]} << 8) |
               uint32_t{word[3]};
    }
    for (int i = 16; i < 64; ++i) {
        const uint32_t s0 =
            rotateRight(w[i - 15], 7) ^ rotateRight(w[i - 15], 18) ^ (w[i - 15] >> 3);
        const uint32_t s1 =
            rotateRight(w[i - 2], 17) ^ rotateRight(w[i - 2], 19) ^ (w[i - 2] >> 10);
        w[i] = w[i - 16] + s0 + w[i - 7] + s1;
    }
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3];
    uint32_t e = state[4], f = state[5], g = state[6], h = state[7];
    for (int i = 0; i < 64; ++i) {
        const uint32_t s1 = rotateRight(e, 6) ^ rotateRight(e, 11) ^ rotateRight(e, 25);
        const uint32_t choice = (e & f) ^ (~e & g);
        const uint32_t t1 = h + s1 + choice + ROUND_CONSTANTS[static_cast<std::size_t>(i)] + w[i];
        const uint32_t s0 = rotateRight(a, 2) ^ rotateRight(a, 13) ^ rotateRight(a, 22);
        const uint32_t majority = (a & b) ^ (a & c) ^ (b & c);
        const uint32_t t2 = s0 + majority;
        h = g;
        g = f;
        f = e;
        e = d + t1;
        d = c;
        c = b;
        b = a;
        a = t1 + t2;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
    state[5] += f;
    state[6] += g;
    state[7] += h;
}

std::string Sha256::hex(std::string_view data) {
    std::array<uint32_t, 8> state = INITIAL_STATE;
    const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
    std::size_t whole = data.size() / BLOCK_SIZE;
    for (std::size_t i = 0; i < whole; ++i) {
        compress(state, bytes + i * BLOCK_SIZE);
    }
    // The tail, the 0x80 marker and the length in bits fill one or two blocks.
    unsigned char tail[2 * BLOCK_SIZE] = {};
    const std::size_t rest = data.size() - whole * BLOCK_SIZE;
    if (rest > 0) {
        std::memcpy(tail, bytes + whole * BLOCK_SIZE, rest);
    }
    tail[rest] = 0x80;
    const std::size_t tailSize = rest + 1 + 8 <= BLOCK_SIZE ? BLOCK_SIZE : 2 * BLOCK_SIZE;
    const uint64_t bits = static_cast<uint64_t>(data.size()) * 8;
    for (int i = 0; i < 8; ++i) {
        tail[tailSize - 1 - static_cast<std::size_t>(i)] =
            static_cast<unsigned char>(bits >> (8 * i));
    }
    for (std::size_t offset = 0; offset < tailSize; offset += BLOCK_SIZE) {
        compress(state, tail + offset);
    }
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string out;
    out.reserve(64);
    for (uint32_t word : state) {
        for (int shift = 28; shift >= 0; shift -= 4) {
            out += DIGITS[(word >> shift) & 0xf];
        }
    }
    return out;
}
