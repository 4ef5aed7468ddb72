// What reconcile learns from the event logs: keys read by the line's
// anchors, and the times they cover.

#include "companion/EventLogIndex.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "support/TestSupport.h"

using namespace testing_support;

namespace {

// 2024-11-15 13:10:05 UTC.
constexpr int64_t BASE_TIME = 1731676205;

}  // namespace

TEST(EventLogIndexTest, KeysOfEventLinesAreFoundAndOtherLinesIgnored) {
    TempDir dir;
    writeFile(dir.file("events"),
              "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/a,b,status=enforcing\n"
              "not an event line\n"
              "Nov 15 13:10:06,container_id=3f2a9c,Event=exectl,path=/b,status=permissive");
    EventLogIndex index;
    const Status read = index.read(dir.file("events"));
    ASSERT_TRUE(read.ok()) << read.message();
    EXPECT_EQ(index.events(), 2u);
    EXPECT_TRUE(index.contains("3f2a9c", "/a,b", "Nov 15 13:10:05"));
    EXPECT_TRUE(index.contains("3f2a9c", "/b", "Nov 15 13:10:06"));
    EXPECT_FALSE(index.contains("3f2a9c", "/b", "Nov 15 13:10:05"));
}

TEST(EventLogIndexTest, UnreadableLogIsAnErrorNamingIt) {
    TempDir dir;
    EventLogIndex index;
    const Status read = index.read(dir.file("none"));
    EXPECT_FALSE(read.ok());
    EXPECT_EQ(read.message(), dir.file("none") + ": cannot open: No such file or directory");
}

TEST(EventLogIndexTest, TimeOrdinalsOrderTimesWithinAYear) {
    uint32_t jan = 0;
    uint32_t nov = 0;
    uint32_t later = 0;
    ASSERT_TRUE(EventLogIndex::timeOrdinal("Jan 31 23:59:59", jan));
    ASSERT_TRUE(EventLogIndex::timeOrdinal("Nov 15 13:10:05", nov));
    ASSERT_TRUE(EventLogIndex::timeOrdinal("Nov 15 13:10:06", later));
    EXPECT_LT(jan, nov);
    EXPECT_EQ(later, nov + 1);
    uint32_t ignored = 0;
    EXPECT_FALSE(EventLogIndex::timeOrdinal("Nox 15 13:10:05", ignored));
    EXPECT_FALSE(EventLogIndex::timeOrdinal("Nov 15 13:10:0", ignored));
    EXPECT_FALSE(EventLogIndex::timeOrdinal("Nov 15 13-10:05", ignored));
}

TEST(EventLogIndexTest, TimesBetweenTwoInstantsAreReadUnderTz) {
    setenv("TZ", "UTC", 1);
    tzset();
    TempDir dir;
    writeFile(dir.file("events"),
              "Nov 15 13:10:05,container_id=c,Event=filectl,path=/a,status=enforcing\n");
    EventLogIndex index;
    const Status read = index.read(dir.file("events"));
    ASSERT_TRUE(read.ok()) << read.message();
    EXPECT_TRUE(index.holdsTimeBetween(BASE_TIME, BASE_TIME));
    EXPECT_TRUE(index.holdsTimeBetween(BASE_TIME - 10, BASE_TIME + 10));
    EXPECT_FALSE(index.holdsTimeBetween(BASE_TIME + 1, BASE_TIME + 3600));
    EXPECT_FALSE(index.holdsTimeBetween(BASE_TIME - 3600, BASE_TIME - 1));
    setenv("TZ", "America/New_York", 1);
    tzset();
    EXPECT_FALSE(index.holdsTimeBetween(BASE_TIME, BASE_TIME));
    EXPECT_TRUE(index.holdsTimeBetween(BASE_TIME + 5 * 3600, BASE_TIME + 5 * 3600));
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(EventLogIndexTest, WindowAcrossTheTurnOfTheYearWrapsAround) {
    setenv("TZ", "UTC", 1);
    tzset();
    TempDir dir;
    writeFile(dir.file("events"),
              "Jan 01 00:00:30,container_id=c,Event=filectl,path=/a,status=enforcing\n");
    EventLogIndex index;
    const Status read = index.read(dir.file("events"));
    ASSERT_TRUE(read.ok()) << read.message();
    // 2024-12-31 23:59:00 to 2025-01-01 00:01:00 UTC.
    constexpr int64_t NEW_YEAR = 1735689600;
    EXPECT_TRUE(index.holdsTimeBetween(NEW_YEAR - 60, NEW_YEAR + 60));
    EXPECT_FALSE(index.holdsTimeBetween(NEW_YEAR - 60, NEW_YEAR + 10));
}
