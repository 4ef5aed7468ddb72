// The duplicate key read back from event lines by its anchors.

#include "convert/EventKey.h"

#include <gtest/gtest.h>

#include <string>

TEST(EventKeyTest, PlainEventLineGivesContainerPathAndTime) {
    std::string key;
    ASSERT_TRUE(EventKey::fromEventLine(
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing",
        key));
    EXPECT_EQ(key, "3f2a9c|/etc/passwd|Nov 15 13:10:05");
}

TEST(EventKeyTest, CommasAndFalseAnchorsInsideFieldsStayInThem) {
    std::string key;
    ASSERT_TRUE(EventKey::fromEventLine(
        "Nov 15 13:10:05,container_id=a,Event=x,b,Event=netctl,path=/p,status=permissive,q"
        ",status=enforcing",
        key));
    EXPECT_EQ(key, "a,Event=x,b|/p,status=permissive,q|Nov 15 13:10:05");
}

TEST(EventKeyTest, LinesThatAreNotEventsGiveNoKey) {
    std::string key;
    EXPECT_FALSE(EventKey::fromEventLine("", key));
    EXPECT_FALSE(EventKey::fromEventLine("garbage", key));
    EXPECT_FALSE(EventKey::fromEventLine(
        "Nov 15 13:10:05,container_id=a,Event=other,path=/p,status=enforcing", key));
    EXPECT_FALSE(EventKey::fromEventLine(
        "Nov 15 13:10:05,container_id=a,Event=exectl,path=/p,status=unknown", key));
}

TEST(EventKeyTest, ComposedKeyMatchesTheServiceKey) {
    EXPECT_EQ(EventKey::compose("3f2a9c", "/etc/passwd", "Nov 15 13:10:05"),
              "3f2a9c|/etc/passwd|Nov 15 13:10:05");
}
