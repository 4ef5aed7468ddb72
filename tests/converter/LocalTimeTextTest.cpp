// The time text of one second, pinned directly against localtime_r and
// strftime, also when the zone changes between two conversions of the same
// second: the kept text follows the zone state that tzset() publishes.

#include "converter/LocalTimeText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#include "support/ScopedTimeZone.h"

namespace {

std::string reference(time_t seconds) {
    struct tm local {};
    if (localtime_r(&seconds, &local) == nullptr) {
        return "";
    }
    char text[LocalTimeText::BUFFER_SIZE];
    return std::string(text, std::strftime(text, sizeof(text), LocalTimeText::FORMAT, &local));
}

void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

}  // namespace

TEST(LocalTimeTextTest, EqualsLocaltimeAndStrftimeForRepeatsAndNeighbours) {
    const testing_support::ScopedTimeZone zone("Europe/London");
    for (const time_t second : {1711846799L, 1711846800L, 1711846800L, 1711846799L, 0L, -1L,
                                253402300799L, 253402300800L, 1731676205L, 1731676205L}) {
        EXPECT_EQ(reference(second), std::string(LocalTimeText::of(second))) << second;
    }
}

TEST(LocalTimeTextTest, FailingLocaltimeGivesAnEmptyText) {
    const testing_support::ScopedTimeZone zone("UTC");
    const time_t far = static_cast<time_t>(1) << 62;
    EXPECT_EQ(reference(far), std::string(LocalTimeText::of(far)));
    EXPECT_TRUE(LocalTimeText::of(far).empty());
}

TEST(LocalTimeTextTest, ZoneLoadedByTzsetShowsInTheSameSecond) {
    const testing_support::ScopedTimeZone keep("UTC");
    const time_t second = 1731676205;
    for (const char* zone :
         {"UTC", "Asia/Tokyo", "UTC", "QST-3", "QST-4", "<+0530>-5:30", "", "America/New_York"}) {
        setZone(zone);
        EXPECT_EQ(reference(second), std::string(LocalTimeText::of(second))) << zone;
    }
    unsetenv("TZ");
    tzset();
    EXPECT_EQ(reference(second), std::string(LocalTimeText::of(second))) << "unset";
}

TEST(LocalTimeTextTest, ZoneSetWithoutTzsetIsNotLoadedByEither) {
    const testing_support::ScopedTimeZone keep("UTC");
    const time_t second = 1731676205;
    EXPECT_EQ("Nov 15 13:10:05", std::string(LocalTimeText::of(second)));
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(reference(second), std::string(LocalTimeText::of(second)));
    tzset();
    EXPECT_EQ("Nov 15 22:10:05", std::string(LocalTimeText::of(second)));
}
