#include "companion/TimeArgument.h"

#include <cstdlib>
#include <ctime>

namespace {

constexpr std::size_t YEAR_DIGITS = 4;
constexpr std::size_t FIELD_DIGITS = 2;  // month, day, hour, minute, second, zone
constexpr int MONTHS = 12;
constexpr int MAX_DAY = 31;
constexpr int MAX_HOUR = 23;
constexpr int MAX_MINUTE = 59;
constexpr int MAX_SECOND = 60;         // a leap second
constexpr int YEAR_BEFORE_EPOCH = 69;  // 1969, as struct tm counts years
constexpr int SECONDS_PER_MINUTE = 60;
constexpr int SECONDS_PER_HOUR = 3600;
constexpr int TM_YEAR_BASE = 1900;

// Reads exactly `count` digits at `at`.
bool digits(const std::string& text, std::size_t& at, std::size_t count, int& value) {
    if (at + count > text.size()) {
        return false;
    }
    value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const char c = text[at + i];
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    at += count;
    return true;
}

bool expect(const std::string& text, std::size_t& at, char c) {
    if (at < text.size() && text[at] == c) {
        ++at;
        return true;
    }
    return false;
}

}  // namespace

bool TimeArgument::parse(const std::string& text, int64_t& seconds) {
    if (isCount(text)) {
        return parseCount(text, MAX_EPOCH_DIGITS, seconds);
    }
    struct tm fields {};
    std::size_t at = 0;
    int year = 0;
    int month = 0;
    int day = 0;
    if (!digits(text, at, YEAR_DIGITS, year) || !expect(text, at, '-') ||
        !digits(text, at, FIELD_DIGITS, month) || !expect(text, at, '-') ||
        !digits(text, at, FIELD_DIGITS, day)) {
        return false;
    }
    int hour = 0;
    int minute = 0;
    int second = 0;
    if (at < text.size() && (text[at] == 'T' || text[at] == ' ')) {
        ++at;
        if (!digits(text, at, FIELD_DIGITS, hour) || !expect(text, at, ':') ||
            !digits(text, at, FIELD_DIGITS, minute)) {
            return false;
        }
        if (expect(text, at, ':') && !digits(text, at, FIELD_DIGITS, second)) {
            return false;
        }
    }
    if (month < 1 || month > MONTHS || day < 1 || day > MAX_DAY || hour > MAX_HOUR ||
        minute > MAX_MINUTE || second > MAX_SECOND) {
        return false;
    }
    fields.tm_year = year - TM_YEAR_BASE;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    if (at == text.size()) {
        fields.tm_isdst = -1;
        const time_t local = mktime(&fields);
        // -1 is also the second before the epoch, a time of 1969.
        if (local == static_cast<time_t>(-1) && fields.tm_year != YEAR_BEFORE_EPOCH) {
            return false;
        }
        seconds = static_cast<int64_t>(local);
        return true;
    }
    int offset = 0;
    if (text[at] == 'Z' && at + 1 == text.size()) {
        offset = 0;
    } else if (text[at] == '+' || text[at] == '-') {
        const int sign = text[at] == '-' ? -1 : 1;
        ++at;
        int zoneHours = 0;
        int zoneMinutes = 0;
        if (!digits(text, at, FIELD_DIGITS, zoneHours)) {
            return false;
        }
        expect(text, at, ':');
        if (at < text.size() && !digits(text, at, FIELD_DIGITS, zoneMinutes)) {
            return false;
        }
        if (at != text.size() || zoneHours > MAX_HOUR || zoneMinutes > MAX_MINUTE) {
            return false;
        }
        offset = sign * (zoneHours * SECONDS_PER_HOUR + zoneMinutes * SECONDS_PER_MINUTE);
    } else {
        return false;
    }
    seconds = static_cast<int64_t>(timegm(&fields)) - offset;
    return true;
}

bool TimeArgument::isCount(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return true;
}

bool TimeArgument::parseCount(const std::string& text, std::size_t maxDigits, int64_t& value) {
    if (!isCount(text) || text.size() > maxDigits) {
        return false;
    }
    value = std::strtoll(text.c_str(), nullptr, 10);
    return true;
}
