#include "agent/AgentConfig.h"

#include <gtest/gtest.h>

#include "support/TestSupport.h"

using testing_support::TempDir;
using testing_support::writeFile;

TEST(AgentConfigTest, DefaultsApplyToWhatTheFileDoesNotSet) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=host=db dbname=qirn\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("absent.conf"), config).ok());
    EXPECT_EQ("host=db dbname=qirn", config.conninfo);
    EXPECT_EQ("/var/log/zarvo_container.log", config.eventLog);
    EXPECT_EQ("/var/log/zarvo_container.backfill.log", config.backfillLog);
    EXPECT_EQ(30, config.heartbeatSeconds);
    EXPECT_EQ("/var/lib/prometheus/node-exporter", config.textfileDir);
    EXPECT_EQ(10000u, config.batchLines);
    EXPECT_EQ(std::chrono::milliseconds(50), config.commitDelay);
    EXPECT_EQ(2u, config.shipsInFlight);
    EXPECT_EQ("/run/qirn-fleet-agent/agent.lock", config.lockFile);
}

TEST(AgentConfigTest, EventLogDefaultsToTheServicesOutputLog) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=x\n");
    writeFile(dir.file("service.conf"), "# service\noutput_log = /srv/events.log\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("service.conf"), config).ok());
    EXPECT_EQ("/srv/events.log", config.eventLog);
}

TEST(AgentConfigTest, OwnEventLogWinsOverTheServices) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=x\nevent_log=/mine.log\n");
    writeFile(dir.file("service.conf"), "output_log=/srv/events.log\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("service.conf"), config).ok());
    EXPECT_EQ("/mine.log", config.eventLog);
}

TEST(AgentConfigTest, ReadsEverySetting) {
    TempDir dir;
    writeFile(dir.file("agent.conf"),
              "conninfo = service=fleet\n"
              "event_log=/e.log\n"
              "backfill_log=/b.log\n"
              "heartbeat_seconds=5\n"
              "textfile_dir=\n"
              "batch_lines=500\n"
              "commit_delay_ms=0\n"
              "ships_in_flight=1\n"
              "lock_file=/tmp/a.lock\n"
              "#conninfo=commented out\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("none"), config).ok());
    EXPECT_EQ("service=fleet", config.conninfo);
    EXPECT_EQ("/e.log", config.eventLog);
    EXPECT_EQ("/b.log", config.backfillLog);
    EXPECT_EQ(5, config.heartbeatSeconds);
    EXPECT_EQ("", config.textfileDir);
    EXPECT_EQ(500u, config.batchLines);
    EXPECT_EQ(std::chrono::milliseconds(0), config.commitDelay);
    EXPECT_EQ(1u, config.shipsInFlight);
    EXPECT_EQ("/tmp/a.lock", config.lockFile);
}

TEST(AgentConfigTest, AnEmptyLockFileKeepsTheDefault) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=x\nlock_file=\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("none"), config).ok());
    EXPECT_EQ("/run/qirn-fleet-agent/agent.lock", config.lockFile);
}

TEST(AgentConfigTest, AConnectionStringIsRequired) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "event_log=/e.log\n");
    AgentConfig config;
    const Status status = AgentConfig::load(dir.file("agent.conf"), dir.file("none"), config);
    EXPECT_EQ(Status::Code::INVALID, status.code());
    EXPECT_EQ(dir.file("agent.conf") + ": conninfo is required", status.message());
}

TEST(AgentConfigTest, AWrongNumberIsRefusedWithItsKey) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=x\nbatch_lines=many\n");
    AgentConfig config;
    const Status status = AgentConfig::load(dir.file("agent.conf"), dir.file("none"), config);
    EXPECT_EQ(Status::Code::INVALID, status.code());
    EXPECT_EQ(
        dir.file("agent.conf") + ": batch_lines must be a number from 1 to 1000000, not \"many\"",
        status.message());
}

TEST(AgentConfigTest, AMissingFileIsAnInputError) {
    TempDir dir;
    AgentConfig config;
    EXPECT_EQ(Status::Code::IO_ERROR,
              AgentConfig::load(dir.file("absent"), dir.file("none"), config).code());
}

TEST(AgentConfigTest, UnknownKeysAreKeptForAWarning) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "conninfo=x\nbatch_line=5\n");
    AgentConfig config;
    ASSERT_TRUE(AgentConfig::load(dir.file("agent.conf"), dir.file("none"), config).ok());
    EXPECT_EQ(std::vector<std::string>{"batch_line"}, config.unknownKeys);
}
