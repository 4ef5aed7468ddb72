#pragma once
// The time an option such as --since names: seconds since the epoch, or an
// ISO 8601 date-time ("2026-11-23", "2026-11-23T18:05", "2026-11-23 18:05:09",
// with "Z" or "+01:00" for a zone; local time under TZ without one).

#include <cstddef>
#include <cstdint>
#include <string>

class TimeArgument {
public:
    // More digits than this may not fit the seconds.
    static constexpr std::size_t MAX_EPOCH_DIGITS = 18;

    // False when the text is neither form.
    static bool parse(const std::string& text, int64_t& seconds);
    // A bare count (of seconds): digits only, at most `maxDigits` of them.
    static bool parseCount(const std::string& text, std::size_t maxDigits, int64_t& value);

private:
    static bool isCount(const std::string& text);
};
