#pragma once
// SHA-256 of a few bytes, in lower-case hex: the file key's fingerprint of a
// file's first bytes. Small and self-contained, so that the agent needs no
// crypto library of its own for a 64-byte digest.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

class Sha256 {
public:
    static std::string hex(std::string_view data);

private:
    static void compress(std::array<uint32_t, 8>& state, const unsigned char* block);
};
