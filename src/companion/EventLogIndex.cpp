#include "companion/EventLogIndex.h"

#include <algorithm>
#include <ctime>

#include "common/EventLine.h"
#include "common/TimeText.h"
#include "companion/InputStream.h"
#include "companion/LineSource.h"

namespace {

constexpr std::size_t MONTHS = TimeText::MONTH_NAMES.size() / TimeText::MONTH_LENGTH;
constexpr uint32_t DAYS_PER_MONTH_SLOT = 32;
constexpr uint32_t HOURS_PER_DAY = 24;
constexpr uint32_t SECONDS_PER_HOUR = 3600;
constexpr uint32_t SECONDS_PER_MINUTE = 60;
// Beyond this span every time of a year lies inside it.
constexpr int64_t SECONDS_PER_LEAP_YEAR = int64_t{366} * 24 * 3600;

bool twoDigits(std::string_view text, std::size_t at, uint32_t& value) {
    const char high = text[at];
    const char low = text[at + 1];
    if (high < '0' || high > '9' || low < '0' || low > '9') {
        return false;
    }
    value = static_cast<uint32_t>((high - '0') * 10 + (low - '0'));
    return true;
}

uint32_t ordinalOf(uint32_t month, uint32_t day, uint32_t hour, uint32_t minute, uint32_t second) {
    return ((month * DAYS_PER_MONTH_SLOT + day) * HOURS_PER_DAY + hour) * SECONDS_PER_HOUR +
           minute * SECONDS_PER_MINUTE + second;
}

uint32_t localOrdinal(int64_t seconds) {
    const time_t when = static_cast<time_t>(seconds);
    struct tm local {};
    localtime_r(&when, &local);
    return ordinalOf(static_cast<uint32_t>(local.tm_mon), static_cast<uint32_t>(local.tm_mday),
                     static_cast<uint32_t>(local.tm_hour), static_cast<uint32_t>(local.tm_min),
                     static_cast<uint32_t>(local.tm_sec));
}

// The month's index, 0 for January; MONTHS when the name is none.
std::size_t monthOf(std::string_view name) {
    std::size_t month = 0;
    while (month < MONTHS && TimeText::MONTH_NAMES.substr(month * TimeText::MONTH_LENGTH,
                                                          TimeText::MONTH_LENGTH) != name) {
        ++month;
    }
    return month;
}

}  // namespace

bool EventLogIndex::timeOrdinal(std::string_view time, uint32_t& ordinal) {
    using T = TimeText;
    if (time.size() != T::LENGTH || time[T::DAY_AT - 1] != T::DATE_SEPARATOR ||
        time[T::HOUR_AT - 1] != T::DATE_SEPARATOR || time[T::MINUTE_AT - 1] != T::CLOCK_SEPARATOR ||
        time[T::SECOND_AT - 1] != T::CLOCK_SEPARATOR) {
        return false;
    }
    const std::size_t month = monthOf(time.substr(0, T::MONTH_LENGTH));
    uint32_t day = 0;
    uint32_t hour = 0;
    uint32_t minute = 0;
    uint32_t second = 0;
    if (month == MONTHS || !twoDigits(time, T::DAY_AT, day) || !twoDigits(time, T::HOUR_AT, hour) ||
        !twoDigits(time, T::MINUTE_AT, minute) || !twoDigits(time, T::SECOND_AT, second)) {
        return false;
    }
    ordinal = ordinalOf(static_cast<uint32_t>(month), day, hour, minute, second);
    return true;
}

Status EventLogIndex::read(const std::string& name) {
    InputStream input(name);
    if (!input.open()) {
        return input.status();
    }
    LineSource source(input, 0, 1, true);
    if (!source.run([this](const LineSource::Line& line) {
            add(std::string_view(line.text, line.length));
            return true;
        })) {
        return input.status();
    }
    return Status::success();
}

void EventLogIndex::add(std::string_view line) {
    EventLine::Fields fields;
    if (!EventLine::parse(line, fields)) {
        return;
    }
    ++events_;
    EventLine::composeKey(key_, fields.containerId, fields.path, fields.time);
    keys_.insert(digest_.of(key_));
    uint32_t ordinal = 0;
    if (timeOrdinal(fields.time, ordinal) && (times_.empty() || times_.back() != ordinal)) {
        times_.push_back(ordinal);
        timesSorted_ = false;
    }
}

bool EventLogIndex::contains(std::string_view containerId, std::string_view path,
                             std::string_view time) {
    EventLine::composeKey(key_, containerId, path, time);
    return keys_.contains(digest_.of(key_));
}

bool EventLogIndex::holdsTimeBetween(int64_t from, int64_t to) {
    if (times_.empty() || from > to) {
        return false;
    }
    if (to - from >= SECONDS_PER_LEAP_YEAR) {
        return true;
    }
    if (!timesSorted_) {
        std::sort(times_.begin(), times_.end());
        timesSorted_ = true;
    }
    const uint32_t first = localOrdinal(from);
    const uint32_t last = localOrdinal(to);
    if (first <= last) {
        const auto at = std::lower_bound(times_.begin(), times_.end(), first);
        return at != times_.end() && *at <= last;
    }
    // Across the turn of a year: from `first` to December, or January to `last`.
    return times_.back() >= first || times_.front() <= last;
}
