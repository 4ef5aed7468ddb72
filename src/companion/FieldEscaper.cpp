#include "companion/FieldEscaper.h"

#include <cstdint>

namespace {

constexpr char HEX_DIGITS[] = "0123456789abcdef";
constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";
constexpr unsigned char DELETE_CHARACTER = 0x7F;

void appendEscapedByte(std::string& out, unsigned char byte) {
    out += "\\x";
    out += HEX_DIGITS[byte >> 4];
    out += HEX_DIGITS[byte & 0x0F];
}

// Length of the well-formed UTF-8 sequence at `at`, or 0 when it is not one:
// no overlong forms, no encoded surrogates, nothing above U+10FFFF.
std::size_t sequenceLength(std::string_view text, std::size_t at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[at + i]); };
    const unsigned char first = byte(0);
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        low = first == 0xE0 ? 0xA0 : 0x80;
        high = first == 0xED ? 0x9F : 0xBF;
    } else if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        low = first == 0xF0 ? 0x90 : 0x80;
        high = first == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    if (byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if (byte(i) < 0x80 || byte(i) > 0xBF) {
            return 0;
        }
    }
    return length;
}

}  // namespace

void FieldEscaper::appendTabField(std::string& out, std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\t') {
            out += "\\t";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (byte < 0x20 || byte == DELETE_CHARACTER) {
            appendEscapedByte(out, byte);
        } else {
            out += c;
        }
    }
}

bool FieldEscaper::appendJsonString(std::string& out, std::string_view text) {
    bool valid = true;
    out += '"';
    std::size_t at = 0;
    while (at < text.size()) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte < 0x80) {
            if (byte == '"' || byte == '\\') {
                out += '\\';
                out += static_cast<char>(byte);
            } else if (byte < 0x20) {
                out += "\\u00";
                out += HEX_DIGITS[byte >> 4];
                out += HEX_DIGITS[byte & 0x0F];
            } else {
                out += static_cast<char>(byte);
            }
            ++at;
            continue;
        }
        const std::size_t length = sequenceLength(text, at);
        if (length == 0) {
            out += REPLACEMENT;
            valid = false;
            ++at;
        } else {
            out.append(text.substr(at, length));
            at += length;
        }
    }
    out += '"';
    return valid;
}

void FieldEscaper::appendHex(std::string& out, std::string_view bytes) {
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        out += HEX_DIGITS[byte >> 4];
        out += HEX_DIGITS[byte & 0x0F];
    }
}
