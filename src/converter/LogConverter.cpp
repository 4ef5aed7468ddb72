#include "converter/LogConverter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "logging/Trace.h"

namespace {

constexpr std::string_view TYPE_MARKER = "type=";
constexpr std::string_view AVC_TYPE = "QIRN_AVC";
constexpr std::string_view NETCTL_TYPE = "QIRN_NETCTL";
// What both handled types begin with.
constexpr std::string_view QIRN_PREFIX = "QIRN_";
constexpr std::string_view PROC_PATH_KEY = "proc_path";
// Markers searched through one of their bytes (findThrough), chosen rare in
// audit records: "(", "n" and "v".
constexpr char STAMP_NEEDLE[] = "audit(";
constexpr std::size_t STAMP_ANCHOR = 5;
constexpr char NAME_NEEDLE[] = "name=";
constexpr std::size_t NAME_ANCHOR = 0;
constexpr char STATUS_NEEDLE[] = "avc:";
constexpr std::size_t STATUS_ANCHOR = 1;
constexpr std::string_view KEY_SEPARATOR = "|";
constexpr std::size_t KEY_TIMESTAMP_LENGTH = 16;
// The reused key text keeps at most this much room between records.
constexpr std::size_t KEPT_KEY_TEXT_BYTES = 4096;
// Stamps above this are milliseconds; exactly this value still counts as seconds.
constexpr long long MILLISECONDS_THRESHOLD = 10000000000LL;
constexpr long long MILLISECONDS_PER_SECOND = 1000;
constexpr std::size_t TIME_BUFFER_SIZE = 256;
constexpr const char* TIME_FORMAT = "%b %d %H:%M:%S";

// The service never changes its locale, so tolower and isspace are those of
// the C locale; answering here saves a library call per character.
char lowerChar(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isCSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The two answers above for every byte, looked up where a loop asks them of
// each byte of a text.
struct ByteTables {
    char lower[256];
    unsigned char space[256];
};

constexpr ByteTables makeByteTables() {
    ByteTables tables{};
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        tables.lower[byte] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        tables.space[byte] = c == ' ' || (c >= '\t' && c <= '\r') ? 1 : 0;
    }
    return tables;
}

constexpr ByteTables BYTE_TABLES = makeByteTables();

// Copies a piece of a composed text: most pieces are short, and two
// overlapping fixed-size moves copy them without a library call.
inline void copyPiece(char* out, std::string_view piece) {
    constexpr std::size_t WORD = sizeof(std::uint64_t);
    constexpr std::size_t HALF = sizeof(std::uint32_t);
    const char* const from = piece.data();
    const std::size_t size = piece.size();
    if (size > 2 * WORD) {
        std::memcpy(out, from, size);
    } else if (size >= WORD) {
        std::uint64_t head = 0;
        std::uint64_t tail = 0;
        std::memcpy(&head, from, WORD);
        std::memcpy(&tail, from + size - WORD, WORD);
        std::memcpy(out, &head, WORD);
        std::memcpy(out + size - WORD, &tail, WORD);
    } else if (size >= HALF) {
        std::uint32_t head = 0;
        std::uint32_t tail = 0;
        std::memcpy(&head, from, HALF);
        std::memcpy(&tail, from + size - HALF, HALF);
        std::memcpy(out, &head, HALF);
        std::memcpy(out + size - HALF, &tail, HALF);
    } else {
        for (std::size_t i = 0; i < size; ++i) {
            out[i] = from[i];
        }
    }
}

// One allocation of the exact size instead of one append per piece. A
// template, and each piece copied on its own, so that the fixed pieces are
// copied with sizes known at compile time.
template <typename... Pieces>
std::string concat(const Pieces&... pieces) {
    const std::size_t size = (std::string_view(pieces).size() + ...);
    std::string text(size, '\0');
    char* out = text.data();
    ((copyPiece(out, std::string_view(pieces)), out += std::string_view(pieces).size()), ...);
    return text;
}

std::string lowerCopy(std::string_view text) {
    std::string lowered(text);
    for (char& c : lowered) {
        c = lowerChar(c);
    }
    return lowered;
}

// Compares as if `text` had been lower-cased first; `lowered` is already lower
// case. Avoids a copy per classified line.
bool equalsLowered(std::string_view text, std::string_view lowered) {
    if (text.size() != lowered.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (lowerChar(text[i]) != lowered[i]) {
            return false;
        }
    }
    return true;
}

bool contains(std::string_view text, std::string_view part) {
    return text.find(part) != std::string_view::npos;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.size() >= prefix.size() &&
           std::memcmp(text.data(), prefix.data(), prefix.size()) == 0;
}

// The value after the first "type=", up to the next blank; only a blank ends it.
// Returns false when the line has no "type=" at all.
bool findAuditType(std::string_view line, std::string_view& type) {
    // The two handled types at the start of the line, as records carry them,
    // are recognised without a search for the blank.
    constexpr std::string_view OPENS_AVC = "type=QIRN_AVC";
    constexpr std::string_view OPENS_NETCTL = "type=QIRN_NETCTL";
    if (line.size() >= OPENS_AVC.size() &&
        std::memcmp(line.data(), OPENS_AVC.data(), OPENS_AVC.size()) == 0 &&
        (line.size() == OPENS_AVC.size() || line[OPENS_AVC.size()] == ' ')) {
        type = line.substr(TYPE_MARKER.size(), AVC_TYPE.size());
        return true;
    }
    if (line.size() >= OPENS_NETCTL.size() &&
        std::memcmp(line.data(), OPENS_NETCTL.data(), OPENS_NETCTL.size()) == 0 &&
        (line.size() == OPENS_NETCTL.size() || line[OPENS_NETCTL.size()] == ' ')) {
        type = line.substr(TYPE_MARKER.size(), NETCTL_TYPE.size());
        return true;
    }
    // Audit records begin with "type=": checking the start first spares a
    // search on nearly every line, and gives the same first occurrence.
    const std::size_t marker = startsWith(line, TYPE_MARKER) ? 0 : line.find(TYPE_MARKER);
    if (marker == std::string_view::npos) {
        return false;
    }
    const std::size_t start = marker + TYPE_MARKER.size();
    const std::size_t end = line.find(' ', start);
    type = line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
    return true;
}

// The filter's rule: the first "type=" carries one of the two handled types,
// which is kept in `type` for the parse.
bool findHandledType(std::string_view line, std::string_view& type) {
    return findAuditType(line, type) && (type == AVC_TYPE || type == NETCTL_TYPE);
}

// The first `needle` at or after `from`, the same answer as
// line.find(needle, from), found through the needle's byte at ANCHOR: one that
// is rare in audit records, so that memchr stops at few candidates, each
// checked with a comparison of known size.
template <std::size_t ANCHOR, std::size_t SIZE>
std::size_t findThrough(std::string_view line, const char (&needle)[SIZE], std::size_t from = 0) {
    constexpr std::size_t length = SIZE - 1;
    static_assert(ANCHOR < length, "the anchor is a byte of the needle");
    if (line.size() < length || from > line.size() - length) {
        return std::string_view::npos;
    }
    const char* const data = line.data();
    const char* candidate = data + from + ANCHOR;
    const char* const last = data + (line.size() - length) + ANCHOR;
    while (candidate <= last) {
        candidate = static_cast<const char*>(
            std::memchr(candidate, needle[ANCHOR], static_cast<std::size_t>(last - candidate) + 1));
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

constexpr std::size_t EIGHT = 8;

// Blank, tab, comma and colon, as bits of one word: all four are below 64.
constexpr std::uint64_t FIELD_DELIMITERS = (std::uint64_t{1} << ' ') | (std::uint64_t{1} << '\t') |
                                           (std::uint64_t{1} << ',') | (std::uint64_t{1} << ':');

bool isFieldDelimiter(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 64 && ((FIELD_DELIMITERS >> byte) & 1U) != 0;
}

// First occurrence of key immediately followed by "=", without building the
// needle; the position returned is just after the "=".
std::size_t findValueStart(std::string_view line, std::string_view key) {
    std::size_t position = line.find(key);
    while (position != std::string_view::npos) {
        const std::size_t equals = position + key.size();
        if (equals < line.size() && line[equals] == '=') {
            return equals + 1;
        }
        position = line.find(key, position + 1);
    }
    return std::string_view::npos;
}

// The value of a field whose "=" ends just before `start` (npos: no field).
// The first field delimiter at or after `from`, or the end of the line.
// Eight bytes are looked at together: a byte equal to a delimiter becomes
// zero when xor-ed with it, and the lowest zero byte of a word is found
// exactly (the bytes above it may show false hits, never the ones below).
std::size_t delimiterFrom(std::string_view line, std::size_t from) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    constexpr std::uint64_t ONES = 0x0101010101010101;
    constexpr std::uint64_t HIGHS = 0x8080808080808080;
    const auto zeroBytes = [](std::uint64_t word) { return (word - ONES) & ~word & HIGHS; };
    while (line.size() - from >= EIGHT) {
        std::uint64_t chunk = 0;
        std::memcpy(&chunk, line.data() + from, EIGHT);
        const std::uint64_t hits =
            zeroBytes(chunk ^ (ONES * ' ')) | zeroBytes(chunk ^ (ONES * '\t')) |
            zeroBytes(chunk ^ (ONES * ',')) | zeroBytes(chunk ^ (ONES * ':'));
        if (hits != 0) {
            return from + static_cast<std::size_t>(__builtin_ctzll(hits)) / EIGHT;
        }
        from += EIGHT;
    }
#endif
    while (from < line.size() && !isFieldDelimiter(line[from])) {
        ++from;
    }
    return from;
}

std::string_view valueAt(std::string_view line, std::size_t start) {
    if (start == std::string_view::npos || start >= line.size()) {
        return {};
    }
    if (line[start] == '"') {
        const std::size_t valueStart = start + 1;
        if (valueStart >= line.size()) {
            return {};
        }
        const std::size_t closing = line.find('"', valueStart);
        if (closing == std::string_view::npos) {
            return {};
        }
        return line.substr(valueStart, closing - valueStart);
    }
    return line.substr(start, delimiterFrom(line, start) - start);
}

std::string_view fieldValue(std::string_view line, std::string_view key) {
    return valueAt(line, findValueStart(line, key));
}

// The two fields the parser reads, each found through its underscore: few
// bytes of a record are underscores.
constexpr char CONTAINER_ID_NEEDLE[] = "container_id=";
constexpr char PROC_PATH_NEEDLE[] = "proc_path=";

std::string_view valueAfter(std::string_view line, std::size_t needle, std::size_t length) {
    return valueAt(line, needle == std::string_view::npos ? needle : needle + length);
}

std::string_view containerIdValue(std::string_view line) {
    // No "container_id=" can begin inside an opening "type=QIRN_", which has
    // no "c": the search starts after it, past that first underscore.
    constexpr std::string_view OPENING = "type=QIRN_";
    const std::size_t from = startsWith(line, OPENING) ? OPENING.size() : 0;
    return valueAfter(line, findThrough<9>(line, CONTAINER_ID_NEEDLE, from),
                      sizeof(CONTAINER_ID_NEEDLE) - 1);
}

std::string_view procPathValue(std::string_view line) {
    return valueAfter(line, findThrough<4>(line, PROC_PATH_NEEDLE), sizeof(PROC_PATH_NEEDLE) - 1);
}

// Eight decimal digits at once, the first byte the most significant digit;
// false when one of the bytes is not a digit. A stamp's seconds are ten
// digits, so this takes most of the work of reading them.
bool eightDigits(const char* text, std::uint64_t& value) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    std::uint64_t chunk = 0;
    std::memcpy(&chunk, text, EIGHT);
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

// Reads the leading integer the way std::stoll does in base 10 (leading white
// space, an optional sign, then digits), but on a view and without exceptions.
// Decimal digits that always fit a signed 64-bit number.
constexpr std::size_t SAFE_DIGITS = 18;

bool parseLeadingInteger(std::string_view text, long long& value) {
    // A stamp opens with its digits: eight of them at once, then the rest
    // of the 18 that cannot overflow. Longer runs take the general path.
    std::uint64_t plain = 0;
    if (text.size() >= EIGHT && eightDigits(text.data(), plain)) {
        std::size_t end = EIGHT;
        const std::size_t unchecked = std::min(text.size(), SAFE_DIGITS);
        for (; end < unchecked; ++end) {
            const unsigned digit =
                static_cast<unsigned char>(text[end]) - static_cast<unsigned>('0');
            if (digit > 9) {
                break;
            }
            plain = plain * 10 + digit;
        }
        if (end == text.size() || text[end] < '0' || text[end] > '9') {
            value = static_cast<long long>(plain);
            return true;
        }
    }
    std::size_t i = 0;
    while (i < text.size() && isCSpace(text[i])) {
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
    bool anyDigit = false;
    // The first 18 digits cannot overflow, so they need no check.
    const std::size_t unchecked = std::min(text.size(), i + SAFE_DIGITS);
    const std::size_t firstDigit = i;
    std::uint64_t leading = 0;
    if (text.size() - i >= EIGHT && eightDigits(text.data() + i, leading)) {
        accumulated = -static_cast<long long>(leading);
        i += EIGHT;
    }
    for (; i < unchecked; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - static_cast<unsigned>('0');
        if (digit > 9) {
            break;
        }
        accumulated = accumulated * 10 - static_cast<long long>(digit);
    }
    anyDigit = i > firstDigit;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const int digit = text[i] - '0';
        if (accumulated < (lowest + digit) / 10) {
            return false;
        }
        accumulated = accumulated * 10 - digit;
        anyDigit = true;
    }
    if (!anyDigit) {
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

// What decides the zone of localtime_r: the TZ entry of the environment,
// which tzset() reads, and the zone that tzset() loaded from it. The text of a
// second is reused only while both are unchanged, checked without a search:
// setenv installs a new entry for a new value and never rewrites one it
// installed, unsetenv moves the entries behind the one it removes, adding a
// variable reallocates the array or fills the place of its terminator, and
// loading another zone sets the names and offset that tzset() publishes.
struct ZoneProbe {
    char** environment = nullptr;
    // Of the TZ entry; without one, of the terminating null.
    std::size_t index = 0;
    // The TZ entry; without one, the entry before the terminator (or null).
    const char* entry = nullptr;
    bool zoneSet = false;
    const char* standardName = nullptr;
    const char* daylightName = nullptr;
    long offset = 0;
    int hasDaylight = 0;
};

bool isZoneEntry(const char* entry) {
    return entry[0] == 'T' && entry[1] == 'Z' && entry[2] == '=';
}

bool sameLoadedZone(const ZoneProbe& probe) {
    return tzname[0] == probe.standardName && tzname[1] == probe.daylightName &&
           timezone == probe.offset && daylight == probe.hasDaylight;
}

// Taken after localtime_r, which loads the zone on its first call.
ZoneProbe probeZone() {
    ZoneProbe probe;
    probe.standardName = tzname[0];
    probe.daylightName = tzname[1];
    probe.offset = timezone;
    probe.hasDaylight = daylight;
    probe.environment = environ;
    if (environ == nullptr) {
        return probe;
    }
    std::size_t index = 0;
    for (; environ[index] != nullptr; ++index) {
        if (isZoneEntry(environ[index])) {
            probe.index = index;
            probe.entry = environ[index];
            probe.zoneSet = true;
            return probe;
        }
    }
    probe.index = index;
    probe.entry = index > 0 ? environ[index - 1] : nullptr;
    return probe;
}

bool zoneUnchanged(const ZoneProbe& probe) {
    if (environ != probe.environment || !sameLoadedZone(probe)) {
        return false;
    }
    if (environ == nullptr) {
        return true;
    }
    if (probe.zoneSet) {
        return environ[probe.index] == probe.entry;
    }
    return environ[probe.index] == nullptr &&
           (probe.index == 0 || environ[probe.index - 1] == probe.entry);
}

constexpr std::size_t TIME_TEXT_LENGTH = 15;
constexpr std::string_view MONTH_NAMES = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr std::size_t MONTH_NAME_LENGTH = 3;

void putTwoDigits(char* out, int value) {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
}

// "%b %d %H:%M:%S" in the C locale, which the service never leaves: every
// field has a fixed width, so the text is written directly. Out-of-range
// fields (localtime_r never produces them) fall back to strftime. Writes into
// `out`, which has room for TIME_BUFFER_SIZE bytes, and returns the length.
std::size_t formatLocalTime(const struct tm& local, char* out) {
    const bool inRange = local.tm_mon >= 0 && local.tm_mon < 12 && local.tm_mday >= 0 &&
                         local.tm_mday < 100 && local.tm_hour >= 0 && local.tm_hour < 100 &&
                         local.tm_min >= 0 && local.tm_min < 100 && local.tm_sec >= 0 &&
                         local.tm_sec < 100;
    if (!inRange) {
        return std::strftime(out, TIME_BUFFER_SIZE, TIME_FORMAT, &local);
    }
    std::memcpy(
        out, MONTH_NAMES.substr(MONTH_NAME_LENGTH * static_cast<std::size_t>(local.tm_mon)).data(),
        MONTH_NAME_LENGTH);
    out[3] = ' ';
    putTwoDigits(out + 4, local.tm_mday);
    out[6] = ' ';
    putTwoDigits(out + 7, local.tm_hour);
    out[9] = ':';
    putTwoDigits(out + 10, local.tm_min);
    out[12] = ':';
    putTwoDigits(out + 13, local.tm_sec);
    return TIME_TEXT_LENGTH;
}

// The last second converted on this thread, with where the zone came from.
// Plain data, so that reaching it costs no initialisation check.
struct LastConversion {
    bool filled = false;
    time_t seconds = 0;
    ZoneProbe zone;
    std::size_t length = 0;
    char text[TIME_BUFFER_SIZE] = {};
};

// Audit records come in bursts within one second, and localtime_r is the
// largest part of converting a matching line, so the text of the last second
// is reused. It is the text a fresh conversion gives as long as the zone did
// not change since (ZoneProbe). The one change it cannot see: TZ switched
// between two zones of the same names and offsets with a conversion between
// setenv() and tzset(); that second keeps the first zone's text, which differs
// only for dates when the two zones' rules differed. The service never
// changes its zone or its LC_TIME locale. Per thread, so that conversions
// share no state. The text returned stays valid until the thread's next call;
// it is empty when localtime_r fails.
std::string_view localTimeText(time_t seconds) {
    thread_local LastConversion last;
    if (last.filled && last.seconds == seconds && zoneUnchanged(last.zone)) {
        return {last.text, last.length};
    }
    // localtime_r instead of localtime: same result without the shared static buffer.
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        last.filled = false;
        return {};
    }
    last.length = formatLocalTime(local, last.text);
    last.seconds = seconds;
    last.zone = probeZone();
    last.filled = true;
    return {last.text, last.length};
}

// Appends the converted time to `out`, which is left empty when the time
// does not convert. Running out of memory ends the same way, like any other
// failure of the conversion, rather than in an exception leaving it.
void appendConvertedTime(long long seconds, std::string& out) {
    try {
        const std::string_view text = localTimeText(static_cast<time_t>(seconds));
        out.append(text.data(), text.size());
    } catch (...) {
        out.clear();
    }
}

std::string convertedTime(long long seconds) {
    std::string text;
    appendConvertedTime(seconds, text);
    return text;
}

// Seconds of a stamp text after the millisecond rule.
bool stampSeconds(std::string_view text, long long& seconds) {
    if (!parseLeadingInteger(text, seconds)) {
        return false;
    }
    if (seconds > MILLISECONDS_THRESHOLD) {
        seconds /= MILLISECONDS_PER_SECOND;
    }
    return true;
}

std::string formatStamp(std::string_view text) {
    long long seconds = 0;
    if (!stampSeconds(text, seconds)) {
        return {};
    }
    return convertedTime(seconds);
}

// The leading decimal digits of `text`, if any.
bool leadingSerial(std::string_view text, unsigned long long& serial) {
    constexpr unsigned long long highest = std::numeric_limits<unsigned long long>::max();
    unsigned long long value = 0;
    std::size_t i = 0;
    // The first 18 digits cannot overflow, so they need no check.
    const std::size_t unchecked = std::min(text.size(), SAFE_DIGITS);
    for (; i < unchecked; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - static_cast<unsigned>('0');
        if (digit > 9) {
            break;
        }
        value = value * 10 + digit;
    }
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const unsigned digit = static_cast<unsigned>(text[i] - '0');
        if (value > (highest - digit) / 10) {
            return false;
        }
        value = value * 10 + digit;
    }
    if (i == 0) {
        return false;
    }
    serial = value;
    return true;
}

// Unlike fieldValue, an unquoted name ends only at a blank: commas, colons and
// tabs are part of a file name.
std::string_view nameValue(std::string_view line) {
    const std::size_t marker = findThrough<NAME_ANCHOR>(line, NAME_NEEDLE);
    if (marker == std::string_view::npos) {
        return {};
    }
    const std::size_t start = marker + sizeof(NAME_NEEDLE) - 1;
    if (start >= line.size()) {
        return {};
    }
    if (line[start] == '"') {
        const std::size_t closing = line.find('"', start + 1);
        if (closing == std::string_view::npos) {
            return {};
        }
        return line.substr(start + 1, closing - start - 1);
    }
    const std::size_t end = line.find(' ', start);
    return line.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
}

// Contents of the first braces, white space removed and lower-cased.
std::string extractOperation(std::string_view line) {
    std::string operation;
    const std::size_t open = line.find('{');
    if (open == std::string_view::npos) {
        return operation;
    }
    const std::size_t close = line.find('}', open + 1);
    if (close == std::string_view::npos) {
        return operation;
    }
    const std::string_view inside = line.substr(open + 1, close - open - 1);
    // Nearly every operation fits the string's own room: built on the stack
    // and copied once.
    constexpr std::size_t SHORT_OPERATION = 15;
    if (inside.size() <= SHORT_OPERATION) {
        char text[SHORT_OPERATION];
        std::size_t length = 0;
        // Every byte is written; only the kept ones move the end on.
        for (const char c : inside) {
            const auto byte = static_cast<unsigned char>(c);
            text[length] = BYTE_TABLES.lower[byte];
            length += 1U - BYTE_TABLES.space[byte];
        }
        operation.assign(text, length);
        return operation;
    }
    // Sized once, then filled, instead of one append per character.
    operation.resize(inside.size());
    std::size_t length = 0;
    for (const char c : inside) {
        if (!isCSpace(c)) {
            operation[length++] = lowerChar(c);
        }
    }
    operation.resize(length);
    return operation;
}

// The record key: container, path and the time to the second, joined by
// bars; empty for a record that is not valid. Composed in place, so that a
// reused text keeps its room.
template <typename Text>
void composeKey(const LogConverter::ParseResult& result, Text& key) {
    if (!result.valid) {
        key.clear();
        return;
    }
    const std::string_view time =
        std::string_view(result.timestamp).substr(0, KEY_TIMESTAMP_LENGTH);
    // One resize, then the pieces copied in, rather than an append each.
    key.resize(result.containerId.size() + result.path.size() + time.size() +
               2 * KEY_SEPARATOR.size());
    char* out = key.data();
    copyPiece(out, result.containerId);
    out += result.containerId.size();
    *out++ = KEY_SEPARATOR[0];
    copyPiece(out, result.path);
    out += result.path.size();
    *out++ = KEY_SEPARATOR[0];
    copyPiece(out, time);
}

bool startsWithLowered(std::string_view text, std::string_view lowered) {
    return text.size() >= lowered.size() && equalsLowered(text.substr(0, lowered.size()), lowered);
}

// Which words of the event kinds an operation contains, compared as if it
// had been lower-cased: exec or interpret for execution, write, truncate,
// setattr, unlink or rename for files.
struct OperationWords {
    bool exec = false;
    bool file = false;
};

// One walk over the operation, each word tried only where its first letter
// stands, instead of a lower-cased copy searched once per word.
// An operation that is exactly one of the words, in lower case, as the
// parser hands most of them on.
bool exactWord(std::string_view operation, OperationWords& found) {
    const auto is = [&](std::string_view word) { return operation == word; };
    switch (operation.size()) {
        case 4:
            found.exec = is("exec");
            break;
        case 5:
            found.file = is("write");
            break;
        case 6:
            found.file = is("unlink") || is("rename");
            break;
        case 7:
            found.exec = is("execute") || is("execmod");
            found.file = is("setattr");
            break;
        case 8:
            found.file = is("truncate");
            break;
        case 9:
            found.exec = is("interpret");
            break;
        default:
            break;
    }
    return found.exec || found.file;
}

OperationWords wordsIn(std::string_view operation) {
    OperationWords found;
    if (exactWord(operation, found)) {
        return found;
    }
    for (std::size_t i = 0; i < operation.size() && !found.exec; ++i) {
        const std::string_view rest = operation.substr(i);
        switch (lowerChar(operation[i])) {
            case 'e':
                found.exec = startsWithLowered(rest, "exec");
                break;
            case 'i':
                found.exec = startsWithLowered(rest, "interpret");
                break;
            case 'w':
                found.file = found.file || startsWithLowered(rest, "write");
                break;
            case 't':
                found.file = found.file || startsWithLowered(rest, "truncate");
                break;
            case 's':
                found.file = found.file || startsWithLowered(rest, "setattr");
                break;
            case 'u':
                found.file = found.file || startsWithLowered(rest, "unlink");
                break;
            case 'r':
                found.file = found.file || startsWithLowered(rest, "rename");
                break;
            default:
                break;
        }
    }
    return found;
}

// Blank, tab and colon end a status word; a comma does not.
bool isStatusWordEnd(char c) { return c == ' ' || c == '\t' || c == ':'; }

// Whether `text` opens with exactly `word` as a whole status word.
inline bool isWholeStatusWord(std::string_view text, std::string_view word) {
    return startsWith(text, word) &&
           (text.size() == word.size() || isStatusWordEnd(text[word.size()]));
}

// An empty word means the value has none.
std::string_view eventWord(LogConverter::EventType type) {
    switch (type) {
        case LogConverter::EventType::EXECTL:
            return "exectl";
        case LogConverter::EventType::FILECTL:
            return "filectl";
        case LogConverter::EventType::NETCTL:
            return "netctl";
        case LogConverter::EventType::UNKNOWN:
            break;
    }
    return {};
}

std::string_view statusWord(LogConverter::StatusType type) {
    switch (type) {
        case LogConverter::StatusType::ENFORCING:
            return "enforcing";
        case LogConverter::StatusType::PERMISSIVE:
            return "permissive";
        case LogConverter::StatusType::UNKNOWN:
            break;
    }
    return {};
}

}  // namespace

bool LogConverter::debugMode_ = false;

LogConverter& LogConverter::getInstance() {
    static LogConverter instance;
    return instance;
}

void LogConverter::setDebugMode(bool enabled) { debugMode_ = enabled; }

LogConverter::LogConverter() {
    reserveCache();
    trace(Logger::INFO, "LogConverter initialized");
}

LogConverter::~LogConverter() {
    processedLogs_.clear();
    fieldCache_.clear();
}

bool LogConverter::shouldProcess(const std::string& line) const { return isHandledType(line); }

bool LogConverter::isHandledType(std::string_view line) {
    // Nearly every audit record begins with "type=", and both handled types
    // begin with "QIRN_": for a record of another kind the bytes after the
    // marker settle the answer without any search.
    if (startsWith(line, TYPE_MARKER) &&
        !startsWith(line.substr(TYPE_MARKER.size()), QIRN_PREFIX)) {
        return false;
    }
    std::string_view type;
    return findHandledType(line, type);
}

std::string LogConverter::extractField(const std::string& line, const std::string& key) const {
    return std::string(fieldValue(line, key));
}

std::string LogConverter::extractQuotedField(const std::string& line,
                                             const std::string& key) const {
    // Quotes are already handled by extractField; this stays a separate entry
    // point because the parser uses it as its second attempt.
    return extractField(line, key);
}

void LogConverter::parseLineFully(const std::string& line, ParseResult& result) const {
    // Both start empty; clear() makes the reset without the library call that
    // assigning "" costs.
    result.spare.clear();
    result.containerId.clear();
    try {
        trace(debugMode_, Logger::DEBUG, [&] { return "Parsing line: " + line; });
        // The filter's own test, with the type it found kept for the parse,
        // which would otherwise look for the same first "type=" again.
        std::string_view type;
        if (!findHandledType(line, type)) {
            trace(debugMode_, Logger::DEBUG, [&] { return "Line should not be processed"; });
            return;
        }

        parseRecord(line, type, result);
    } catch (const std::exception& e) {
        trace(Logger::ERROR, std::string("Exception in parseLine: ") + e.what());
    }
}

void LogConverter::parseRecord(const std::string& line, std::string_view typeView,
                               ParseResult& result) const {
    const std::string_view containerId = containerIdValue(line);
    if (containerId.empty()) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "container_id field not found in log, skipping"; });
        return;
    }
    // The record's strings are empty here: appending to them spares the
    // general replacement that an assignment goes through.
    result.containerId.append(containerId.data(), containerId.size());
    trace(debugMode_, Logger::DEBUG,
          [&] { return "Container ID from container_id field: " + result.containerId; });

    // The parser has no use for the serial number.
    const AuditStamp stamp = findAuditStamp(line, false);
    if (!stamp.found) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No timestamp found"; });
        return;
    }
    if (stamp.hasSeconds) {
        appendConvertedTime(stamp.seconds, result.timestamp);
    }
    if (result.timestamp.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Failed to convert timestamp"; });
        return;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Converted timestamp: " + result.timestamp; });

    // The type was found by the filter: the first "type=", up to the next blank.
    if (typeView.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No type found"; });
        return;
    }
    // The two types the filter passes are spelled alike on every line: their
    // strings are made once.
    static const std::string avcType(AVC_TYPE);
    static const std::string netctlType(NETCTL_TYPE);
    std::string otherType;
    const std::string& type = typeView == AVC_TYPE      ? avcType
                              : typeView == NETCTL_TYPE ? netctlType
                                                        : otherType.assign(typeView);
    trace(debugMode_, Logger::DEBUG, [&] { return "Type: " + type; });

    if (type == AVC_TYPE) {
        const std::string_view name = nameValue(line);
        result.path.append(name.data(), name.size());
    } else if (type == NETCTL_TYPE) {
        const std::string_view procPath = procPathValue(line);
        result.path.append(procPath.data(), procPath.size());
        if (result.path.empty()) {
            // The second attempt gives the same result; it is the parser's
            // established order and costs nothing on a line that has the field.
            result.path = extractQuotedField(line, std::string(PROC_PATH_KEY));
        }
        if (!result.path.empty()) {
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "NETCTL path extracted from proc_path: " + result.path; });
        }
    }
    if (result.path.empty()) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No path found"; });
        return;
    }
    trace(debugMode_, Logger::DEBUG, [&] { return "Path: " + result.path; });

    // A network-control record is classified without its operation, which
    // then only the trace shows.
    const std::string operation =
        debugMode_ || type != NETCTL_TYPE ? extractOperation(line) : std::string();
    trace(debugMode_, Logger::DEBUG, [&] { return "Operation: " + operation; });

    result.eventType = determineEventType(type, operation);
    if (result.eventType == EventType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Unknown event type: type=" + type + ", operation=" + operation; });
        return;
    }

    result.statusType = determineStatusType(line);
    if (result.statusType == StatusType::UNKNOWN) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Unknown status"; });
        return;
    }

    result.valid = true;
    trace(debugMode_, Logger::DEBUG, [&] {
        return "Parse successful - container_id: " + result.containerId + ", type: " + type +
               ", event: " + std::to_string(static_cast<int32_t>(result.eventType)) +
               ", path: " + result.path +
               ", status: " + std::to_string(static_cast<int32_t>(result.statusType));
    });
}

LogConverter::AuditStamp LogConverter::findAuditStamp(std::string_view line, bool withSerial) {
    AuditStamp stamp;
    const std::size_t marker = findThrough<STAMP_ANCHOR>(line, STAMP_NEEDLE);
    if (marker == std::string_view::npos) {
        return stamp;
    }
    const std::size_t start = marker + sizeof(STAMP_NEEDLE) - 1;
    if (start >= line.size()) {
        return stamp;
    }
    const std::size_t colon = line.find(':', start);
    const std::size_t end = colon != std::string_view::npos ? colon : line.find(')', start);
    if (end == std::string_view::npos || end == start) {
        return stamp;
    }
    stamp.found = true;
    stamp.text = line.substr(start, end - start);
    stamp.hasSeconds = stampSeconds(stamp.text, stamp.seconds);
    if (withSerial && colon != std::string_view::npos) {
        stamp.hasSerial = leadingSerial(line.substr(colon + 1), stamp.serial);
    }
    return stamp;
}

std::string LogConverter::convertToOutputFormat(const ParseResult& result) {
    if (!result.valid) {
        return {};
    }
    composeKey(result, keyText_);
    if (!keyText_.empty()) {
        // Copied into the cache only when new; on a duplicate the cache keeps
        // its own, equal copy, which is the one reported.
        const auto [entry, inserted] = processedLogs_.insert(keyText_);
        if (keyText_.capacity() > KEPT_KEY_TEXT_BYTES) {
            // The room a very long path needed is not kept for good.
            std::pmr::string().swap(keyText_);
        }
        if (!inserted) {
            trace(Logger::DEBUG, concat("Skipping duplicate log entry: ", *entry));
            return {};
        }
        if (processedLogs_.size() > MAX_CACHE_SIZE) {
            clearCache();
            trace(Logger::DEBUG, "Cleared duplicate cache (size limit reached)");
        }
    }

    // A record without words keeps its key in the cache: it stays remembered
    // although nothing is written for it.
    const std::string_view event = eventWord(result.eventType);
    if (event.empty()) {
        return {};
    }
    const std::string_view status = statusWord(result.statusType);
    if (status.empty()) {
        return {};
    }

    std::string line = concat(result.timestamp, ",container_id=", result.containerId,
                              ",Event=", event, ",path=", result.path, ",status=", status);

    trace(debugMode_, Logger::DEBUG, [&] { return "Output: " + line; });
    return line;
}

std::string LogConverter::convertTimestamp(const std::string& text) const {
    return formatStamp(text);
}

std::string LogConverter::generateLogHash(const ParseResult& result) const {
    std::string key;
    composeKey(result, key);
    return key;
}

void LogConverter::clearCache() {
    // A fresh set holds no memory of the arena, so the arena can start over.
    processedLogs_ = KeySet(&keyArena_);
    keyArena_.reset();
    reserveCache();
}

void LogConverter::reserveCache() {
    // Buckets for a full cache at once: the set never rehashes, so each key is
    // hashed once, when it is looked up.
    processedLogs_.reserve(MAX_CACHE_SIZE + 1);
}

LogConverter::EventType LogConverter::determineEventType(const std::string& type,
                                                         const std::string& operation) const {
    // The exact spellings, which the filter passes, before the comparison
    // that ignores case.
    if (type == NETCTL_TYPE || equalsLowered(type, "qirn_netctl")) {
        trace(debugMode_, Logger::DEBUG, [&] { return "Type is QIRN_NETCTL -> netctl"; });
        return EventType::NETCTL;
    }
    if (type == AVC_TYPE || equalsLowered(type, "qirn_avc")) {
        const OperationWords words = wordsIn(operation);
        if (words.exec) {
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "Operation is exec/interpret -> exectl"; });
            return EventType::EXECTL;
        }
        if (words.file) {
            trace(debugMode_, Logger::DEBUG,
                  [&] { return "Operation is write/truncate/setattr/unlink/rename -> filectl"; });
            return EventType::FILECTL;
        }
    }
    // Also the message for an access-vector line whose operation matched
    // nothing, although its type is supported.
    trace(debugMode_, Logger::DEBUG, [&] { return "Unsupported type: " + type; });
    return EventType::UNKNOWN;
}

LogConverter::StatusType LogConverter::determineStatusType(const std::string& line) const {
    const std::string_view text = line;
    const std::size_t marker = findThrough<STATUS_ANCHOR>(text, STATUS_NEEDLE);
    if (marker == std::string_view::npos) {
        trace(debugMode_, Logger::DEBUG, [&] { return "No 'avc:' found in line"; });
        return StatusType::UNKNOWN;
    }
    std::size_t start = marker + sizeof(STATUS_NEEDLE) - 1;
    while (start < text.size() && (text[start] == ' ' || text[start] == '\t')) {
        ++start;
    }
    // With no trace to write, the two words audit records carry, as they
    // carry them, are recognised where they stand, before the word's end is
    // searched for.
    if (!debugMode_) {
        const std::string_view rest = text.substr(start);
        if (isWholeStatusWord(rest, "denied")) {
            return StatusType::ENFORCING;
        }
        if (isWholeStatusWord(rest, "detected")) {
            return StatusType::PERMISSIVE;
        }
    }
    std::size_t end = start;
    while (end < text.size() && !isStatusWordEnd(text[end])) {
        ++end;
    }
    // A comma does not end the word, so "denied," still counts as denied.
    const std::string_view word = text.substr(start, end - start);
    trace(debugMode_, Logger::DEBUG, [&] { return "Extracted status word: " + std::string(word); });

    // With no trace to write, the two words audit records carry are settled
    // without a lower-cased copy and a search in it.
    if (!debugMode_) {
        if (equalsLowered(word, "denied")) {
            return StatusType::ENFORCING;
        }
        if (equalsLowered(word, "detected")) {
            return StatusType::PERMISSIVE;
        }
    }
    const std::string lowered = lowerCopy(word);
    if (contains(lowered, "denied")) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Status mapping (contains denied): " + lowered + " -> enforcing"; });
        return StatusType::ENFORCING;
    }
    if (contains(lowered, "detect")) {
        trace(debugMode_, Logger::DEBUG,
              [&] { return "Status mapping (contains detect): " + lowered + " -> permissive"; });
        return StatusType::PERMISSIVE;
    }
    trace(Logger::ERROR,
          "Unexpected status word (neither denied nor detect): " + lowered + " in line: " + line);
    return StatusType::UNKNOWN;
}
