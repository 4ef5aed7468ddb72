// The event line: composed as the service writes it, read back by its anchors.

#include "common/EventLine.h"

#include <gtest/gtest.h>

#include <string>

TEST(EventLineTest, ComposedLineHasTheServiceFormat) {
    std::string line;
    EventLine::compose(line, "Nov 15 13:10:05", "3f2a9c", "filectl", "/etc/passwd", "enforcing");
    EXPECT_EQ(
        line,
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing");
}

TEST(EventLineTest, PlainEventLineGivesEveryField) {
    EventLine::Fields fields;
    ASSERT_TRUE(EventLine::parse(
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing",
        fields));
    EXPECT_EQ(fields.time, "Nov 15 13:10:05");
    EXPECT_EQ(fields.containerId, "3f2a9c");
    EXPECT_EQ(fields.event, "filectl");
    EXPECT_EQ(fields.path, "/etc/passwd");
    EXPECT_EQ(fields.status, "enforcing");
    EXPECT_EQ(EventLine::key(fields), "3f2a9c|/etc/passwd|Nov 15 13:10:05");
}

TEST(EventLineTest, CommasAndFalseAnchorsInsideFieldsStayInThem) {
    EventLine::Fields fields;
    ASSERT_TRUE(EventLine::parse(
        "Nov 15 13:10:05,container_id=a,Event=x,b,Event=netctl,path=/p,status=permissive,q"
        ",status=enforcing",
        fields));
    EXPECT_EQ(fields.containerId, "a,Event=x,b");
    EXPECT_EQ(fields.event, "netctl");
    EXPECT_EQ(fields.path, "/p,status=permissive,q");
    EXPECT_EQ(fields.status, "enforcing");
}

TEST(EventLineTest, EmptyPathIsAPath) {
    EventLine::Fields fields;
    ASSERT_TRUE(EventLine::parse(
        "Nov 15 13:10:05,container_id=c,Event=exectl,path=,status=permissive", fields));
    EXPECT_EQ(fields.path, "");
    EXPECT_EQ(fields.status, "permissive");
}

TEST(EventLineTest, LinesThatAreNotEventsAreRefused) {
    EventLine::Fields fields;
    EXPECT_FALSE(EventLine::parse("", fields));
    EXPECT_FALSE(EventLine::parse("garbage", fields));
    EXPECT_FALSE(EventLine::parse(
        "Nov 15 13:10:05,container_id=a,Event=other,path=/p,status=enforcing", fields));
    EXPECT_FALSE(EventLine::parse(
        "Nov 15 13:10:05,container_id=a,Event=exectl,path=/p,status=unknown", fields));
    EXPECT_FALSE(EventLine::parse("Nov 15 13:10:05,container_id=a,Event=exectl,path=", fields));
}

TEST(EventLineTest, ComposedKeyMatchesTheServiceKey) {
    EXPECT_EQ(EventLine::key("3f2a9c", "/etc/passwd", "Nov 15 13:10:05"),
              "3f2a9c|/etc/passwd|Nov 15 13:10:05");
}

TEST(EventLineTest, ComposedKeyReplacesWhatTheTextHeld) {
    std::string key = "an older and much longer key that must not survive";
    EventLine::composeKey(key, "c", "", "Nov 15 13:10:05");
    EXPECT_EQ(key, "c||Nov 15 13:10:05");
}
