#pragma once
// Byte-level answers the converter asks of every line, written for speed and
// knowing nothing of what the bytes mean: a search through a rare byte, a scan
// for the first of four bytes and a digit reader that look at eight bytes at
// once, the C locale's tolower and isspace as tables, and a stoll that reads a
// view without exceptions. Each is pinned against the plain call it replaces.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

class ByteScan {
public:
    // The bytes a word-at-a-time scan looks at together.
    static constexpr std::size_t WORD = sizeof(std::uint64_t);

    static bool startsWith(std::string_view text, std::string_view prefix) {
        return text.size() >= prefix.size() &&
               std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
    }

    // tolower and isspace of the C locale, which neither program leaves.
    static char lower(char c) { return TABLES.lower[static_cast<unsigned char>(c)]; }
    static bool isSpace(char c) { return TABLES.space[static_cast<unsigned char>(c)] != 0; }

    // The first `needle` at or after `from`, the same answer as
    // text.find(needle, from), found through the needle's byte at ANCHOR: one
    // that is rare in the text searched, so that memchr stops at few
    // candidates, each checked with a comparison of known size.
    template <std::size_t ANCHOR, std::size_t SIZE>
    static std::size_t findThrough(std::string_view text, const char (&needle)[SIZE],
                                   std::size_t from = 0) {
        constexpr std::size_t length = SIZE - 1;
        static_assert(ANCHOR < length, "the anchor is a byte of the needle");
        if (text.size() < length || from > text.size() - length) {
            return std::string_view::npos;
        }
        const char* const data = text.data();
        const char* candidate = data + from + ANCHOR;
        const char* const last = data + (text.size() - length) + ANCHOR;
        while (candidate <= last) {
            candidate = static_cast<const char*>(std::memchr(
                candidate, needle[ANCHOR], static_cast<std::size_t>(last - candidate) + 1));
            if (candidate == nullptr) {
                return std::string_view::npos;
            }
            if (std::memcmp(candidate - ANCHOR, needle, length) == 0) {
                return static_cast<std::size_t>(candidate - ANCHOR - data);
            }
            ++candidate;
        }
        return std::string_view::npos;
    }

    // The first of the four bytes at or after `from`, or the end of the text.
    // Eight bytes are looked at together: a byte equal to one sought becomes
    // zero when xor-ed with it, and the lowest zero byte of a word is found
    // exactly (the bytes above it may show false hits, never the ones below).
    template <char A, char B, char C, char D>
    static std::size_t firstOf(std::string_view text, std::size_t from) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        while (text.size() - from >= WORD) {
            std::uint64_t chunk = 0;
            std::memcpy(&chunk, text.data() + from, WORD);
            const std::uint64_t hits = zeroBytes(chunk ^ (ONES * static_cast<unsigned char>(A))) |
                                       zeroBytes(chunk ^ (ONES * static_cast<unsigned char>(B))) |
                                       zeroBytes(chunk ^ (ONES * static_cast<unsigned char>(C))) |
                                       zeroBytes(chunk ^ (ONES * static_cast<unsigned char>(D)));
            if (hits != 0) {
                return from + static_cast<std::size_t>(__builtin_ctzll(hits)) / WORD;
            }
            from += WORD;
        }
#endif
        while (from < text.size() && text[from] != A && text[from] != B && text[from] != C &&
               text[from] != D) {
            ++from;
        }
        return from;
    }

    // Eight decimal digits at once, the first byte the most significant
    // digit; false when one of the bytes is not a digit.
    static bool eightDigits(const char* text, std::uint64_t& value);

    // The leading integer as std::stoll reads it in base 10 (leading white
    // space, an optional sign, then digits), on a view and without
    // exceptions: false where stoll would throw.
    static bool parseLeadingInteger(std::string_view text, long long& value);
    // The leading decimal digits as an unsigned 64-bit number: no white
    // space, no sign; false without a digit or beyond the range.
    static bool parseLeadingUnsigned(std::string_view text, unsigned long long& value);

    // Comparisons as if `text` had been lower-cased first; `lowered` is
    // already lower case. They spare the lower-cased copy.
    static bool equalsLowered(std::string_view text, std::string_view lowered) {
        if (text.size() != lowered.size()) {
            return false;
        }
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (lower(text[i]) != lowered[i]) {
                return false;
            }
        }
        return true;
    }
    static bool startsWithLowered(std::string_view text, std::string_view lowered) {
        return text.size() >= lowered.size() &&
               equalsLowered(text.substr(0, lowered.size()), lowered);
    }
    static bool containsLowered(std::string_view text, std::string_view lowered) {
        if (lowered.empty()) {
            return true;
        }
        for (std::size_t at = 0; lowered.size() <= text.size() - at; ++at) {
            if (lower(text[at]) == lowered.front() &&
                equalsLowered(text.substr(at, lowered.size()), lowered)) {
                return true;
            }
        }
        return false;
    }
    // Equal once both are lower-cased.
    static bool equalsIgnoringCase(std::string_view a, std::string_view b) {
        if (a.size() != b.size()) {
            return false;
        }
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (lower(a[i]) != lower(b[i])) {
                return false;
            }
        }
        return true;
    }
    static std::string lowerCopy(std::string_view text);
    // `text` lower-cased with its white space left out, into `out`.
    static void assignLoweredWithoutSpace(std::string_view text, std::string& out) {
        // A short text is built on the stack and copied once, into the room
        // the string has of its own; every byte is written, only the kept
        // ones move the end on, so the loop has no branch.
        constexpr std::size_t SHORT_TEXT = 15;
        if (text.size() <= SHORT_TEXT) {
            char buffer[SHORT_TEXT];
            std::size_t length = 0;
            for (const char c : text) {
                buffer[length] = lower(c);
                length += 1U - TABLES.space[static_cast<unsigned char>(c)];
            }
            out.assign(buffer, length);
            return;
        }
        assignLongLoweredWithoutSpace(text, out);
    }

private:
    static void assignLongLoweredWithoutSpace(std::string_view text, std::string& out);

    static constexpr std::uint64_t ONES = 0x0101010101010101;
    static constexpr std::uint64_t HIGHS = 0x8080808080808080;
    // Used by the scan template above, which cppcheck does not instantiate.
    // cppcheck-suppress unusedPrivateFunction
    static constexpr std::uint64_t zeroBytes(std::uint64_t word) {
        return (word - ONES) & ~word & HIGHS;
    }

    struct Tables {
        char lower[256];
        unsigned char space[256];
    };
    static constexpr Tables makeTables() {
        Tables tables{};
        for (int byte = 0; byte < 256; ++byte) {
            const char c = static_cast<char>(byte);
            tables.lower[byte] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
            tables.space[byte] = c == ' ' || (c >= '\t' && c <= '\r') ? 1 : 0;
        }
        return tables;
    }
    static const Tables TABLES;
};

// Made at compile time, once the class is complete.
inline constexpr ByteScan::Tables ByteScan::TABLES = ByteScan::makeTables();
