// Time arguments of --since and --until, and the bare counts of --settle.

#include "companion/TimeArgument.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

TEST(TimeArgumentTest, EpochSecondsAreTakenAsTheyAre) {
    int64_t seconds = 0;
    ASSERT_TRUE(TimeArgument::parse("1731676205", seconds));
    EXPECT_EQ(seconds, 1731676205);
}

TEST(TimeArgumentTest, IsoDateTimeWithZoneIsExact) {
    int64_t seconds = 0;
    ASSERT_TRUE(TimeArgument::parse("2024-11-15T13:10:05Z", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(TimeArgument::parse("2024-11-15T14:10:05+01:00", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(TimeArgument::parse("2024-11-15T12:10-0100", seconds));
    EXPECT_EQ(seconds, 1731676200);
}

TEST(TimeArgumentTest, IsoDateTimeWithoutZoneIsLocalTime) {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    int64_t seconds = 0;
    ASSERT_TRUE(TimeArgument::parse("2024-11-15 14:10:05", seconds));
    EXPECT_EQ(seconds, 1731676205);
    ASSERT_TRUE(TimeArgument::parse("2024-11-15", seconds));
    EXPECT_EQ(seconds, 1731625200);
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(TimeArgumentTest, OtherTextIsRejected) {
    int64_t seconds = 0;
    EXPECT_FALSE(TimeArgument::parse("", seconds));
    EXPECT_FALSE(TimeArgument::parse("yesterday", seconds));
    EXPECT_FALSE(TimeArgument::parse("2024-13-01", seconds));
    EXPECT_FALSE(TimeArgument::parse("2024-11-15T25:00", seconds));
    EXPECT_FALSE(TimeArgument::parse("2024-11-15T13:10:05+", seconds));
    EXPECT_FALSE(TimeArgument::parse("-5", seconds));
}

TEST(TimeArgumentTest, EpochSecondsTakeAtMostTheirDigits) {
    int64_t seconds = 0;
    const std::string longest(TimeArgument::MAX_EPOCH_DIGITS, '9');
    ASSERT_TRUE(TimeArgument::parse(longest, seconds));
    EXPECT_EQ(seconds, 999999999999999999);
    EXPECT_FALSE(TimeArgument::parse(longest + "9", seconds));
}

TEST(TimeArgumentTest, FieldsAreCheckedAgainstTheirRanges) {
    int64_t seconds = 0;
    EXPECT_TRUE(TimeArgument::parse("2016-12-31T23:59:60Z", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-31T23:59:61Z", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-32", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-00-01", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-31T23:60", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-31T23:00+24:00", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-31T23:00+01:60", seconds));
    EXPECT_FALSE(TimeArgument::parse("16-12-31", seconds));
    EXPECT_FALSE(TimeArgument::parse("2016-12-31T23:00Zx", seconds));
}

TEST(TimeArgumentTest, TheSecondBeforeTheEpochIsATime) {
    int64_t seconds = 0;
    ASSERT_TRUE(TimeArgument::parse("1969-12-31T23:59:59Z", seconds));
    EXPECT_EQ(seconds, -1);
    setenv("TZ", "UTC", 1);
    tzset();
    ASSERT_TRUE(TimeArgument::parse("1969-12-31 23:59:59", seconds));
    EXPECT_EQ(seconds, -1);
}

TEST(TimeArgumentTest, CountsAreDigitsOnlyUpToTheirLimit) {
    int64_t value = 0;
    ASSERT_TRUE(TimeArgument::parseCount("0", 3, value));
    EXPECT_EQ(value, 0);
    ASSERT_TRUE(TimeArgument::parseCount("120", 3, value));
    EXPECT_EQ(value, 120);
    EXPECT_FALSE(TimeArgument::parseCount("1200", 3, value));
    EXPECT_FALSE(TimeArgument::parseCount("", 3, value));
    EXPECT_FALSE(TimeArgument::parseCount("+1", 3, value));
    EXPECT_FALSE(TimeArgument::parseCount("1s", 3, value));
}
