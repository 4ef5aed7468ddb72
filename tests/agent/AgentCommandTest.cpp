// The command's own face: its arguments and its refusal to start without a
// usable configuration. Only files in a fresh directory are given to it.

#include <unistd.h>

#include <gtest/gtest.h>

#include "agent/AgentLock.h"

#include "support/CommandRunner.h"
#include "support/TestSupport.h"

using testing_support::runCommand;
using testing_support::TempDir;
using testing_support::writeFile;

TEST(AgentCommandTest, AnUnknownArgumentPrintsTheUsage) {
    const auto result = runCommand(QLC_AGENT_PATH, {"--verbose"});
    EXPECT_EQ(2, result.exitCode);
    EXPECT_EQ("usage: qirn-fleet-agent [--config FILE]\n", result.stderrText);
}

TEST(AgentCommandTest, AMissingConfigurationIsNamedWithItsReason) {
    TempDir dir;
    const auto result = runCommand(QLC_AGENT_PATH, {"--config", dir.file("absent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ(
        "cannot start: cannot read " + dir.file("absent.conf") + ": No such file or directory\n",
        result.stderrText);
}

TEST(AgentCommandTest, AConfigurationWithoutAConnectionStringIsRefused) {
    TempDir dir;
    writeFile(dir.file("agent.conf"), "event_log=" + dir.file("events.log") + "\n");
    const auto result = runCommand(QLC_AGENT_PATH, {"--config=" + dir.file("agent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("cannot start: " + dir.file("agent.conf") + ": conninfo is required\n",
              result.stderrText);
}

TEST(AgentCommandTest, ASecondAgentOnTheMachineIsRefusedByTheLock) {
    TempDir dir;
    AgentLock running;
    ASSERT_TRUE(running.take(dir.file("agent.lock")).ok());
    // Refused before any connection: the connection string leads nowhere.
    writeFile(dir.file("agent.conf"),
              "conninfo=host=/nonexistent\nevent_log=" + dir.file("events.log") +
                  "\nbackfill_log=" + dir.file("backfill.log") +
                  "\ntextfile_dir=\nlock_file=" + dir.file("agent.lock") + "\n");
    const auto result = runCommand(QLC_AGENT_PATH, {"--config", dir.file("agent.conf")});
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("cannot start: another qirn-fleet-agent holds " + dir.file("agent.lock") + " (pid " +
                  std::to_string(getpid()) + "): one agent per machine\n",
              result.stderrText);
}
