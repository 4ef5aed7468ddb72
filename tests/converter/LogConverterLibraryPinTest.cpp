// The converter answers some questions with code of its own where the C and
// C++ libraries have a call (character classes, the leading integer, the time
// text of one second), for speed. Each equivalent is pinned here against the
// library call it replaces, over its whole input domain, through the public
// operations that use it.

#include <gtest/gtest.h>

#include <cctype>
#include <climits>
#include <ctime>
#include <string>
#include <vector>

#include "converter/ConverterFixture.h"
#include "converter/LogConverter.h"
#include "support/AuditLines.h"
#include "support/ScopedTimeZone.h"
#include "support/TestSupport.h"

using testing_support::ScopedTimeZone;

namespace {

constexpr long long THRESHOLD = 10000000000LL;

// The conversion as the plain library calls make it: std::stoll, localtime_r
// and strftime into a 256-character buffer, any exception an empty result.
std::string libraryTimeText(const std::string& text) {
    try {
        long long seconds = std::stoll(text);
        if (seconds > THRESHOLD) {
            seconds /= 1000;
        }
        const time_t instant = static_cast<time_t>(seconds);
        struct tm local {};
        if (localtime_r(&instant, &local) == nullptr) {
            return {};
        }
        char buffer[256];
        const std::size_t length = std::strftime(buffer, sizeof(buffer), "%b %d %H:%M:%S", &local);
        return std::string(buffer, length);
    } catch (...) {
        return {};
    }
}

std::string byteName(int byte) { return "byte " + std::to_string(byte); }

using LogConverterLibraryPinTest = ConverterFixture;

// ---------------------------------------------------------------------------
// Character classes: isspace and tolower of the C locale

TEST_F(LogConverterLibraryPinTest, OperationIsLoweredAndStrippedLikeToLowerAndIsSpaceForAllBytes) {
    LogConverter::setDebugMode(true);
    std::vector<std::string> expected;
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        std::string line = testing_support::avcLine(1731676205, "pin", "/pin", "W");
        // "{ W }" becomes "{ W<byte>E }".
        line.replace(line.find("{ W }"), 5, std::string("{ W") + c + "E }");
        converter().parseLine(line);

        std::string operation = "w";
        if (c == '}') {
            // The byte closes the braces itself.
        } else {
            if (!std::isspace(static_cast<unsigned char>(c))) {
                operation += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            }
            operation += 'e';
        }
        expected.push_back("Operation: " + operation);
    }

    std::vector<std::string> traced;
    const std::string log = testing_support::readFile(logPath_);
    const std::string marker = "[DEBUG] Operation: ";
    for (std::size_t at = log.find(marker); at != std::string::npos;
         at = log.find(marker, at + 1)) {
        const std::size_t start = at + marker.size() - 11;
        traced.push_back(log.substr(start, log.find('\n', at) - start));
    }
    ASSERT_EQ(expected.size(), traced.size());
    for (int byte = 0; byte < 256; ++byte) {
        EXPECT_EQ(expected[byte], traced[byte]) << byteName(byte);
    }
}

TEST_F(LogConverterLibraryPinTest, TypeIsComparedLikeToLowerForAllBytesAtEveryPosition) {
    struct TypeCase {
        std::string type;
        const char* operation;
        LogConverter::EventType event;
    };
    for (const TypeCase& c : {TypeCase{"QIRN_NETCTL", "connect", LogConverter::EventType::NETCTL},
                              TypeCase{"QIRN_AVC", "write", LogConverter::EventType::FILECTL}}) {
        for (std::size_t position = 0; position < c.type.size(); ++position) {
            for (int byte = 0; byte < 256; ++byte) {
                std::string type = c.type;
                type[position] = static_cast<char>(byte);
                const bool same = std::tolower(byte) == std::tolower(c.type[position]);
                EXPECT_EQ(same ? c.event : LogConverter::EventType::UNKNOWN,
                          converter().determineEventType(type, c.operation))
                    << c.type << ", position " << position << ", " << byteName(byte);
            }
        }
    }
}

TEST_F(LogConverterLibraryPinTest, OperationWordsAreFoundLikeToLowerForAllBytes) {
    // One byte replaces the first letter of "exec": found exactly when the
    // library lowers that byte to 'e'.
    for (int byte = 0; byte < 256; ++byte) {
        const std::string operation = std::string(1, static_cast<char>(byte)) + "xec";
        const bool found = std::tolower(byte) == 'e';
        EXPECT_EQ(found ? LogConverter::EventType::EXECTL : LogConverter::EventType::UNKNOWN,
                  converter().determineEventType("QIRN_AVC", operation))
            << byteName(byte);
    }
}

TEST_F(LogConverterLibraryPinTest, StampIsReadLikeStollAfterAnyLeadingByte) {
    for (int byte = 0; byte < 256; ++byte) {
        const std::string stamp = std::string(1, static_cast<char>(byte)) + "1731676205";
        EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp)) << byteName(byte);
    }
}

// ---------------------------------------------------------------------------
// The leading integer: std::stoll in base 10

TEST_F(LogConverterLibraryPinTest, StampIsReadLikeStollForEdgeNumbersBlanksSignsAndOverflow) {
    const std::vector<std::string> stamps = {
        "",
        " ",
        "+",
        "-",
        "+-1",
        "-+1",
        "++1",
        "--1",
        " \t\n\v\f\r1731676205.123",
        "  +1731676205",
        "-1731676205",
        "1731676205.123",
        "1731676205:42",
        "1731676205abc",
        "abc1731676205",
        ".123",
        "0",
        "+0",
        "-0",
        "-1",
        "00000000000000000000001731676205",
        "9999999999",
        "10000000000",
        "10000000001",
        "1731676205123",
        "1731676205999",
        "1731676206000",
        "-10000000001",
        std::to_string(LLONG_MAX),
        std::to_string(LLONG_MIN),
        "9223372036854775808",
        "-9223372036854775809",
        "99999999999999999999999999",
        "-99999999999999999999999999",
        "253402300799",
        "67767976233316800",
        "1731676205 ",
        "\x01"
        "1731676205",
        std::string("\0"
                    "1731676205",
                    11),
    };
    for (const std::string& stamp : stamps) {
        EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp))
            << "stamp \"" << stamp << "\"";
    }
}

// ---------------------------------------------------------------------------
// The time text of one second: localtime_r + strftime, reused within a second

struct ZoneCase {
    const char* zone;
    std::vector<long long> seconds;
};

TEST_F(LogConverterLibraryPinTest, TimeTextMatchesLocaltimeAndStrftimeAcrossZonesAndSeconds) {
    // Repeats, steps of one second either way and daylight-saving changes,
    // in that order, so that the reused text of the previous second is tested.
    const std::vector<long long> common = {1731676205, 1731676205, 1731676206, 1731676205,
                                           1731676204, 1731676204, 0,          -1,
                                           1,          1731676205};
    const std::vector<ZoneCase> cases = {
        {"UTC", {}},
        {"QST-3", {}},
        {"Asia/Tokyo", {}},
        {"America/New_York", {1710054000 - 1, 1710054000, 1730613600 - 1, 1730613600}},
        {"Europe/London", {1711846800 - 1, 1711846800, 1729990800 - 1, 1729990800}},
        {"Australia/Lord_Howe", {1712413800 - 1, 1712413800, 1727965800 - 1, 1727965800}},
        {"", {}},
    };
    for (const ZoneCase& c : cases) {
        const ScopedTimeZone zone(c.zone);
        std::vector<long long> seconds = common;
        seconds.insert(seconds.end(), c.seconds.begin(), c.seconds.end());
        for (const long long second : seconds) {
            // Milliseconds within that second go through the same path.
            for (const std::string& stamp :
                 {std::to_string(second), std::to_string(second) + ".999",
                  second > 10 ? std::to_string(second * 1000 + 999) : std::to_string(second)}) {
                EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp))
                    << "zone \"" << c.zone << "\", stamp " << stamp;
            }
        }
    }
}

TEST_F(LogConverterLibraryPinTest, TimeTextFollowsAChangeOfZoneWithinTheSameSecond) {
    const std::string stamp = "1731676205";
    for (const char* zone : {"UTC", "Asia/Tokyo", "UTC", "America/New_York", "QST-3", "QST-4"}) {
        setenv("TZ", zone, 1);
        tzset();
        EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp)) << zone;
    }
    // No TZ at all is a setting of its own, distinct from an empty one.
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp)) << "unset";
    setenv("TZ", "", 1);
    tzset();
    EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp)) << "empty";
    setenv("TZ", "Asia/Tokyo", 1);
    tzset();
    EXPECT_EQ(libraryTimeText(stamp), converter().convertTimestamp(stamp)) << "Asia/Tokyo";
}

}  // namespace
