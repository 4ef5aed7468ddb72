// The converter writes its time text itself and reuses the text of the last
// second while the zone state that tzset() publishes is unchanged. These tests
// pin the result to localtime_r and strftime over the whole range of the
// conversion, in zones with and without daylight saving, fractional offsets
// and leap seconds, and across zone changes made with setenv and tzset.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include "converter/ConverterFixture.h"
#include "converter/LogConverter.h"
#include "support/TestSupport.h"

namespace {

constexpr long long MILLISECONDS_THRESHOLD = 10000000000LL;

// What the conversion is defined to give, made with the library calls.
std::string reference(time_t seconds) {
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        return "";
    }
    char text[256];
    const std::size_t length = std::strftime(text, sizeof(text), "%b %d %H:%M:%S", &local);
    return std::string(text, length);
}

// The stamp text that the converter reads as `seconds`.
std::string stampFor(long long seconds) {
    return std::to_string(seconds > MILLISECONDS_THRESHOLD ? seconds * 1000 : seconds);
}

void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

// The fixture's zone is put back after each test, whatever the test set.
class LogConverterTimeTextTest : public ConverterFixture {
protected:
    std::string convert(long long seconds) {
        return LogConverter::getInstance().convertTimestamp(stampFor(seconds));
    }

    // Every mismatch in `seconds`, at most a few reported.
    void expectSameAsReference(const std::vector<long long>& seconds, const char* zone) {
        int reported = 0;
        for (const long long value : seconds) {
            const std::string expected = reference(static_cast<time_t>(value));
            const std::string actual = convert(value);
            if (actual != expected && reported < 5) {
                ADD_FAILURE() << "zone " << zone << ", second " << value << ": expected \""
                              << expected << "\", got \"" << actual << "\"";
                ++reported;
            }
        }
    }
};

// Random seconds over about 1,000 years either side of the epoch, each
// converted twice (the second time from the reused text), and runs of
// consecutive seconds across daylight-saving changes and a leap second.
std::vector<long long> samples() {
    std::vector<long long> seconds;
    std::mt19937_64 random(20261123);
    std::uniform_int_distribution<long long> anywhere(-(1LL << 35), 1LL << 35);
    for (int i = 0; i < 20000; ++i) {
        const long long value = anywhere(random);
        seconds.push_back(value);
        seconds.push_back(value);
    }
    // 2024-03-31 00:00 UTC and 2024-10-27 00:00 UTC (European changes),
    // 2024-03-10 and 2024-11-03 (American), each for 12 hours in steps of 7 s.
    for (const long long start : {1711843200LL, 1729987200LL, 1710028800LL, 1730592000LL}) {
        for (long long value = start; value < start + 12 * 3600; value += 7) {
            seconds.push_back(value);
        }
    }
    // Around the leap second at the end of 2016, in the count of right/UTC.
    for (long long value = 1483228800; value < 1483228900; ++value) {
        seconds.push_back(value);
    }
    for (const long long value : {0LL, -1LL, 1LL, 59LL, 60LL, 86399LL, 86400LL, 951782400LL,
                                  4107542400LL, MILLISECONDS_THRESHOLD}) {
        seconds.push_back(value);
    }
    return seconds;
}

TEST_F(LogConverterTimeTextTest, EqualsLocaltimeAndStrftimeAcrossZones) {
    const std::vector<long long> seconds = samples();
    for (const char* zone :
         {"UTC", "Asia/Tokyo", "America/New_York", "Europe/Berlin", "Australia/Lord_Howe",
          "right/UTC", "CET-1CEST,M3.5.0,M10.5.0/3", "<+0530>-5:30",
          "<-0330>3:30<-0230>,M3.2.0,M11.1.0", "<+1345>-13:45<+1245>,M9.5.0/2:45,M4.1.0/3:45"}) {
        setZone(zone);
        expectSameAsReference(seconds, zone);
    }
}

TEST_F(LogConverterTimeTextTest, ZoneChangeShowsInTheNextConversionOfTheSameSecond) {
    setZone("UTC");
    EXPECT_EQ("Nov 15 13:10:05", convert(1731676205));
    setZone("Asia/Tokyo");
    EXPECT_EQ("Nov 15 22:10:05", convert(1731676205));
    setZone("America/New_York");
    EXPECT_EQ("Nov 15 08:10:05", convert(1731676205));
    // Back to a value set before: the same text as the first time.
    setZone("UTC");
    EXPECT_EQ("Nov 15 13:10:05", convert(1731676205));
}

TEST_F(LogConverterTimeTextTest, ZoneChangeAfterTheEnvironmentGrewShows) {
    setZone("UTC");
    EXPECT_EQ("Nov 15 13:10:05", convert(1731676205));
    // New variables make the C library move the environment elsewhere.
    for (int i = 0; i < 64; ++i) {
        setenv(("QLC_TIME_TEXT_TEST_" + std::to_string(i)).c_str(), "x", 1);
    }
    setZone("Asia/Tokyo");
    EXPECT_EQ("Nov 15 22:10:05", convert(1731676205));
    for (int i = 0; i < 64; ++i) {
        unsetenv(("QLC_TIME_TEXT_TEST_" + std::to_string(i)).c_str());
    }
    setZone("America/New_York");
    EXPECT_EQ("Nov 15 08:10:05", convert(1731676205));
}

TEST_F(LogConverterTimeTextTest, RemovedAndRestoredZoneMatchesReference) {
    setZone("Asia/Tokyo");
    EXPECT_EQ("Nov 15 22:10:05", convert(1731676205));
    // Without TZ the system's own zone applies, whatever it is here.
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(reference(1731676205), convert(1731676205));
    setZone("America/New_York");
    EXPECT_EQ("Nov 15 08:10:05", convert(1731676205));
}

TEST_F(LogConverterTimeTextTest, ZoneSetWithoutTzsetMatchesReference) {
    setZone("UTC");
    EXPECT_EQ("Nov 15 13:10:05", convert(1731676205));
    // localtime_r keeps the zone it loaded until tzset() runs; the text does too.
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(reference(1731676205), convert(1731676205));
    tzset();
    EXPECT_EQ("Nov 15 22:10:05", convert(1731676205));
}

}  // namespace
