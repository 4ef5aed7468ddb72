#include "agent/MetricsFile.h"

#include <gtest/gtest.h>

#include "support/TestSupport.h"

using testing_support::containsLine;
using testing_support::fileExists;
using testing_support::readLines;
using testing_support::TempDir;

TEST(MetricsFileTest, WritesEveryMetricRenamedIntoPlace) {
    TempDir dir;
    MetricsFile::Values values;
    values.connected = true;
    values.lags = {{"events", 120, 0.5}, {"backfill", 0, 0}};
    values.lastCommit = 1700000000;
    values.lastHeartbeat = 1700000001;
    values.stored = 7;
    values.duplicates = 2;
    values.unparsed = 1;
    values.errors = 3;
    values.lostFiles = 1;
    ASSERT_TRUE(MetricsFile::write(dir.path(), values).ok());
    const auto lines = readLines(dir.file("qirn_fleet_agent.prom"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_connected 1"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_lag_bytes{stream=\"events\"} 120"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_lag_seconds{stream=\"events\"} 0.5"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_lag_bytes{stream=\"backfill\"} 0"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_last_commit_timestamp_seconds 1700000000"));
    EXPECT_TRUE(
        containsLine(lines, "qirn_fleet_agent_last_heartbeat_timestamp_seconds 1700000001"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_events_stored_total 7"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_duplicates_total 2"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_unparsed_total 1"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_errors_total 3"));
    EXPECT_TRUE(containsLine(lines, "qirn_fleet_agent_lost_files_total 1"));
    EXPECT_TRUE(containsLine(lines, "# TYPE qirn_fleet_agent_errors_total counter"));
    EXPECT_FALSE(fileExists(dir.file(".qirn_fleet_agent.prom.tmp")));
}

TEST(MetricsFileTest, AnEmptyDirectoryMeansNoFile) {
    EXPECT_TRUE(MetricsFile::write("", MetricsFile::Values{}).ok());
}

TEST(MetricsFileTest, AnUnwritableDirectoryIsReported) {
    TempDir dir;
    const Status status = MetricsFile::write(dir.file("absent"), MetricsFile::Values{});
    EXPECT_EQ(Status::Code::IO_ERROR, status.code());
}
