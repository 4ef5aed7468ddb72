#include "converter/ByteScan.h"

#include <algorithm>
#include <limits>

namespace {

// Decimal digits that always fit a 64-bit number, signed or not: runs this
// long are read without an overflow check.
constexpr std::size_t SAFE_DIGITS = 18;

unsigned digitValue(char c) { return static_cast<unsigned char>(c) - static_cast<unsigned>('0'); }

}  // namespace

bool ByteScan::eightDigits(const char* text, std::uint64_t& value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::uint64_t chunk = 0;
    std::memcpy(&chunk, text, WORD);
    // A byte is a digit when its high nibble is 3 both as it is and after
    // adding 6 (0x3A to 0x3F and above carry out of it). A carry into the
    // next byte starts only at a byte that fails already.
    constexpr std::uint64_t HIGH_NIBBLES = 0xF0F0F0F0F0F0F0F0;
    constexpr std::uint64_t SIXES = 0x0606060606060606;
    constexpr std::uint64_t DIGIT_NIBBLES = 0x3333333333333333;
    if (((chunk & HIGH_NIBBLES) | (((chunk + SIXES) & HIGH_NIBBLES) >> 4)) != DIGIT_NIBBLES) {
        return false;
    }
    // Pairs, then quads, then the whole: each step multiplies the more
    // significant half by a power of ten and adds the other half.
    constexpr std::uint64_t LOW_NIBBLES = 0x0F0F0F0F0F0F0F0F;
    constexpr std::uint64_t PAIR_FACTOR = 10 * 256 + 1;
    constexpr std::uint64_t PAIR_MASK = 0x00FF00FF00FF00FF;
    constexpr std::uint64_t QUAD_FACTOR = 100 * 65536 + 1;
    constexpr std::uint64_t QUAD_MASK = 0x0000FFFF0000FFFF;
    constexpr std::uint64_t WHOLE_FACTOR = (10000ULL << 32) + 1;
    chunk = ((chunk & LOW_NIBBLES) * PAIR_FACTOR) >> 8;
    chunk = ((chunk & PAIR_MASK) * QUAD_FACTOR) >> 16;
    value = ((chunk & QUAD_MASK) * WHOLE_FACTOR) >> 32;
    return true;
#else
    static_cast<void>(text);
    static_cast<void>(value);
    return false;
#endif
}

bool ByteScan::parseLeadingInteger(std::string_view text, long long& value) {
    // Most texts open with their digits (a stamp's seconds are ten of them):
    // eight at once, then the rest of those that cannot overflow. Anything
    // else takes the general path.
    std::uint64_t plain = 0;
    if (text.size() >= WORD && eightDigits(text.data(), plain)) {
        std::size_t end = WORD;
        const std::size_t unchecked = std::min(text.size(), SAFE_DIGITS);
        for (; end < unchecked && digitValue(text[end]) <= 9; ++end) {
            plain = plain * 10 + digitValue(text[end]);
        }
        if (end == text.size() || digitValue(text[end]) > 9) {
            value = static_cast<long long>(plain);
            return true;
        }
    }
    std::size_t i = 0;
    while (i < text.size() && isSpace(text[i])) {
        ++i;
    }
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Accumulated as a negative number so that the minimum value fits.
    constexpr long long lowest = std::numeric_limits<long long>::min();
    long long accumulated = 0;
    const std::size_t firstDigit = i;
    const std::size_t unchecked = std::min(text.size(), i + SAFE_DIGITS);
    std::uint64_t leading = 0;
    if (text.size() - i >= WORD && eightDigits(text.data() + i, leading)) {
        accumulated = -static_cast<long long>(leading);
        i += WORD;
    }
    for (; i < unchecked && digitValue(text[i]) <= 9; ++i) {
        accumulated = accumulated * 10 - static_cast<long long>(digitValue(text[i]));
    }
    for (; i < text.size() && digitValue(text[i]) <= 9; ++i) {
        const auto digit = static_cast<long long>(digitValue(text[i]));
        if (accumulated < (lowest + digit) / 10) {
            return false;
        }
        accumulated = accumulated * 10 - digit;
    }
    if (i == firstDigit) {
        return false;
    }
    if (!negative) {
        if (accumulated == lowest) {
            return false;
        }
        accumulated = -accumulated;
    }
    value = accumulated;
    return true;
}

bool ByteScan::parseLeadingUnsigned(std::string_view text, unsigned long long& value) {
    constexpr unsigned long long highest = std::numeric_limits<unsigned long long>::max();
    unsigned long long accumulated = 0;
    std::size_t i = 0;
    const std::size_t unchecked = std::min(text.size(), SAFE_DIGITS);
    for (; i < unchecked && digitValue(text[i]) <= 9; ++i) {
        accumulated = accumulated * 10 + digitValue(text[i]);
    }
    for (; i < text.size() && digitValue(text[i]) <= 9; ++i) {
        const unsigned digit = digitValue(text[i]);
        if (accumulated > (highest - digit) / 10) {
            return false;
        }
        accumulated = accumulated * 10 + digit;
    }
    if (i == 0) {
        return false;
    }
    value = accumulated;
    return true;
}

std::string ByteScan::lowerCopy(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        c = lower(c);
    }
    return lowered;
}

void ByteScan::assignLongLoweredWithoutSpace(std::string_view text, std::string& out) {
    out.resize(text.size());
    std::size_t length = 0;
    for (const char c : text) {
        if (!isSpace(c)) {
            out[length++] = lower(c);
        }
    }
    out.resize(length);
}
