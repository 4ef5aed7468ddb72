#pragma once
// The time text that opens every event line, "%b %d %H:%M:%S" in the C
// locale: its length and the place of each field. The converter writes it
// (LocalTimeText), the event line's readers find it by these offsets.

#include <cstddef>
#include <string_view>

class TimeText {
public:
    static constexpr const char* FORMAT = "%b %d %H:%M:%S";
    // "Mmm dd HH:MM:SS"
    static constexpr std::size_t LENGTH = 15;

    // strftime's %b in the C locale, three letters each, January first.
    static constexpr std::string_view MONTH_NAMES = "JanFebMarAprMayJunJulAugSepOctNovDec";
    static constexpr std::size_t MONTH_LENGTH = 3;

    // Where each two-digit field starts, and the separator before it.
    static constexpr std::size_t DAY_AT = 4;
    static constexpr std::size_t HOUR_AT = 7;
    static constexpr std::size_t MINUTE_AT = 10;
    static constexpr std::size_t SECOND_AT = 13;
    static constexpr std::size_t FIELD_LENGTH = 2;
    static constexpr char DATE_SEPARATOR = ' ';   // before the day and the hour
    static constexpr char CLOCK_SEPARATOR = ':';  // before the minute and the second

    static_assert(DAY_AT == MONTH_LENGTH + 1 && HOUR_AT == DAY_AT + FIELD_LENGTH + 1 &&
                      MINUTE_AT == HOUR_AT + FIELD_LENGTH + 1 &&
                      SECOND_AT == MINUTE_AT + FIELD_LENGTH + 1 &&
                      LENGTH == SECOND_AT + FIELD_LENGTH,
                  "the fields follow one another, one separator apart");
};
