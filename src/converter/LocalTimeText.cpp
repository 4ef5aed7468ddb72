#include "converter/LocalTimeText.h"

#include <cstring>

namespace {

void putTwoDigits(char* out, int value) {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
}

// The zone state that tzset() publishes; the kept text is reused only while
// it is unchanged. A name is compared by its pointer first: the same pointer
// is the same text.
struct Zone {
    const char* standardName = nullptr;
    const char* daylightName = nullptr;
    long offset = 0;
    int hasDaylight = 0;
};

Zone currentZone() { return Zone{tzname[0], tzname[1], timezone, daylight}; }

bool sameName(const char* a, const char* b) {
    return a == b || (a != nullptr && b != nullptr && std::strcmp(a, b) == 0);
}

bool sameZone(const Zone& a, const Zone& b) {
    return a.offset == b.offset && a.hasDaylight == b.hasDaylight &&
           sameName(a.standardName, b.standardName) && sameName(a.daylightName, b.daylightName);
}

// The last second converted on this thread. Plain data, so that reaching it
// costs no initialisation check.
struct Kept {
    bool filled = false;
    time_t seconds = 0;
    Zone zone;
    std::size_t length = 0;
    char text[LocalTimeText::BUFFER_SIZE] = {};
};

}  // namespace

std::string_view LocalTimeText::of(time_t seconds) {
    thread_local Kept kept;
    if (kept.filled && kept.seconds == seconds && sameZone(kept.zone, currentZone())) {
        return {kept.text, kept.length};
    }
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        kept.filled = false;
        return {};
    }
    kept.length = format(local, kept.text);
    kept.seconds = seconds;
    // Read after localtime_r, which loads the zone on its first call.
    kept.zone = currentZone();
    kept.filled = true;
    return {kept.text, kept.length};
}

// Every field has a fixed width, so the text is written directly; fields out
// of range (localtime_r never gives them) are left to strftime.
std::size_t LocalTimeText::format(const struct tm& local, char* out) {
    const bool inRange = local.tm_mon >= 0 && local.tm_mon < 12 && local.tm_mday >= 0 &&
                         local.tm_mday < 100 && local.tm_hour >= 0 && local.tm_hour < 100 &&
                         local.tm_min >= 0 && local.tm_min < 100 && local.tm_sec >= 0 &&
                         local.tm_sec < 100;
    if (!inRange) {
        return std::strftime(out, BUFFER_SIZE, FORMAT, &local);
    }
    std::memcpy(out,
                TimeText::MONTH_NAMES
                    .substr(TimeText::MONTH_LENGTH * static_cast<std::size_t>(local.tm_mon))
                    .data(),
                TimeText::MONTH_LENGTH);
    out[TimeText::DAY_AT - 1] = TimeText::DATE_SEPARATOR;
    putTwoDigits(out + TimeText::DAY_AT, local.tm_mday);
    out[TimeText::HOUR_AT - 1] = TimeText::DATE_SEPARATOR;
    putTwoDigits(out + TimeText::HOUR_AT, local.tm_hour);
    out[TimeText::MINUTE_AT - 1] = TimeText::CLOCK_SEPARATOR;
    putTwoDigits(out + TimeText::MINUTE_AT, local.tm_min);
    out[TimeText::SECOND_AT - 1] = TimeText::CLOCK_SEPARATOR;
    putTwoDigits(out + TimeText::SECOND_AT, local.tm_sec);
    return TimeText::LENGTH;
}
