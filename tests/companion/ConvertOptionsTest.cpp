// Time arguments of --since and --until.

#include "companion/ConvertOptions.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

TEST(ConvertOptionsTest, EpochSecondsAreTakenAsTheyAre) {
    int64_t seconds = 0;
    ASSERT_TRUE(ConvertOptions::parseTime("1731676205", seconds));
    EXPECT_EQ(seconds, 1731676205);
}

TEST(ConvertOptionsTest, IsoDateTimeWithZoneIsExact) {
    int64_t seconds = 0;
    ASSERT_TRUE(ConvertOptions::parseTime("2024-11-15T13:10:05Z", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(ConvertOptions::parseTime("2024-11-15T14:10:05+01:00", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(ConvertOptions::parseTime("2024-11-15T12:10-0100", seconds));
    EXPECT_EQ(seconds, 1731676200);
}

TEST(ConvertOptionsTest, IsoDateTimeWithoutZoneIsLocalTime) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    int64_t seconds = 0;
    ASSERT_TRUE(ConvertOptions::parseTime("2024-11-15 14:10:05", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(ConvertOptions::parseTime("2024-11-15", seconds));
    EXPECT_EQ(seconds, 1731625200);
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(ConvertOptionsTest, OtherTextIsRejected) {
    int64_t seconds = 0;
    EXPECT_FALSE(ConvertOptions::parseTime("", seconds));
    EXPECT_FALSE(ConvertOptions::parseTime("yesterday", seconds));
    EXPECT_FALSE(ConvertOptions::parseTime("2024-13-01", seconds));
    EXPECT_FALSE(ConvertOptions::parseTime("2024-11-15T25:00", seconds));
    EXPECT_FALSE(ConvertOptions::parseTime("2024-11-15T13:10:05+", seconds));
    EXPECT_FALSE(ConvertOptions::parseTime("-5", seconds));
}
