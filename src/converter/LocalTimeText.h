#pragma once
// The local time text of one second, "%b %d %H:%M:%S" as localtime_r and
// strftime give it in the C locale, which neither program leaves.
//
// Audit records come in bursts within one second and localtime_r is the
// largest part of converting a matching line, so the text of the last second
// is kept and reused. It is reused only while the zone that localtime_r
// converts in is the one it was made in, as the zone state that tzset()
// publishes (tzname, timezone, daylight) shows it: a zone loaded by tzset(),
// or by localtime(), which calls it, changes that state unless the new zone
// has the same names and offsets. What it cannot see: a switch between two
// zones of equal names and offsets whose rules differ at the kept second.
// The service never changes its zone; the companion sets it once at start.

#include <cstddef>
#include <ctime>
#include <string_view>

#include "common/TimeText.h"

class LocalTimeText {
public:
    // The text of `seconds` in the process's zone, empty when localtime_r
    // fails. Kept per thread, so threads share no state; the text stays valid
    // until the thread's next call.
    static std::string_view of(time_t seconds);

    // What strftime is given: its format, and the room it may fill.
    static constexpr const char* FORMAT = TimeText::FORMAT;
    static constexpr std::size_t BUFFER_SIZE = 256;

private:
    // Fills `out` (BUFFER_SIZE bytes) and returns the length.
    static std::size_t format(const struct tm& local, char* out);
};
